#include <gtest/gtest.h>

#include <limits.h>
#include <string.h>

#include <string>

#include <vesk/Arena.h>
#include <vesk/Mem.h>
#include <vesk/Str.h>

#include "support/Support.hpp"

namespace {

// The arena forms with the caller's site filled in.
#define ESCAPE(A, chars, s) Str_escape_arena((A), (chars), (s), __func__, __FILE__, __LINE__)
#define REPLACE(A, s, o, n) Str_replace_arena((A), (s), (o), (n), __func__, __FILE__, __LINE__)
#define ENTITYIFY(A, s) Str_entityify_arena((A), (s), __func__, __FILE__, __LINE__)

// Runs an in-place edit on a writable copy of s and returns the result.
template <typename F>
std::string edited(const char* s, F&& f) {
        std::string buffer(s);
        return f(buffer.data());
}

class StrArena : public ::testing::Test {
protected:
        void TearDown() override { Arena_dispose(&arena); }
        Arena_T arena = Arena_new();
};

const char* const kNone = nullptr;

}  // namespace

TEST(Str, EqualityAndOrder) {
        EXPECT_TRUE(Str_isEqual("Content-Type", "content-TYPE"));
        EXPECT_FALSE(Str_isEqual("abc", "abd"));
        EXPECT_FALSE(Str_isEqual(nullptr, nullptr));
        EXPECT_TRUE(Str_isByteEqual("abc", "abc"));
        EXPECT_FALSE(Str_isByteEqual("abc", "ABC"));
        EXPECT_FALSE(Str_isByteEqual(nullptr, "abc"));
        EXPECT_EQ(Str_cmp("abc", "abc"), 0);
        EXPECT_LT(Str_cmp("ABC", "abc"), 0);
        EXPECT_GT(Str_cmp("b", "a"), 0);
}

TEST(Str, CompareConstantTime) {
        EXPECT_EQ(Str_compareConstantTime("secret", "secret"), 0);
        EXPECT_NE(Str_compareConstantTime("secret", "secreT"), 0);
        EXPECT_NE(Str_compareConstantTime("secret", "secret2"), 0);
        EXPECT_EQ(Str_compareConstantTime(nullptr, ""), 0);
        EXPECT_NE(Str_compareConstantTime(nullptr, "a"), 0);
        std::string s64(64, 'x'), s65(65, 'x');
        EXPECT_EQ(Str_compareConstantTime(s64.c_str(), s64.c_str()), 0);
        EXPECT_EQ(Str_compareConstantTime(s65.c_str(), s65.c_str()), 1);
        EXPECT_EQ(Str_compareConstantTime("a", s65.c_str()), 1);
}

TEST(Str, StartsWith) {
        EXPECT_TRUE(Str_startsWith("Multipart/Form-Data; boundary=x", "multipart/"));
        EXPECT_TRUE(Str_startsWith("abc", "abc"));
        EXPECT_FALSE(Str_startsWith("ab", "abc"));
        EXPECT_FALSE(Str_startsWith("abc", "b"));
        EXPECT_FALSE(Str_startsWith("abc", ""));
        EXPECT_TRUE(Str_startsWith("", ""));
        EXPECT_FALSE(Str_startsWith(nullptr, "a"));
}

TEST(Str, EndsWithAndItsGap) {
        EXPECT_TRUE(Str_endsWith("index.CSP", ".csp"));
        EXPECT_TRUE(Str_endsWith("abc", ""));
        EXPECT_FALSE(Str_endsWith("", "a"));
        EXPECT_FALSE(Str_endsWith(nullptr, ""));
        // The first byte of the suffix is never compared.
        EXPECT_TRUE(Str_endsWith("ab", "xb"));
        EXPECT_TRUE(Str_endsWith("xbc", "abc"));
        EXPECT_TRUE(Str_endsWith("filexcsp", ".csp"));
        EXPECT_FALSE(Str_endsWith("file.csx", ".csp"));
        EXPECT_FALSE(Str_endsWith("bc", "abc"));
        EXPECT_FALSE(Str_endsWith("c", "bc"));
}

