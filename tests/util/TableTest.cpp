#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include <vesk/Arena.h>
#include <vesk/Mem.h>
#include <vesk/Str.h>
#include <vesk/Table.h>

#include "support/Support.hpp"

namespace {

// Integer keys carried in the pointer; the hash is the number, so a key's bucket is known.
int cmpInt(const void* x, const void* y) {
        return x != y;
}
unsigned int hashInt(const void* x) {
        return (unsigned int)(uintptr_t)x;
}
// Every key in bucket 0, so chain order is visible.
unsigned int hashZero(const void*) {
        return 0;
}
void* num(uintptr_t n) {
        return reinterpret_cast<void*>(n);
}

// The first key of Table_keys: the newest binding of bucket 0 after keys 1..n went in.
uintptr_t firstKey(int hint, uintptr_t n) {
        Table_T H = Table_new(hint, cmpInt, hashInt);
        for (uintptr_t k = 1; k <= n; k++)
                Table_put(H, num(k), num(k));
        void** keys = Table_keys(H);
        uintptr_t first = (uintptr_t)keys[0];
        FREE(keys);
        Table_free(&H);
        return first;
}

}  // namespace

TEST(Table, BucketCountIsTheLargestSizeBelowTheHint) {
        EXPECT_EQ(firstKey(0, 40), 38u);  // 19 buckets: 19 and 38 share bucket 0
        EXPECT_EQ(firstKey(37, 40), 38u);
        EXPECT_EQ(firstKey(38, 40), 37u);  // 37 buckets
        EXPECT_EQ(firstKey(128, 200), 127u);
        EXPECT_EQ(firstKey(0x7fffffff, 65521), 65521u);
}

TEST(Table, PutReturnsWhatItReplaced) {
        char k1[] = "key", k2[] = "key";
        Table_T H = Table_new(10, Str_cmp, Str_hash);
        EXPECT_EQ(Table_put(H, k1, num(1)), nullptr);
        EXPECT_EQ(Table_put(H, k2, num(2)), num(1));
        EXPECT_EQ(Table_length(H), 1);
        EXPECT_EQ(Table_get(H, "key"), num(2));
        EXPECT_EQ(Table_get(H, "KEY"), nullptr);  // case matters
        EXPECT_TRUE(Table_has(H, "key"));
        void** pairs = Table_toArray(H);
        EXPECT_EQ(pairs[0], k1);  // the first key stays
        EXPECT_EQ(pairs[1], num(2));
        EXPECT_EQ(pairs[2], nullptr);
        FREE(pairs);
        EXPECT_EQ(Table_remove(H, "key"), num(2));
        EXPECT_EQ(Table_remove(H, "key"), nullptr);
        EXPECT_EQ(Table_length(H), 0);
        void** keys = Table_keys(H);
        EXPECT_EQ(keys[0], nullptr);
        FREE(keys);
        Table_free(&H);
}

TEST(Table, MapMayChangeValuesButNotTheTable) {
        Table_T H = Table_new(0, cmpInt, hashZero);
        for (uintptr_t k = 1; k <= 3; k++)
                Table_put(H, num(k), num(k));
        std::string order;
        Table_map(
            H,
            [](const void* key, void** value, void* cl) {
                    *static_cast<std::string*>(cl) += std::to_string((uintptr_t)key);
                    *value = num((uintptr_t)*value * 10);
            },
            &order);
        EXPECT_EQ(order, "321");  // newest first along a chain
        EXPECT_EQ(Table_get(H, num(2)), num(20));
        // Even a removal that misses counts as a change.
        EXPECT_EQ(assertion([&] {
                          Table_map(
                              H,
                              [](const void*, void**, void* cl) {
                                      Table_remove(static_cast<Table_T>(cl), num(99));
                              },
                              H);
                  }),
                  "H->timestamp == stamp");
        Table_free(&H);
}

TEST(Table, WalkSurvivesRemovalOnBothPaths) {
        // 300 removals pass the recycle limit of a heap table, so the late ones free bindings.
        for (bool arena : {false, true}) {
                Arena_T A = arena ? Arena_new() : nullptr;
                Table_T H = Table_alloc(A, 0, cmpInt, hashZero);
                for (uintptr_t k = 1; k <= 300; k++)
                        Table_put(H, num(k), num(k));
                Table_rewind(H);
                uintptr_t expected = 300, seen = 0;
                while (void* v = Table_next(H)) {
                        EXPECT_EQ((uintptr_t)v, expected--);
                        seen++;
                        // Drop the binding just returned and the one the walk would return next.
                        Table_remove(H, v);
                        if ((uintptr_t)v > 1) {
                                Table_remove(H, num((uintptr_t)v - 1));
                                expected--;
                        }
                }
                EXPECT_EQ(seen, 150u);
                EXPECT_EQ(Table_length(H), 0);
                EXPECT_EQ(Table_next(H), nullptr);
                for (uintptr_t k = 1; k <= 300; k++)
                        Table_put(H, num(k), num(k));
                EXPECT_EQ(Table_length(H), 300);
                if (arena)
                        Arena_dispose(&A);
                else
                        Table_free(&H);
        }
}

TEST(Table, ArenaTableAllocatesItsArraysInTheArena) {
        Arena_T arena = Arena_new();
        Table_T H = Table_alloc(arena, 5, cmpInt, hashInt);
        Table_put(H, num(7), num(70));
        void** pairs = Table_toArray(H);  // the arena frees it
        EXPECT_EQ(pairs[0], num(7));
        EXPECT_EQ(pairs[1], num(70));
        EXPECT_EQ(pairs[2], nullptr);
        EXPECT_FALSE(Table_has(H, nullptr));
        EXPECT_EQ(assertion([&] { Table_free(&H); }), "(*H)->arena == NULL");
        Arena_dispose(&arena);
}
