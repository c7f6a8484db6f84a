#include <gtest/gtest.h>

#include <vesk/Arena.h>
#include <vesk/List.h>
#include <vesk/Mem.h>
#include <vesk/Vector.h>

#include "support/Support.hpp"

namespace {

char a[] = "a", b[] = "b", c[] = "c";

std::string joined(List_T L) {
        std::string s;
        for (list_t p = L->head; p; p = p->next)
                s += static_cast<char*>(p->e);
        return s;
}

std::string joined(Vector_T V) {
        std::string s;
        for (int i = 0; i < Vector_size(V); i++)
                s += static_cast<char*>(Vector_get(V, i));
        return s;
}

}  // namespace

TEST(List, ArenaListIsNotFreed) {
        Arena_T arena = Arena_new();
        List_T L = List_alloc(arena);
        EXPECT_EQ(assertion([&] { List_free(&L); }), "(*L)->arena == NULL");
        Arena_dispose(&arena);
}

TEST(List, AddRemoveAndOrder) {
        List_T L = List_new();
        EXPECT_EQ(List_pop(L), nullptr);
        EXPECT_EQ(List_length(L), 0);
        List_append(L, b);
        List_push(L, a);
        List_append(L, c);
        EXPECT_EQ(joined(L), "abc");
        EXPECT_EQ(L->tail->e, c);

        // Identity, not content: an equal string elsewhere is not the element.
        char otherB[] = "b";
        EXPECT_EQ(List_remove(L, otherB), nullptr);
        EXPECT_EQ(List_remove(L, nullptr), nullptr);
        EXPECT_EQ(List_remove(L, c), c);
        EXPECT_EQ(L->tail->e, b);
        List_append(L, c);
        EXPECT_EQ(joined(L), "abc");

        List_reverse(L);
        EXPECT_EQ(joined(L), "cba");
        EXPECT_EQ(L->tail->e, a);
        List_append(L, b);
        EXPECT_EQ(List_remove(L, b), b);  // the first of two only
        EXPECT_EQ(joined(L), "cab");
        EXPECT_EQ(List_pop(L), c);
        EXPECT_EQ(List_length(L), 2);

        void** array = List_toArray(L);
        EXPECT_EQ(array[0], a);
        EXPECT_EQ(array[1], b);
        EXPECT_EQ(array[2], nullptr);
        FREE(array);
        List_free(&L);
}

TEST(List, CatLeavesTheSourceAndIgnoresItself) {
        List_T L = List_new(), M = List_new();
        List_append(L, a);
        List_append(M, b);
        List_append(M, c);
        List_cat(L, L);
        EXPECT_EQ(joined(L), "a");
        List_cat(L, M);
        EXPECT_EQ(joined(L), "abc");
        EXPECT_EQ(joined(M), "bc");
        List_free(&L);
        List_free(&M);
}

TEST(List, ClearRecyclesEveryNode) {
        Arena_T arena = Arena_new();
        List_T L = List_alloc(arena);
        List_push(L, a);
        List_push(L, b);
        list_t first = L->head, second = L->head->next;
        List_clear(L);
        EXPECT_EQ(List_length(L), 0);
        EXPECT_EQ(L->head, nullptr);
        List_push(L, c);
        List_push(L, c);
        EXPECT_TRUE((L->head == first || L->head == second) &&
                    (L->head->next == first || L->head->next == second));

        // A list emptied by pops still has a stale tail; clearing it must keep the recycled nodes.
        List_pop(L);
        List_pop(L);
        List_clear(L);
        List_push(L, a);
        List_push(L, b);
        EXPECT_TRUE(L->head == first || L->head == second);
        EXPECT_EQ(joined(L), "ba");
        Arena_dispose(&arena);

        List_T H = List_new();  // leak-checked under the sanitizer
        List_push(H, a);
        List_pop(H);
        List_clear(H);
        List_append(H, b);
        List_clear(H);
        List_free(&H);
}

TEST(List, MapFailsFastOnAddOrRemove) {
        List_T L = List_new();
        List_append(L, a);
        List_append(L, b);
        std::string seen;
        List_map(
            L, [](void* e, void* cl) { *static_cast<std::string*>(cl) += static_cast<char*>(e); },
            &seen);
        EXPECT_EQ(seen, "ab");
        EXPECT_EQ(assertion([&] {
                          List_map(
                              L, [](void*, void* cl) { List_push(static_cast<List_T>(cl), c); }, L);
                  }),
                  "L->timestamp == stamp");
        // Clearing is not counted as a change.
        EXPECT_EQ(assertion([&] {
                          List_map(
                              L, [](void*, void* cl) { List_clear(static_cast<List_T>(cl)); }, L);
                  }),
                  "");
        List_free(&L);
}

TEST(Vector, ChecksAndBounds) {
        Vector_T V = Vector_new(0);
        EXPECT_EQ(assertion([&] { Vector_pop(V); }), "Vector is empty");
        EXPECT_EQ(assertion([&] { Vector_insert(V, 1, a); }), "Index out of bounds");
        Vector_insert(V, 0, b);  // at length: appends
        EXPECT_EQ(assertion([&] { Vector_set(V, 1, a); }), "Index out of bounds");
        EXPECT_EQ(assertion([&] { Vector_remove(V, 1); }), "Index out of bounds");
        Vector_free(&V);
}

TEST(Vector, GrowsAndShifts) {
        Vector_T V = Vector_new(0);
        for (int i = 0; i < 17; i++)
                Vector_push(V, c);
        EXPECT_EQ(Vector_size(V), 17);
        Vector_clear(V);
        EXPECT_TRUE(Vector_isEmpty(V));

        Vector_push(V, c);
        Vector_insert(V, 0, a);
        Vector_insert(V, 1, b);
        Vector_insert(V, 3, a);
        EXPECT_EQ(joined(V), "abca");
        EXPECT_EQ(Vector_set(V, 3, b), a);
        EXPECT_EQ(Vector_remove(V, 0), a);
        EXPECT_EQ(joined(V), "bcb");
        EXPECT_EQ(Vector_pop(V), b);
        EXPECT_EQ(joined(V), "bc");

        void** array = Vector_toArray(V, a);
        EXPECT_EQ(array[0], b);
        EXPECT_EQ(array[1], c);
        EXPECT_EQ(array[2], a);
        FREE(array);
        array = Vector_toArray(V, nullptr);
        EXPECT_EQ(array[2], nullptr);
        FREE(array);
        Vector_free(&V);

        V = Vector_new(1);  // grows from a small hint one doubling at a time
        for (int i = 0; i < 1000; i++)
                Vector_push(V, a);
        EXPECT_EQ(Vector_size(V), 1000);
        EXPECT_EQ(Vector_get(V, 999), a);
        Vector_free(&V);
}

TEST(Vector, MapFailsFastOnChange) {
        Vector_T V = Vector_new(2);
        Vector_push(V, a);
        Vector_push(V, b);
        EXPECT_EQ(
            assertion([&] {
                    Vector_map(
                        V, [](void*, void* cl) { Vector_set(static_cast<Vector_T>(cl), 0, c); }, V);
            }),
            "V->timestamp == stamp");
        // Clearing is not counted, but the walk re-reads the length and ends.
        struct Walk {
                Vector_T V;
                int calls;
        } walk = {V, 0};
        Vector_map(
            V,
            [](void*, void* cl) {
                    auto* w = static_cast<Walk*>(cl);
                    w->calls++;
                    Vector_clear(w->V);
            },
            &walk);
        EXPECT_EQ(walk.calls, 1);
        Vector_free(&V);
}
