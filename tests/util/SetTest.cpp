#include <gtest/gtest.h>

#include <string.h>

#include <set>
#include <string>

#include <vesk/Arena.h>
#include <vesk/LRU.h>
#include <vesk/Set.h>
#include <vesk/Str.h>

#include "support/Support.hpp"

namespace {

std::set<std::string> members(Set_T S) {
        std::set<std::string> out;
        Set_map(
            S,
            [](const void* m, void* cl) {
                    static_cast<std::set<std::string>*>(cl)->insert(static_cast<const char*>(m));
            },
            &out);
        return out;
}

Set_T setOf(std::initializer_list<const char*> names) {
        Set_T S = Set_new(0, Str_cmp, Str_hash);
        for (const char* n : names)
                Set_put(S, n);
        return S;
}

int otherCmp(const void* x, const void* y) {
        return strcmp(static_cast<const char*>(x), static_cast<const char*>(y));
}

using Names = std::set<std::string>;

}  // namespace


TEST(Set, PutOfAnEqualMemberReplacesTheReference) {
        char first[] = "admin", second[] = "admin";
        Set_T S = Set_new(1, Str_cmp, Str_hash);
        Set_put(S, first);
        Set_put(S, second);
        EXPECT_EQ(Set_length(S), 1);
        EXPECT_TRUE(Set_member(S, "admin"));
        EXPECT_FALSE(Set_member(S, "Admin"));
        EXPECT_EQ(Set_remove(S, "admin"), second);
        EXPECT_EQ(Set_remove(S, "admin"), nullptr);
        EXPECT_EQ(Set_length(S), 0);
        Set_free(&S);
}

TEST(Set, Algebra) {
        Set_T s = setOf({"a", "b", "c"}), t = setOf({"b", "c", "d", "e"});
        Set_T r;
        r = Set_union(s, t);
        EXPECT_EQ(members(r), (Names{"a", "b", "c", "d", "e"}));
        Set_free(&r);
        r = Set_inter(s, t);
        EXPECT_EQ(members(r), (Names{"b", "c"}));
        Set_free(&r);
        r = Set_minus(t, s);
        EXPECT_EQ(members(r), (Names{"d", "e"}));
        Set_free(&r);
        r = Set_diff(s, t);
        EXPECT_EQ(members(r), (Names{"a", "d", "e"}));
        Set_free(&r);
        EXPECT_EQ(members(s), (Names{"a", "b", "c"}));  // operands stay

        // One absent operand.
        r = Set_union(s, nullptr);
        EXPECT_NE(r, s);
        EXPECT_EQ(members(r), members(s));
        Set_free(&r);
        r = Set_inter(nullptr, t);
        EXPECT_EQ(Set_length(r), 0);
        Set_free(&r);
        r = Set_minus(nullptr, s);
        EXPECT_EQ(Set_length(r), 0);
        Set_free(&r);
        r = Set_minus(t, nullptr);
        EXPECT_EQ(members(r), members(t));
        Set_free(&r);
        r = Set_diff(nullptr, t);
        EXPECT_EQ(members(r), members(t));
        Set_free(&r);

        Set_T u = Set_new(0, otherCmp, Str_hash);
        EXPECT_EQ(assertion([&] { Set_union(s, u); }),
                  "s->cmp == t->cmp && s->hash == t->hash && s->arena == t->arena");
        Set_free(&u);
        Set_free(&s);
        Set_free(&t);
}

TEST(Set, ArenaSetsMakeArenaResults) {
        Arena_T arena = Arena_new();
        Set_T s = Set_alloc(arena, 0, Str_cmp, Str_hash),
              t = Set_alloc(arena, 600, Str_cmp, Str_hash);
        Set_put(s, "x");
        Set_put(t, "y");
        Set_T r = Set_union(s, t);
        EXPECT_EQ(members(r), (Names{"x", "y"}));
        EXPECT_EQ(assertion([&] { Set_free(&r); }), "(*S)->arena == NULL");
        Arena_dispose(&arena);
}

TEST(Set, WalkAndFailFast) {
        Set_T S = setOf({"a", "b", "c"});
        Names seen;
        Set_rewind(S);
        while (void* m = Set_next(S)) {
                seen.insert(static_cast<char*>(m));
                Set_remove(S, m);
        }
        EXPECT_EQ(seen, (Names{"a", "b", "c"}));
        EXPECT_EQ(Set_length(S), 0);
        Set_put(S, "a");
        EXPECT_EQ(
            assertion([&] {
                    Set_map(
                        S, [](const void*, void* cl) { Set_put(static_cast<Set_T>(cl), "a"); }, S);
            }),
            "S->timestamp == stamp");
        Set_free(&S);
}

TEST(LRU, OrderOfUse) {
        char a[] = "a", b[] = "b", c[] = "c";
        LRU_T L = LRU_new(10);
        EXPECT_EQ(LRU_removeEldest(L), nullptr);

        LRU_put(L, "a", a);
        LRU_put(L, "b", b);
        EXPECT_EQ(LRU_get(L, "a"), a);  // a is now the most recently used
        EXPECT_EQ(LRU_removeEldest(L), b);
        EXPECT_EQ(LRU_length(L), 1);

        LRU_put(L, "b", b);
        EXPECT_EQ(LRU_put(L, "a", c), a);  // a put is not a use
        EXPECT_EQ(LRU_length(L), 2);
        EXPECT_EQ(LRU_removeEldest(L), c);
        EXPECT_EQ(LRU_remove(L, "b"), b);
        EXPECT_EQ(LRU_remove(L, "b"), nullptr);
        EXPECT_EQ(LRU_get(L, "b"), nullptr);
        EXPECT_EQ(LRU_length(L), 0);
        LRU_free(&L);
}

TEST(LRU, WalkRunsFromEldestAndSurvivesRemoval) {
        static const char* keys[] = {"k0", "k1", "k2",  "k3",  "k4",  "k5",  "k6", "k7",
                                     "k8", "k9", "k10", "k11", "k12", "k13", "k14"};
        LRU_T L = LRU_new(0);
        for (const char* k : keys)
                LRU_put(L, k, const_cast<char*>(k));
        LRU_get(L, "k0");
        std::string order;
        LRU_rewind(L);
        for (int i = 0; i < 3; i++)
                order += static_cast<char*>(LRU_next(L)) + std::string(" ");
        EXPECT_EQ(order, "k1 k2 k3 ");
        // Removing the entry just returned keeps the walk on course.
        LRU_remove(L, "k3");
        EXPECT_STREQ(static_cast<char*>(LRU_next(L)), "k4");

        // Evict as the principal cache does: walk from the eldest to the first entry that may go.
        LRU_rewind(L);
        while (void* v = LRU_next(L))
                if (strcmp(static_cast<char*>(v), "k7") == 0) {
                        EXPECT_EQ(LRU_remove(L, "k7"), v);
                        break;
                }
        EXPECT_EQ(LRU_get(L, "k7"), nullptr);

        // More than ten removals: the ring recycles ten nodes and frees the rest.
        int n = 0;
        while (LRU_removeEldest(L))
                n++;
        EXPECT_EQ(n, 13);
        EXPECT_EQ(LRU_length(L), 0);
        LRU_rewind(L);
        EXPECT_EQ(LRU_next(L), nullptr);

        LRU_put(L, "x", const_cast<char*>(keys[0]));  // one entry: a walk gives it once
        LRU_rewind(L);
        EXPECT_EQ(LRU_next(L), keys[0]);
        EXPECT_EQ(LRU_next(L), nullptr);
        LRU_free(&L);
}
