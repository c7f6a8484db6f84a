#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include <vesk/Array.h>
#include <vesk/Seq.h>

#include "support/Support.hpp"

namespace {

// The elements of a sequence in order, as a text of single letters.
std::string letters(Seq_T seq) {
        std::string s;
        for (int i = 0; i < Seq_length(seq); i++)
                s += *static_cast<char*>(Seq_get(seq, i));
        return s;
}

char L[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

}  // namespace

TEST(Array, NewIsZeroedAndEmptyHoldsNothing) {
        Array_T a = Array_new(5, sizeof(int));
        EXPECT_EQ(Array_length(a), 5);
        EXPECT_EQ(Array_size(a), (int)sizeof(int));
        for (int i = 0; i < 5; i++)
                EXPECT_EQ(*static_cast<int*>(Array_get(a, i)), 0);
        Array_free(&a);

        Array_T e = Array_new(0, 4);
        EXPECT_EQ(assertion([&] { Array_get(e, 0); }), "i >= 0 && i < array->length");
        Array_free(&e);
}

TEST(Array, Checks) {
        Array_T a = Array_new(2, 4);
        EXPECT_EQ(assertion([&] { Array_get(a, 2); }), "i >= 0 && i < array->length");
        EXPECT_EQ(assertion([&] { Array_resize(a, 0x40000000); }),
                  "length <= INT_MAX / array->size");
        Array_free(&a);
}

TEST(Array, PutCopiesResizeKeepsAndCopyTruncates) {
        Array_T a = Array_new(3, sizeof(int));
        for (int i = 0; i < 3; i++) {
                int v = 10 * i;
                EXPECT_EQ(Array_put(a, i, &v), &v);
        }
        Array_resize(a, 5);
        EXPECT_EQ(*static_cast<int*>(Array_get(a, 2)), 20);
        EXPECT_EQ(*static_cast<int*>(Array_get(a, 4)), 0);  // grown elements are zero
        Array_T shorter = Array_copy(a, 2);
        Array_T longer = Array_copy(a, 7);
        EXPECT_EQ(Array_length(shorter), 2);
        EXPECT_EQ(*static_cast<int*>(Array_get(shorter, 1)), 10);
        EXPECT_EQ(*static_cast<int*>(Array_get(longer, 2)), 20);
        EXPECT_EQ(*static_cast<int*>(Array_get(longer, 6)), 0);
        Array_resize(a, 0);
        EXPECT_EQ(Array_length(a), 0);
        Array_resize(a, 1);  // from nothing again
        EXPECT_EQ(*static_cast<int*>(Array_get(a, 0)), 0);
        Array_T none = Array_copy(a, 0);
        EXPECT_EQ(Array_length(none), 0);
        Array_free(&a);
        Array_free(&shorter);
        Array_free(&longer);
        Array_free(&none);
}

TEST(Seq, ChecksAndEmpty) {
        Seq_T s = Seq_new(0);
        EXPECT_EQ(assertion([&] { Seq_remlo(s); }), "seq->length > 0");
        EXPECT_EQ(assertion([&] { Seq_put(s, -1, L); }), "i >= 0 && i < seq->length");
        Seq_free(&s);
}

TEST(Seq, GrowsAtBothEndsKeepingOrder) {
        // Seq_new(0) takes 16 before the first resize; wrap the head round first so that the
        // resize must move the elements behind it.
        Seq_T s = Seq_new(0);
        for (int i = 8; i < 16; i++)
                Seq_addhi(s, L + i);
        for (int i = 7; i >= 0; i--)
                Seq_addlo(s, L + i);
        EXPECT_EQ(letters(s), "abcdefghijklmnop");
        Seq_addlo(s, L + 61);  // full: doubles
        Seq_addhi(s, L + 16);
        EXPECT_EQ(letters(s), "9abcdefghijklmnopq");
        EXPECT_EQ(*static_cast<char*>(Seq_remlo(s)), '9');
        EXPECT_EQ(*static_cast<char*>(Seq_remhi(s)), 'q');
        EXPECT_EQ(*static_cast<char*>(Seq_put(s, 3, L + 26)), 'd');
        EXPECT_EQ(letters(s), "abcAefghijklmnop");
        Seq_free(&s);

        Seq_T t = Seq_new(1);
        for (int i = 0; i < 40; i++)
                (i % 2 ? Seq_addhi : Seq_addlo)(t, L + i);
        std::string expect;
        for (int i = 38; i >= 0; i -= 2)
                expect += L[i];
        for (int i = 1; i < 40; i += 2)
                expect += L[i];
        EXPECT_EQ(letters(t), expect);
        Seq_free(&t);
}

TEST(Seq, SeqOfArgumentsStopsAtNull) {
        Seq_T s = Seq_seq(L, L + 1, L + 2, nullptr, L + 3);
        EXPECT_EQ(letters(s), "abc");
        Seq_free(&s);
        Seq_T e = Seq_seq(nullptr);
        EXPECT_EQ(Seq_length(e), 0);
        Seq_free(&e);
}
