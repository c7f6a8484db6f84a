#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>
#include <cstddef>
#include <stdlib.h>

#include <thread>
#include <vector>

#include <vesk/Arena.h>
#include <vesk/Mem.h>

#include "support/Support.hpp"

namespace {

// Each allocation of this size needs a chunk of its own: what is left of a chunk
// (the 10240 bytes of slack) is too small for the next one.
constexpr int kBig = 20000;

// Runs f on a fresh thread, whose free-chunk list starts empty.
template <typename F>
void onFreshThread(F&& f) {
        std::thread(std::forward<F>(f)).join();
}

}  // namespace

TEST(Mem, ChecksAndAbsentPointer) {
        Mem_free(nullptr, __func__, __FILE__, __LINE__);
        char* p = static_cast<char*>(ALLOC(3));
        memcpy(p, "ab", 3);
        RESIZE(p, 5000);
        EXPECT_STREQ(p, "ab");
        FREE(p);
}

TEST(Mem, ExhaustionNamesTheCallersSite) {
        std::string func;
        int line = 0;
        TRY
                Mem_calloc(0x7fffffff, 0x7fffffff, "askingFunction", "asking.c", 77);
        CATCH(MemoryException)
                func = Exception_frame.func;
                line = Exception_frame.line;
                EXPECT_STRNE(Exception_frame.message, "");
        END_TRY;
        EXPECT_EQ(func, "askingFunction");
        EXPECT_EQ(line, 77);
}


TEST(Arena, AllocationsAreAlignedDistinctAndZeroedOnRequest) {
        Arena_T A = Arena_new();
        std::vector<char*> blocks;
        for (int n = 1; n < 3000; n += 7) {
                char* p = static_cast<char*>(ARENA_ALLOC(A, n));
                EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignof(std::max_align_t), 0u);
                memset(p, n & 0xff, static_cast<size_t>(n));
                blocks.push_back(p);
        }
        for (size_t i = 0; i < blocks.size(); i++)
                EXPECT_EQ(static_cast<unsigned char>(blocks[i][0]), (1 + 7 * i) & 0xff)
                    << "overlap at " << i;
        char* z = static_cast<char*>(ARENA_CALLOC(A, 100, 33));
        for (int i = 0; i < 3300; i++)
                ASSERT_EQ(z[i], 0);
        Arena_dispose(&A);
}

TEST(Arena, FreedChunksAreReusedLastInFirstOutUpToTen) {
        onFreshThread([] {
                Arena_T A = Arena_new();
                std::vector<char*> first;
                for (int i = 0; i < 11; i++)
                        first.push_back(static_cast<char*>(ARENA_ALLOC(A, kBig)));
                Arena_free(A);
                // Take the heap block the eleventh chunk went back to, if the heap hands it out
                // again.
                void* heapBlock = malloc(kBig + 10240 + 64);

                // Freeing walks newest first, so chunks 11..2 are listed with chunk 2 on top.
                std::vector<char*> second;
                for (int i = 0; i < 11; i++)
                        second.push_back(static_cast<char*>(ARENA_ALLOC(A, kBig)));
                for (int i = 0; i < 10; i++)
                        EXPECT_EQ(second[i], first[i + 1]) << "chunk " << i;
                EXPECT_NE(second[10], first[0]) << "an eleventh chunk was kept on the list";
                free(heapBlock);
                Arena_dispose(&A);
        });
}

TEST(Arena, TooSmallListedChunksStayInTheArenaUntilFreed) {
        onFreshThread([] {
                Arena_T A = Arena_new();
                char* small = static_cast<char*>(ARENA_ALLOC(A, 16));
                Arena_free(A);
                // The listed chunk holds 16 + 10240 bytes: too small, popped and kept, then a new
                // chunk comes.
                char* big = static_cast<char*>(ARENA_ALLOC(A, 50000));
                EXPECT_NE(big, small);
                memset(big, 1, 50000);
                // Both chunks go back to the list: the big one (newest) first, the small one on
                // top.
                Arena_free(A);
                EXPECT_EQ(ARENA_ALLOC(A, 16), small);
                EXPECT_EQ(ARENA_ALLOC(A, 12000), big);
                Arena_dispose(&A);
        });
}

TEST(Arena, ThreadWithoutListUsesTheHeapEachTime) {
        Arena_T A = Arena_new();
        onFreshThread([&] {
                // This thread never made an arena, so it has no list: chunks come from and go to
                // the heap.
                for (int i = 0; i < 3; i++) {
                        memset(ARENA_ALLOC(A, kBig), 0, kBig);
                        Arena_free(A);
                }
        });
        Arena_dispose(&A);
}

TEST(Arena, ExhaustionLeavesEarlierAllocationsValid) {
        Arena_T A = Arena_new();
        char* p = static_cast<char*>(ARENA_ALLOC(A, 64));
        strcpy(p, "kept");
        EXPECT_EQ(
            raised([&] { ARENA_CALLOC(A, 0x7fffffff, 0x7fffffff); }).rfind("MemoryException", 0),
            0u);
        EXPECT_STREQ(p, "kept");
        EXPECT_NE(ARENA_ALLOC(A, 8), nullptr);
        Arena_dispose(&A);
}