TEST(Str, SubHasAlnumLim) {
        const char* type = "multipart/form-data; BOUNDARY=xyz";
        EXPECT_EQ(Str_sub(type, "boundary"), type + 21);
        EXPECT_EQ(Str_sub(type, "nothing"), nullptr);
        EXPECT_EQ(Str_sub(type, ""), nullptr);
        EXPECT_EQ(Str_sub(nullptr, "a"), nullptr);

        EXPECT_TRUE(Str_has("/\\", "a/b"));
        EXPECT_FALSE(Str_has("/\\", "ab"));
        EXPECT_FALSE(Str_has("", "ab"));
        EXPECT_FALSE(Str_has(nullptr, "a"));

        EXPECT_TRUE(Str_isalnum("abcXYZ019"));
        EXPECT_FALSE(Str_isalnum("ab-c"));
        EXPECT_FALSE(Str_isalnum("\xe9t\xe9"));
        EXPECT_FALSE(Str_isalnum(nullptr));

        EXPECT_TRUE(Str_lim("abcd", 3));
        EXPECT_FALSE(Str_lim("abc", 3));
        EXPECT_FALSE(Str_lim(nullptr, 0));
        EXPECT_TRUE(Str_lim("a", 0));
        EXPECT_FALSE(Str_lim("a", INT_MAX));
}

TEST(Str, Match) {
        EXPECT_TRUE(Str_match("^[0-9]+(\\.[0-9]+)?$", "12.5"));
        EXPECT_FALSE(Str_match("^[0-9]+$", "12a"));
        EXPECT_TRUE(Str_match("b|c", "abc"));
        EXPECT_FALSE(Str_match(".*", ""));
        EXPECT_FALSE(Str_match(".*", nullptr));
        std::string error = assertion([] { Str_match("a(", "a"); });
        EXPECT_EQ(error.rfind("regular expression error -- ", 0), 0u) << error;
        EXPECT_GT(error.size(), strlen("regular expression error -- "));
}

TEST(Str, TrimFamily) {
        EXPECT_EQ(edited(" \t a b \r\n", Str_trim), "a b");
        EXPECT_EQ(edited(" \t ", Str_trim), "");
        EXPECT_EQ(edited(" \t ", Str_rtrim), "");
        EXPECT_EQ(edited("  a ", Str_ltrim), "a ");
        EXPECT_EQ(edited("  a ", Str_rtrim), "  a");
        EXPECT_EQ(edited("a", Str_trim), "a");
        EXPECT_EQ(edited("a\r\nb", Str_chomp), "a");
        EXPECT_EQ(edited("ab\n", Str_chomp), "ab");
        EXPECT_EQ(edited("a  \t b", Str_wtrim), "a b");
        EXPECT_EQ(edited("\ta\tb  ", Str_wtrim), "\ta\tb ");
        EXPECT_EQ(edited(" \"'value' \" ", Str_unquote), "value");
        EXPECT_EQ(edited("\"a'b\"", Str_unquote), "a'b");
        EXPECT_EQ(edited("\"'\"", Str_unquote), "");
        EXPECT_EQ(edited("x'", Str_unquote), "x");
        char empty[] = "";
        for (auto f : {Str_trim, Str_ltrim, Str_rtrim, Str_wtrim, Str_unquote, Str_chomp,
                       Str_toLower, Str_toUpper, Str_toalnum}) {
                EXPECT_EQ(f(nullptr), nullptr);
                EXPECT_EQ(f(empty), empty);
        }
}

TEST(Str, CaseAndBytes) {
        EXPECT_EQ(edited("Text/HTML", Str_toLower), "text/html");
        EXPECT_EQ(edited("Text/HTML", Str_toUpper), "TEXT/HTML");
        EXPECT_EQ(edited("a-b_c 1\xe9", Str_toalnum), "abc1");
        EXPECT_EQ(edited("a/b/c", [](char* s) { return Str_replaceChar(s, '/', '.'); }), "a.b.c");
        EXPECT_EQ(
            edited("text/html; Charset=utf-8", [](char* s) { return Str_curtail(s, "; charset"); }),
            "text/html");
        EXPECT_EQ(edited("abc", [](char* s) { return Str_curtail(s, "x"); }), "abc");
}

TEST(Str, Trunc) {
        EXPECT_EQ(edited("abcdef", [](char* s) { return Str_trunc(s, 5); }), "ab...");
        EXPECT_EQ(edited("abcdef", [](char* s) { return Str_trunc(s, 3); }), "...");
        EXPECT_EQ(edited("abcdef", [](char* s) { return Str_trunc(s, 2); }), "ab");
        EXPECT_EQ(edited("abcdef", [](char* s) { return Str_trunc(s, 0); }), "");
        EXPECT_EQ(edited("abcdef", [](char* s) { return Str_trunc(s, 6); }), "abcdef");
}

