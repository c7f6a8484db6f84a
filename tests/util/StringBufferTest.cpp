#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include <vesk/StringBuffer.h>

#include "support/Gzip.hpp"
#include "support/Support.hpp"

namespace {

// Owns a buffer for the length of a test.
struct Buffer {
        StringBuffer_T S;
        explicit Buffer(const char* s = "") : S(StringBuffer_new(s)) {}
        ~Buffer() {
                if (S)
                        StringBuffer_free(&S);
        }
        std::string text() const { return StringBuffer_toString(S); }
};

const char* const kNone = nullptr;

}  // namespace

TEST(StringBuffer, CreateAndFree) {
        Buffer b("hello");
        EXPECT_EQ(b.text(), "hello");
        EXPECT_EQ(StringBuffer_length(b.S), 5);
        Buffer none(nullptr);
        EXPECT_EQ(none.text(), "");
        std::string big(1000, 'x');
        Buffer large(big.c_str());
        EXPECT_EQ(large.text(), big);

        StringBuffer_T S = StringBuffer_create(1);
        StringBuffer_append(S, "%s", "grows from one byte");
        EXPECT_STREQ(StringBuffer_toString(S), "grows from one byte");
        StringBuffer_free(&S);
}

TEST(StringBuffer, AppendGrowsAndSetReplaces) {
        Buffer b;
        for (int i = 0; i < 1000; i++)
                StringBuffer_append(b.S, "%d,", i % 10);
        EXPECT_EQ(StringBuffer_length(b.S), 2000);
        EXPECT_EQ(b.text().substr(0, 6), "0,1,2,");
        EXPECT_EQ(b.text().substr(1994), "7,8,9,");
        // One append far larger than the free space.
        std::string big(10000, 'y');
        StringBuffer_append(b.S, "[%s]", big.c_str());
        EXPECT_EQ(b.text().substr(2000), "[" + big + "]");

        EXPECT_EQ(StringBuffer_append(b.S, kNone), b.S);
        EXPECT_EQ(StringBuffer_append(b.S, "%s", ""), b.S);
        EXPECT_EQ(StringBuffer_length(b.S), 12002);

        EXPECT_EQ(StringBuffer_set(b.S, "<%s>", "p"), b.S);
        EXPECT_EQ(b.text(), "<p>");
        StringBuffer_set(b.S, kNone);
        EXPECT_EQ(b.text(), "");
        StringBuffer_append(b.S, "again");
        EXPECT_EQ(StringBuffer_clear(b.S), b.S);
        EXPECT_EQ(b.text(), "");
        EXPECT_EQ(StringBuffer_length(b.S), 0);
}

TEST(StringBuffer, IndexOperations) {
        Buffer b("abcdef");
        EXPECT_EQ(StringBuffer_charAt(b.S, 0), 'a');
        EXPECT_EQ(StringBuffer_charAt(b.S, 6), '\0');
        EXPECT_EQ(assertion([&] { StringBuffer_charAt(b.S, 7); }), "Index out of bounds");
        EXPECT_STREQ(StringBuffer_substring(b.S, 4), "ef");
        EXPECT_EQ(StringBuffer_substring(b.S, 6), StringBuffer_toString(b.S) + 6);
        EXPECT_EQ(assertion([&] { StringBuffer_substring(b.S, 7); }), "Index out of bounds");

        StringBuffer_setCharAt(b.S, 0, 'A');
        EXPECT_EQ(b.text(), "Abcdef");
        StringBuffer_setCharAt(b.S, 6, 'g');  // on the terminator: extends the text
        EXPECT_EQ(b.text(), "Abcdefg");
        EXPECT_EQ(StringBuffer_length(b.S), 7);
        StringBuffer_setCharAt(b.S, 7, '\0');
        EXPECT_EQ(StringBuffer_length(b.S), 7);
        StringBuffer_setCharAt(b.S, 5, '\0');
        EXPECT_EQ(StringBuffer_length(b.S), 5);
        EXPECT_EQ(assertion([&] { StringBuffer_setCharAt(b.S, 6, 'x'); }), "Index out of bounds");

        EXPECT_EQ(StringBuffer_delete(b.S, 3), b.S);
        EXPECT_EQ(b.text(), "Abc");
        StringBuffer_delete(b.S, 3);
        EXPECT_EQ(b.text(), "Abc");
        EXPECT_EQ(assertion([&] { StringBuffer_delete(b.S, 4); }), "Index out of bounds");

        // Filling a buffer to its last byte through setCharAt grows it.
        StringBuffer_T S = StringBuffer_create(1);
        for (int i = 0; i < 300; i++)
                StringBuffer_setCharAt(S, i, 'z');
        EXPECT_EQ(std::string(StringBuffer_toString(S)), std::string(300, 'z'));
        StringBuffer_free(&S);
}

