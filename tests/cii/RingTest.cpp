#include <gtest/gtest.h>

#include <string>

#include <vesk/Ring.h>

#include "support/Support.hpp"

namespace {

char L[] = "abcdefghijklmnopqrstuvwxyz";

std::string letters(Ring_T ring) {
        std::string s;
        for (int i = 0; i < Ring_length(ring); i++)
                s += *static_cast<char*>(Ring_get(ring, i));
        return s;
}

// A ring of the first n letters.
Ring_T ring(int n) {
        Ring_T r = Ring_new();
        for (int i = 0; i < n; i++)
                Ring_addhi(r, L + i);
        return r;
}

}  // namespace

TEST(Ring, Checks) {
        Ring_T r = Ring_new();
        EXPECT_EQ(assertion([&] { Ring_remlo(r); }), "ring->length > 0");
        EXPECT_EQ(assertion([&] { Ring_add(r, 2, L); }),
                  "pos >= -ring->length && pos<=ring->length+1");
        Ring_rotate(r, 0);  // an empty ring turns without dividing by its length
        Ring_addhi(r, L);
        EXPECT_EQ(assertion([&] { Ring_remove(r, 1); }), "i >= 0 && i < ring->length");
        Ring_free(&r);
}

TEST(Ring, AddAtPositionsBetweenElements) {
        Ring_T r = Ring_new();
        Ring_add(r, 0, L + 2);   // empty: 0 appends
        Ring_add(r, 1, L + 0);   // before the first
        Ring_add(r, 2, L + 1);   // between a and c
        Ring_add(r, 0, L + 4);   // after the last
        Ring_add(r, -1, L + 3);  // before the last, counted from the right
        EXPECT_EQ(letters(r), "abcde");
        Ring_add(r, -5, L + 25);  // -length is before the first
        Ring_add(r, 7, L + 24);   // length + 1 is after the last
        EXPECT_EQ(letters(r), "zabcdey");
        Ring_free(&r);

        Ring_T s = Ring_ring(L + 1, L + 2, nullptr);
        Ring_addlo(s, L);
        EXPECT_EQ(letters(s), "abc");
        Ring_free(&s);
}

TEST(Ring, GetPutAndRemoveBothWaysRound) {
        Ring_T r = ring(9);
        EXPECT_EQ(*static_cast<char*>(Ring_get(r, 7)), 'h');  // reached by the left links
        EXPECT_EQ(*static_cast<char*>(Ring_get(r, 2)), 'c');
        EXPECT_EQ(*static_cast<char*>(Ring_put(r, 6, L + 25)), 'g');
        EXPECT_EQ(*static_cast<char*>(Ring_remove(r, 0)), 'a');
        EXPECT_EQ(*static_cast<char*>(Ring_remove(r, 6)), 'h');
        EXPECT_EQ(*static_cast<char*>(Ring_remlo(r)), 'b');
        EXPECT_EQ(*static_cast<char*>(Ring_remhi(r)), 'i');
        EXPECT_EQ(letters(r), "cdefz");
        while (Ring_length(r) > 0)
                Ring_remhi(r);
        Ring_addlo(r, L);  // usable again once emptied
        EXPECT_EQ(letters(r), "a");
        Ring_free(&r);
}

TEST(Ring, RotateTurnsRightForPositiveAndLeftForNegative) {
        const std::pair<int, const char*> cases[] = {{0, "abcde"},  {1, "eabcd"},  {2, "deabc"},
                                                     {3, "cdeab"},  {5, "abcde"},  {-1, "bcdea"},
                                                     {-2, "cdeab"}, {-4, "eabcd"}, {-5, "abcde"}};
        for (auto [n, expect] : cases) {
                Ring_T r = ring(5);
                Ring_rotate(r, n);
                EXPECT_EQ(letters(r), expect) << "n = " << n;
                Ring_free(&r);
        }
}
