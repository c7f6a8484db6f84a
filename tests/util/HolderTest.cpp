#include <gtest/gtest.h>

#include <errno.h>

#include <utility>
#include <vector>

#include <vesk/Mem.h>

#include "util/Holder.hpp"

namespace {

std::vector<int> given;

// Records what comes back, and fails as a close may, setting errno.
int giveBack(int handle) {
        given.push_back(handle);
        errno = EBADF;
        return -1;
}

using Handle = vesk::Descriptor<giveBack>;

}  // namespace

TEST(Holder, GivesEachHandleBackOnceWhoeverEndsUpHoldingIt) {
        given.clear();
        {
                Handle a(3);
                Handle b(std::move(a));
                EXPECT_FALSE(a);
                EXPECT_EQ(b.get(), 3);
                Handle c(4);
                c = std::move(b);
                EXPECT_EQ(given, std::vector<int>{4});
                Handle d(5);
                EXPECT_EQ(d.release(), 5);
                EXPECT_FALSE(d);
                d.reset(6);
                d.reset(0);  // 0 is a descriptor like any other: only -1 is none
                EXPECT_TRUE(d);
                errno = ENOENT;
                d.reset();
                EXPECT_EQ(errno, ENOENT) << "a failure path keeps the errno that explains it";
                Handle none;
                EXPECT_FALSE(none);
        }
        EXPECT_EQ(given, (std::vector<int>{4, 6, 0, 3}));
}

TEST(Holder, HeapBlockMovesWithoutLeakOrDoubleFree) {
        vesk::Block<char> a(static_cast<char*>(ALLOC(16)));
        vesk::Block<char> b(static_cast<char*>(ALLOC(16)));
        b = std::move(a);
        EXPECT_FALSE(a);
        vesk::Block<char> c(std::move(b));
        EXPECT_TRUE(c);
        char* kept = c.release();
        FREE(kept);
}
