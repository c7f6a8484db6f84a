#include <gtest/gtest.h>

#include <stdarg.h>
#include <string.h>

#include <string>
#include <vector>

#include <vesk/Arena.h>
#include <vesk/Map.h>
#include <vesk/Mem.h>
#include <vesk/Str.h>

#include "support/Support.hpp"

TEST(Map, KeysIgnoreCaseAndKeepTheirValues) {
        Map_T M = Map_new();
        Map_put(M, "Accept", "text/html");
        Map_put(M, "ACCEPT", "text/plain");
        Map_put(M, nullptr, "ignored");
        EXPECT_EQ(Map_length(M), 1);
        EXPECT_STREQ(Map_get(M, "accept"), "text/plain");
        const char** values = Map_gets(M, "aCCept");
        ASSERT_NE(values, nullptr);
        EXPECT_STREQ(values[0], "text/plain");
        EXPECT_STREQ(values[1], "text/html");
        EXPECT_EQ(values[2], nullptr);
        FREE(values);
        EXPECT_EQ(Map_gets(M, "Host"), nullptr);
        EXPECT_EQ(Map_gets(M, nullptr), nullptr);
        EXPECT_EQ(Map_get(M, nullptr), nullptr);

        Map_put(M, "x", nullptr);  // a key without values
        EXPECT_TRUE(Map_has(M, "X"));
        EXPECT_EQ(Map_get(M, "x"), nullptr);
        values = Map_gets(M, "x");
        EXPECT_EQ(values[0], nullptr);
        FREE(values);

        Map_set(M, "accept", "*/*");  // replaces all values, keeps the first key text
        const char** keys = Map_keys(M);
        EXPECT_STREQ(keys[0], "x");
        EXPECT_STREQ(keys[1], "Accept");
        EXPECT_EQ(keys[2], nullptr);
        FREE(keys);
        values = Map_values(M);
        EXPECT_STREQ(values[0], "*/*");
        EXPECT_EQ(values[1], nullptr);
        FREE(values);

        Map_remove(M, "ACCEPT");
        Map_remove(M, "unknown");
        EXPECT_EQ(Map_length(M), 1);
        Map_clear(M);
        EXPECT_EQ(Map_length(M), 0);
        EXPECT_FALSE(Map_has(M, "x"));
        Map_put(M, "y", "1");
        Map_free(&M);
}

TEST(Map, HasValueFindsASubstringIgnoringCase) {
        Arena_T arena = Arena_new();
        Map_T M = Map_alloc(arena);
        Map_put(M, "Accept-Encoding", "GZIP, deflate");
        EXPECT_TRUE(Map_hasValue(M, "accept-encoding", "gzip"));
        EXPECT_TRUE(Map_hasValue(M, "accept-encoding", "Deflate"));
        EXPECT_FALSE(Map_hasValue(M, "accept-encoding", "br"));
        EXPECT_FALSE(Map_hasValue(M, "accept-encoding", nullptr));
        EXPECT_FALSE(Map_hasValue(M, nullptr, "gzip"));
        Map_set(M, "accept-encoding", nullptr);
        EXPECT_FALSE(Map_hasValue(M, "accept-encoding", "gzip"));
        EXPECT_TRUE(Map_has(M, "accept-encoding"));
        Arena_dispose(&arena);
}

namespace {

const char* vget(Map_T M, const char* fmt, ...) VESK_PRINTF(2, 3);
const char* vget(Map_T M, const char* fmt, ...) {
        va_list ap;
        va_start(ap, fmt);
        const char* v = Map_vget(M, fmt, ap);
        va_end(ap);
        return v;
}

const char** vgets(Map_T M, const char* fmt, ...) VESK_PRINTF(2, 3);
const char** vgets(Map_T M, const char* fmt, ...) {
        va_list ap;
        va_start(ap, fmt);
        const char** v = Map_vgets(M, fmt, ap);
        va_end(ap);
        return v;
}

}  // namespace

TEST(Map, FormattedKeysAreCutAt255) {
        Map_T M = Map_new();
        std::string key255(255, 'k'), key300(300, 'k');
        Map_put(M, key255.c_str(), "long");
        Map_put(M, "item7", "seven");
        EXPECT_STREQ(vget(M, "item%d", 7), "seven");
        EXPECT_STREQ(vget(M, "%s", key300.c_str()), "long");
        const char** values = vgets(M, "ITEM%d", 7);
        EXPECT_STREQ(values[0], "seven");
        FREE(values);
        Map_free(&M);
}

