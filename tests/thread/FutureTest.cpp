#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <vesk/Future.h>

#include "support/HttpSupport.hpp"
#include "support/Support.hpp"
#include "support/Threads.hpp"

TEST(Future, ChecksItsArguments) {
        Future_T F = Future_new();
        EXPECT_EQ(assertion([&] { Future_timedWait(F, 0, "k"); }), "millisec > 0");
        EXPECT_EQ(assertion([&] { Future_wait(F, nullptr); }), "key");
        EXPECT_EQ(assertion([&] { Future_notify(nullptr, "k"); }), "F");
        EXPECT_EQ(assertion([] { Future_free(nullptr); }), "F && *F");
        Future_free(&F);
        EXPECT_EQ(F, nullptr);
}

TEST(Future, SignalThatComesFirstIsKeptForTheNextWaits) {
        Future_T F = Future_new();
        Future_notify(F, "ready");
        Future_notify(F, "ready");
        EXPECT_EQ(Future_has(F, "ready"), 2);
        EXPECT_EQ(Future_has(F, "other"), 0);
        {
                Background first([&] { Future_wait(F, "ready"); });
                EXPECT_FALSE(first.blocks());
        }
        EXPECT_TRUE(Future_timedWait(F, 60000, "ready"));
        EXPECT_EQ(Future_has(F, "ready"), 0);
        // Both were consumed: the third wait blocks until the next signal.
        Background third([&] { Future_wait(F, "ready"); });
        EXPECT_TRUE(third.blocks());
        EXPECT_TRUE(eventually([&] { return Future_has(F, "ready") == 1; }));
        Future_notify(F, "ready");
        third.join();
        EXPECT_EQ(Future_has(F, "ready"), 0);
        Future_free(&F);
}

TEST(Future, TimedWaitThatRunsOutReturnsFalseAndLogsNothing) {
        Future_T F = Future_new();
        testing::internal::CaptureStderr();
        // A millisecond is rounded down to the present second, which has begun already.
        EXPECT_FALSE(Future_timedWait(F, 1, "never"));
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_EQ(Future_has(F, "never"), 0);
        Future_free(&F);
}

TEST(Future, SignalWakesAllWaitersOfItsKeyAndNoOther) {
        Future_T F = Future_new();
        std::atomic<int> woken{0};
        std::vector<std::unique_ptr<Background>> waiters;
        for (int i = 0; i < 3; i++)
                waiters.push_back(std::make_unique<Background>([&] {
                        Future_wait(F, "go");
                        woken++;
                }));
        Background bystander([&] { Future_wait(F, "stay"); });
        ASSERT_TRUE(eventually([&] { return Future_has(F, "go") == 3 && Future_has(F, "stay") == 1; }));
        Future_notify(F, "go");
        for (auto& w : waiters)
                w->join();
        EXPECT_EQ(woken, 3);
        // Nobody was left to take a kept signal, and the other key still waits.
        EXPECT_EQ(Future_has(F, "go"), 0);
        EXPECT_FALSE(bystander.done());
        EXPECT_EQ(Future_has(F, "stay"), 1);
        Future_notifyAll(F);
        bystander.join();
        Future_free(&F);
}

TEST(Future, FreeWakesTheWaitersAndWaitsUntilTheyHaveLeft) {
        Future_T F = Future_new();
        std::atomic<int> returned{0};
        std::vector<std::unique_ptr<Background>> waiters;
        for (const char* key : {"a", "b", "b"})
                waiters.push_back(std::make_unique<Background>([&, key] {
                        if (key[0] == 'a')
                                Future_wait(F, key);
                        else
                                EXPECT_TRUE(Future_timedWait(F, 60000, key));
                        returned++;
                }));
        ASSERT_TRUE(eventually([&] { return Future_has(F, "a") == 1 && Future_has(F, "b") == 2; }));
        Future_free(&F);
        for (auto& w : waiters)
                w->join();
        EXPECT_EQ(returned, 3);
}

TEST(Future, SweepOfUnusedKeysKeepsStoredSignals) {
        Future_T F = Future_new();
        Future_notify(F, "kept");
        for (int i = 0; i < 50; i++) {
                std::string key = "key" + std::to_string(i);
                Future_notify(F, key.c_str());
                Future_wait(F, key.c_str());
        }
        // Each new key swept the keys used up before it, but not the one with a kept signal.
        EXPECT_EQ(Future_has(F, "key48"), 0);
        EXPECT_EQ(Future_has(F, "kept"), 1);
        Future_wait(F, "kept");
        Future_free(&F);
}
