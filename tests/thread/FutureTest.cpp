#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <vesk/Future.h>

#include "support/HttpSupport.hpp"
#include "support/Support.hpp"
#include "support/Threads.hpp"

namespace {

// Threads that each wait on one of keys, counting those that came back.
struct Waiters {
        std::atomic<int> back{0};
        std::vector<std::unique_ptr<Background>> threads;

        Waiters(Future_T F, std::vector<std::string> keys) {
                for (auto& key : keys)
                        threads.push_back(std::make_unique<Background>([this, F, key] {
                                Future_wait(F, key.c_str());
                                back++;
                        }));
        }
        void join() {
                for (auto& t : threads)
                        t->join();
        }
};

}  // namespace

TEST(Future, SignalThatComesFirstIsKeptForTheNextWaits) {
        Future_T F = Future_new();
        Future_notify(F, "ready");
        Future_notify(F, "ready");
        EXPECT_EQ(Future_has(F, "ready"), 2);
        // Keys used up meanwhile are swept when a new one comes; the kept signals stay.
        for (const char* key : {"a", "b", "c"}) {
                Future_notify(F, key);
                Future_wait(F, key);
        }
        EXPECT_EQ(Future_has(F, "ready"), 2);
        Future_wait(F, "ready");
        EXPECT_TRUE(Future_timedWait(F, 60000, "ready"));
        // Both were consumed: the third wait blocks until the next signal.
        Waiters third(F, {"ready"});
        EXPECT_TRUE(third.threads[0]->blocks());
        Future_notify(F, "ready");
        third.join();
        EXPECT_EQ(Future_has(F, "ready"), 0);
        Future_free(&F);
}

TEST(Future, TimedWaitThatRunsOutReturnsFalseAndLogsNothing) {
        Future_T F = Future_new();
        EXPECT_EQ(assertion([&] { Future_timedWait(F, 0, "k"); }), "millisec > 0");
        testing::internal::CaptureStderr();
        // A millisecond is rounded down to the present second, which has begun already.
        EXPECT_FALSE(Future_timedWait(F, 1, "never"));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(Future_has(F, "never"), 0);
        Future_free(&F);
}

TEST(Future, SignalWakesAllWaitersOfItsKeyAndNoOther) {
        Future_T F = Future_new();
        Waiters go(F, {"go", "go", "go"}), stay(F, {"stay"});
        ASSERT_TRUE(
            eventually([&] { return Future_has(F, "go") == 3 && Future_has(F, "stay") == 1; }));
        Future_notify(F, "go");
        go.join();
        EXPECT_EQ(go.back, 3);
        // Nobody was left to take a kept signal, and the other key still waits.
        EXPECT_EQ(Future_has(F, "go"), 0);
        EXPECT_EQ(Future_has(F, "stay"), 1);
        EXPECT_EQ(stay.back, 0);
        Future_notifyAll(F);
        stay.join();
        Future_free(&F);
}

TEST(Future, FreeWakesTheWaitersAndWaitsUntilTheyHaveLeft) {
        Future_T F = Future_new();
        Waiters waiters(F, {"a", "b", "b"});
        ASSERT_TRUE(eventually([&] { return Future_has(F, "a") == 1 && Future_has(F, "b") == 2; }));
        Future_free(&F);
        waiters.join();
        EXPECT_EQ(waiters.back, 3);
}