TEST(Str, HeapCopies) {
        char* s = Str_dup("hello");
        EXPECT_STREQ(s, "hello");
        FREE(s);
        s = Str_ndup("hello", 3);
        EXPECT_STREQ(s, "hel");
        FREE(s);
        s = Str_ndup("hi", 10);
        EXPECT_STREQ(s, "hi");
        FREE(s);
        EXPECT_EQ(Str_dup(nullptr), nullptr);

        s = Str_cat("%s=%d", "n", 42);
        EXPECT_STREQ(s, "n=42");
        FREE(s);
        std::string longText(5000, 'z');
        s = Str_cat("<%s>", longText.c_str());
        EXPECT_EQ(std::string(s), "<" + longText + ">");
        FREE(s);
        EXPECT_EQ(Str_cat(kNone), nullptr);
}

TEST(Str, CopyAndJoin) {
        char buf[8];
        EXPECT_STREQ(Str_copy(buf, "abcdefghij", 7), "abcdefg");
        EXPECT_STREQ(Str_copy(buf, "ab", 7), "ab");
        EXPECT_STREQ(Str_copy(buf, nullptr, 7), "");
        strcpy(buf, "x");
        EXPECT_STREQ(Str_copy(buf, "ab", 0), "");

        char path[12];
        EXPECT_STREQ(Str_join(path, 11, "/usr", "/local", "/lib"), "/usr/local/");
        EXPECT_STREQ(Str_join(path, 11, "a", "b", kNone, "c"), "ab");
        EXPECT_STREQ(Str_join(path, 11, kNone, "c"), "");
        strcpy(path, "x");
        EXPECT_STREQ(Str_join(path, 0, "abc"), "");
}

TEST(Str, Ton) {
        char buf[STR_TON_SIZE];
        EXPECT_STREQ(Str_ton(0, buf), "0");
        EXPECT_STREQ(Str_ton(-42, buf), "-42");
        EXPECT_STREQ(Str_ton(LONG_MAX, buf), std::to_string(LONG_MAX).c_str());
        char* p = Str_ton(LONG_MIN, buf);
        EXPECT_STREQ(p, std::to_string(LONG_MIN).c_str());
        EXPECT_GT(p, buf);
        EXPECT_EQ(buf[STR_TON_SIZE - 1], 0);
}

TEST_F(StrArena, Copies) {
        EXPECT_STREQ(STR_DUP_ARENA(arena, "abc"), "abc");
        EXPECT_EQ(STR_DUP_ARENA(arena, nullptr), nullptr);
        EXPECT_STREQ(STR_NDUP_ARENA(arena, "abcdef", 2), "ab");
        EXPECT_STREQ(STR_CAT_ARENA(arena, "%d-%s", 7, "x"), "7-x");
        EXPECT_EQ(STR_CAT_ARENA(arena, kNone), nullptr);
        // Around the 256-byte local buffer: 255 characters fit it, 256 are formatted again.
        for (size_t n : {255u, 256u, 4000u}) {
                std::string text(n, 'q');
                EXPECT_EQ(std::string(STR_CAT_ARENA(arena, "%s", text.c_str())), text);
        }
}

TEST_F(StrArena, Escape) {
        const char* s = "a'b\"c";
        EXPECT_STREQ(ESCAPE(arena, "'\"", s), "a\\'b\\\"c");
        EXPECT_EQ(ESCAPE(arena, "'\"", "abc"), std::string("abc"));
        const char* plain = "abc";
        EXPECT_EQ(ESCAPE(arena, "'", plain), plain);
        EXPECT_EQ(ESCAPE(arena, "", s), s);
        EXPECT_EQ(ESCAPE(arena, nullptr, s), s);
}

TEST_F(StrArena, Replace) {
        char grow[] = "a-b-c";
        char* r = REPLACE(arena, grow, "-", "--");
        EXPECT_STREQ(r, "a--b--c");
        EXPECT_STREQ(grow, "a-b-c");  // growing goes to a copy

        char shrink[] = "a--b--c";
        EXPECT_EQ(REPLACE(arena, shrink, "--", "+"), shrink);
        EXPECT_STREQ(shrink, "a+b+c");

        char same[] = "xyz";
        EXPECT_EQ(REPLACE(arena, same, "Y", "q"), same);  // case counts
        EXPECT_STREQ(same, "xyz");
        EXPECT_EQ(REPLACE(arena, same, "", "q"), same);
        EXPECT_EQ(REPLACE(arena, same, "y", nullptr), same);
        EXPECT_STREQ(REPLACE(arena, same, "y", ""), "xz");

        // Overlapping matches are counted for the room but replaced from the left only.
        char overlap[] = "aaa";
        EXPECT_STREQ(REPLACE(arena, overlap, "aa", "bbb"), "bbba");
        char overlap2[] = "aaaa";
        EXPECT_STREQ(REPLACE(arena, overlap2, "aa", "b"), "bb");
        char whole[] = "abc";
        EXPECT_STREQ(REPLACE(arena, whole, "abc", "<tag>"), "<tag>");
}