TEST(Map, MapVisitsEveryValueAndFailsFast) {
        Map_T M = Map_new();
        Map_put(M, "a", "1");
        Map_put(M, "a", "2");
        Map_put(M, "b", nullptr);
        std::string seen;
        Map_map(
            M,
            [](const char* key, const char* value, void* cl) {
                    *static_cast<std::string*>(cl) +=
                        std::string(key) + "=" + (value ? value : "-") + ";";
            },
            &seen);
        EXPECT_EQ(seen, "b=-;a=2;a=1;");
        EXPECT_EQ(assertion([&] {
                          Map_map(
                              M,
                              [](const char*, const char*, void* cl) {
                                      Map_put(static_cast<Map_T>(cl), "c", "3");
                              },
                              M);
                  }),
                  "M->timestamp == stamp");

        testing::internal::CaptureStdout();
        Map_remove(M, "a");
        Map_list(M);
        EXPECT_EQ(
            testing::internal::GetCapturedStdout(),
            "{c={" +
                std::string(testing::internal::StreamableToString((const void*)Map_get(M, "c"))) +
                "}, b={null}}\n");
        Map_free(&M);
}

namespace {

// Keys "Name0".."Name<n-1>": the first put in upper case, a second value under the key in
// lower case for every third, so that case-blind look-up goes through the index.
struct Names {
        std::vector<std::string> upper, lower;
        explicit Names(int n) {
                for (int i = 0; i < n; i++) {
                        upper.push_back("NAME" + std::to_string(i));
                        lower.push_back("name" + std::to_string(i));
                }
        }
};

// The keys in list order; a heap map's array is freed here, an arena map's left to the arena.
std::string keysOf(Map_T M, bool heap) {
        std::string text;
        const char** keys = Map_keys(M);
        for (const char** k = keys; *k; k++)
                text += std::string(*k) + " ";
        if (heap)
                FREE(keys);
        return text;
}

void largeMapKeepsItsContract(Map_T M, bool heap) {
        const int n = 2000;
        Names names(n);
        for (int i = 0; i < n; i++) {
                Map_put(M, names.upper[i].c_str(), "first");
                if (i % 3 == 0)
                        Map_put(M, names.lower[i].c_str(), "second");
        }
        const int values = n + (n + 2) / 3;
        EXPECT_EQ(Map_length(M), n);
        EXPECT_EQ(Map_count(M), values);
        for (int i = 0; i < n; i++) {
                ASSERT_STREQ(Map_get(M, names.lower[i].c_str()), i % 3 ? "first" : "second") << i;
                ASSERT_TRUE(Map_has(M, names.upper[i].c_str()));
        }
        EXPECT_FALSE(Map_has(M, "name2000"));

        // The list order stands: newest key first, and the first text of a key is kept.
        std::string expected;
        for (int i = n - 1; i >= 0; i--)
                expected += names.upper[i] + " ";
        EXPECT_EQ(keysOf(M, heap), expected);

        // Removal of the newest, the oldest and a key between relinks list and index.
        Map_remove(M, "name1999");
        Map_remove(M, "NAME0");
        Map_remove(M, "Name1000");
        EXPECT_EQ(Map_length(M), n - 3);
        EXPECT_EQ(Map_count(M), values - 4);
        EXPECT_FALSE(Map_has(M, "name1000"));
        EXPECT_TRUE(Map_has(M, "name1001"));
        EXPECT_TRUE(Map_has(M, "name999"));
        expected.clear();
        for (int i = n - 2; i >= 1; i--)
                if (i != 1000)
                        expected += names.upper[i] + " ";
        EXPECT_EQ(keysOf(M, heap), expected);

        Map_set(M, "name3", "only");
        EXPECT_EQ(Map_count(M), values - 5);
        Map_put(M, "name1000", "back");
        EXPECT_STREQ(Map_get(M, "NAME1000"), "back");
        EXPECT_EQ(keysOf(M, heap).rfind("name1000 ", 0), 0u);

        Map_clear(M);
        EXPECT_EQ(Map_length(M), 0);
        EXPECT_EQ(Map_count(M), 0);
        EXPECT_FALSE(Map_has(M, "name5"));
        for (int i = 0; i < 100; i++)
                Map_put(M, names.upper[i].c_str(), "again");
        EXPECT_STREQ(Map_get(M, "name99"), "again");
        EXPECT_EQ(Map_length(M), 100);
}

}  // namespace

TEST(Map, ManyKeysKeepOrderCaseAndCounts) {
        Map_T M = Map_new();
        largeMapKeepsItsContract(M, true);
        Map_free(&M);

        Arena_T arena = Arena_new();
        M = Map_alloc(arena);
        largeMapKeepsItsContract(M, false);
        Arena_dispose(&arena);
}