TEST(StringBuffer, Search) {
        Buffer b("abcabcab");
        EXPECT_EQ(StringBuffer_indexOf(b.S, "bc"), 1);
        EXPECT_EQ(StringBuffer_lastIndexOf(b.S, "bc"), 4);
        EXPECT_EQ(StringBuffer_lastIndexOf(b.S, "a"), 6);
        EXPECT_EQ(StringBuffer_lastIndexOf(b.S, "abcabcab"), 0);
        EXPECT_EQ(StringBuffer_indexOf(b.S, "BC"), -1);
        EXPECT_EQ(StringBuffer_lastIndexOf(b.S, "abcabcabc"), -1);
        EXPECT_EQ(StringBuffer_indexOf(b.S, ""), -1);
        Buffer empty;
        EXPECT_EQ(StringBuffer_indexOf(empty.S, "a"), -1);
        EXPECT_EQ(StringBuffer_lastIndexOf(empty.S, "a"), -1);
}

TEST(StringBuffer, Trim) {
        Buffer b(" \t\r\n text here \n ");
        EXPECT_EQ(StringBuffer_trim(b.S), b.S);
        EXPECT_EQ(b.text(), "text here");
        EXPECT_EQ(StringBuffer_length(b.S), 9);
        Buffer blank(" \t\n ");
        StringBuffer_trim(blank.S);
        EXPECT_EQ(blank.text(), "");
        EXPECT_EQ(StringBuffer_length(blank.S), 0);
}

TEST(StringBuffer, Replace) {
        Buffer b("a<b>c<d>");
        EXPECT_EQ(StringBuffer_replace(b.S, "<", "&lt;"), 2);
        EXPECT_EQ(b.text(), "a&lt;b>c&lt;d>");
        EXPECT_EQ(StringBuffer_replace(b.S, "&lt;", "("), 2);
        EXPECT_EQ(b.text(), "a(b>c(d>");
        EXPECT_EQ(StringBuffer_length(b.S), 8);
        EXPECT_EQ(StringBuffer_replace(b.S, ">", ""), 2);
        EXPECT_EQ(b.text(), "a(bc(d");
        EXPECT_EQ(StringBuffer_replace(b.S, "B", "x"), 0);  // case counts
        EXPECT_EQ(StringBuffer_replace(b.S, "", "x"), 0);
        EXPECT_EQ(StringBuffer_replace(b.S, "a", kNone), 0);
        EXPECT_EQ(b.text(), "a(bc(d");

        // Overlapping matches: counted for room, replaced from the left only.
        Buffer overlap("aaa");
        EXPECT_EQ(StringBuffer_replace(overlap.S, "aa", "bbb"), 1);
        EXPECT_EQ(overlap.text(), "bbba");
        EXPECT_EQ(StringBuffer_length(overlap.S), 4);
        Buffer shrink("aaaaa");
        EXPECT_EQ(StringBuffer_replace(shrink.S, "aa", "b"), 2);
        EXPECT_EQ(shrink.text(), "bba");

        // Growth past the capacity resizes the buffer.
        std::string many(300, '.');
        Buffer grow(many.c_str());
        EXPECT_EQ(StringBuffer_replace(grow.S, ".", "[.]"), 300);
        std::string expected;
        for (int i = 0; i < 300; i++)
                expected += "[.]";
        EXPECT_EQ(grow.text(), expected);
        EXPECT_EQ(StringBuffer_length(grow.S), 900);
        StringBuffer_append(grow.S, "!");
        EXPECT_EQ(grow.text(), expected + "!");

        Buffer empty;
        EXPECT_EQ(StringBuffer_replace(empty.S, "a", "b"), 0);
}

TEST(StringBuffer, Compressed) {
        Buffer b;
        int len = -1;
        EXPECT_EQ(StringBuffer_toCompressed(b.S, 6, &len), nullptr);
        EXPECT_EQ(len, 0);

        for (int i = 0; i < 200; i++)
                StringBuffer_append(b.S, "<tr><td>row %d</td></tr>\n", i);
        const unsigned char* z = StringBuffer_toCompressed(b.S, 9, &len);
        ASSERT_NE(z, nullptr);
        EXPECT_EQ(z[0], 0x1f);  // gzip magic
        EXPECT_EQ(z[1], 0x8b);
        EXPECT_LT(len, StringBuffer_length(b.S) / 4);
        EXPECT_EQ(gunzip(z, static_cast<size_t>(len)), b.text());

        // Level 0 stores; the block is reused for the next result.
        const unsigned char* stored = StringBuffer_toCompressed(b.S, 0, &len);
        EXPECT_GT(len, StringBuffer_length(b.S));
        EXPECT_EQ(gunzip(stored, static_cast<size_t>(len)), b.text());

        StringBuffer_set(b.S, "x");
        EXPECT_EQ(gunzip(StringBuffer_toCompressed(b.S, 1, &len), static_cast<size_t>(len)), "x");
        StringBuffer_clear(b.S);
        EXPECT_EQ(StringBuffer_toCompressed(b.S, 1, &len), nullptr);

}