TEST_F(StrArena, Entityify) {
        EXPECT_STREQ(ENTITYIFY(arena, "<a href=\"x\">'&'</a>"),
                     "&lt;a href=&#34;x&#34;&gt;&#39;&amp;&#39;&lt;/a&gt;");
        EXPECT_STREQ(ENTITYIFY(arena, "a & b"), "a &amp; b");
        EXPECT_STREQ(ENTITYIFY(arena, "&amp; &#34; &; &x"), "&amp; &#34; &; &amp;x");
        EXPECT_STREQ(ENTITYIFY(arena, "&"), "&amp;");
        const char* plain = "nothing to do";
        EXPECT_EQ(ENTITYIFY(arena, plain), plain);
        const char* kept = "&amp;";
        char* copy = ENTITYIFY(arena, kept);
        EXPECT_NE(copy, kept);  // an ampersand makes a copy even when it is kept
        EXPECT_STREQ(copy, kept);
}

TEST(Str, ParseNumbers) {
        EXPECT_EQ(Str_parseInt("42"), 42);
        EXPECT_EQ(Str_parseInt("  -7"), -7);
        EXPECT_EQ(Str_parseInt("12abc"), 12);
        EXPECT_EQ(Str_parseInt("2147483647"), INT_MAX);
        EXPECT_EQ(Str_parseLLong("-9223372036854775808"), LLONG_MIN);
        EXPECT_FLOAT_EQ(Str_parseFloat("1.5kg"), 1.5f);
        EXPECT_DOUBLE_EQ(Str_parseDouble(" 2.5e3"), 2500.0);

        EXPECT_EQ(raised([] { Str_parseInt(""); }), "NumberFormatException: For input string null");
        EXPECT_EQ(raised([] { Str_parseInt("abc"); }),
                  "NumberFormatException: For input string abc");
        EXPECT_EQ(raised([] { Str_parseInt("2147483648"); }),
                  "NumberFormatException: For input string 2147483648");
        EXPECT_EQ(raised([] { Str_parseLLong("99999999999999999999"); }),
                  "NumberFormatException: For input string 99999999999999999999");
        EXPECT_EQ(raised([] { Str_parseDouble("x1"); }),
                  "NumberFormatException: For input string x1");
        EXPECT_EQ(raised([] { Str_parseFloat("1e999"); }),
                  "NumberFormatException: For input string 1e999");
}

TEST(Str, Hash) {
        EXPECT_EQ(Str_hash(""), 0u);
        EXPECT_EQ(Str_hash("a"), 0x61u);
        EXPECT_EQ(Str_hash("ab"), 0x672u);
        // Long enough to push bits into the top nibble, which folds back in.
        EXPECT_EQ(Str_hash("printf"), 0x077905a6u);
        EXPECT_EQ(Str_hash("exit"), 0x0006cf04u);
        EXPECT_NE(Str_hash("Host"), Str_hash("host"));
}

TEST(Str, BytesToSize) {
        char s[10];
        EXPECT_STREQ(Str_bytesToSize(0, s), "0 B");
        EXPECT_STREQ(Str_bytesToSize(1023, s), "1023 B");
        EXPECT_STREQ(Str_bytesToSize(1024, s), "1 kB");
        EXPECT_STREQ(Str_bytesToSize(1536, s), "1.5 kB");
        EXPECT_STREQ(Str_bytesToSize(3.0 * 1024 * 1024 * 1024, s), "3 GB");
        EXPECT_STREQ(Str_bytesToSize(1e23, s), "84.7 ZB");
}

TEST(Str, MilliToTime) {
        char s[23];
        EXPECT_STREQ(Str_milliToTime(999, s), "999 ms");
        EXPECT_STREQ(Str_milliToTime(1000, s), "1 s");
        EXPECT_STREQ(Str_milliToTime(1500, s), "1.500 s");
        EXPECT_STREQ(Str_milliToTime(90000, s), "1.500 m");
        EXPECT_STREQ(Str_milliToTime(7200000, s), "120 m");
        EXPECT_STREQ(Str_milliToTime(-2000, s), "-2 s");
}
