#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vesk/Cache.h>
#include <vesk/CacheQueue.h>
#include <vesk/List.h>
#include <vesk/Str.h>

#include "support/Support.hpp"
#include "support/Threads.hpp"

#include <vesk/assert.h>

namespace {

using namespace std::chrono_literals;

struct CacheFixture : ::testing::Test {
        Cache_T C = Cache_new(16, Str_cmp, Str_hash);
        int one = 1, two = 2, three = 3;
        ~CacheFixture() override { Cache_free(&C); }
};

}  // namespace

TEST_F(CacheFixture, PutGetRemoveAndTheirChecks) {
        EXPECT_EQ(Cache_put(C, "a", &one), nullptr);
        EXPECT_EQ(Cache_put(C, "b", &two), nullptr);
        EXPECT_EQ(Cache_put(C, "a", &three), &one);
        EXPECT_EQ(Cache_size(C), 2);
        EXPECT_TRUE(Cache_has(C, "a"));
        EXPECT_FALSE(Cache_has(C, "z"));
        EXPECT_FALSE(Cache_has(C, nullptr));

        void** e = Cache_get(C, "a");
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(*e, &three);
        *e = &one;  // the holder may replace the value in place
        Cache_return(C, e);
        EXPECT_EQ(Cache_get(C, "z"), nullptr);

        EXPECT_EQ(Cache_remove(C, "a"), &one);
        EXPECT_EQ(Cache_remove(C, "a"), nullptr);
        EXPECT_FALSE(Cache_has(C, "a"));
        EXPECT_EQ(Cache_size(C), 1);

}

TEST_F(CacheFixture, CheckOutHoldsOnlyItsOwnEntry) {
        Cache_put(C, "a", &one);
        Cache_put(C, "b", &two);
        void** a = Cache_get(C, "a");
        std::atomic<void*> seen{nullptr};
        Background other([&] {
                void** b = Cache_get(C, "b");  // another entry: no wait
                Cache_return(C, b);
                void** again = Cache_get(C, "a");
                seen = *again;
                Cache_return(C, again);
        });
        EXPECT_TRUE(other.blocks());
        // A put over the held entry waits too, and the holder's value does not change.
        Background putter([&] { EXPECT_EQ(Cache_put(C, "a", &three), &one); });
        EXPECT_TRUE(putter.blocks());
        EXPECT_EQ(*a, &one);
        Cache_return(C, a);
        other.join();
        putter.join();
        EXPECT_TRUE(seen == &one || seen == &three);
        void** now = Cache_get(C, "a");
        EXPECT_EQ(*now, &three);
        Cache_return(C, now);
}

TEST_F(CacheFixture, RemoveWaitsForTheHolder) {
        Cache_put(C, "a", &one);
        void** a = Cache_get(C, "a");
        std::atomic<void*> removed{nullptr};
        Background remover([&] { removed = Cache_remove(C, "a"); });
        EXPECT_TRUE(remover.blocks());
        // Out of the table already: no new check-out can begin.
        EXPECT_EQ(Cache_get(C, "a"), nullptr);
        Cache_return(C, a);
        remover.join();
        EXPECT_EQ(removed, &one);
}

TEST_F(CacheFixture, MapWaitsForCheckOutsAndHoldsNewOnes) {
        Cache_put(C, "a", &one);
        Cache_put(C, "b", &two);
        void** a = Cache_get(C, "a");
        std::atomic<int> sum{0};
        std::atomic<bool> inApply{false}, leaveApply{false};
        Background mapper([&] {
                struct Cl {
                        std::atomic<int>* sum;
                        std::atomic<bool>* in;
                        std::atomic<bool>* leave;
                } cl{&sum, &inApply, &leaveApply};
                Cache_map(
                    C,
                    [](const void*, void* value, void* ap) {
                            Cl* c = static_cast<Cl*>(ap);
                            *c->in = true;
                            c->in->notify_all();
                            c->leave->wait(false);
                            *c->sum += *static_cast<int*>(value);
                    },
                    &cl);
        });
        EXPECT_TRUE(mapper.blocks());
        EXPECT_FALSE(inApply);
        Cache_return(C, a);
        inApply.wait(false);
        Background getter([&] { Cache_return(C, Cache_get(C, "b")); });
        EXPECT_TRUE(getter.blocks());
        leaveApply = true;
        leaveApply.notify_all();
        mapper.join();
        getter.join();
        EXPECT_EQ(sum, 3);
}

TEST_F(CacheFixture, MapReleasesTheTableWhenApplyRaises) {
        Cache_put(C, "a", &one);
        EXPECT_EQ(raised([&] {
                          Cache_map(
                              C,
                              [](const void*, void*, void*) { THROW(IOException, "apply failed"); },
                              nullptr);
                  }),
                  "IOException: apply failed");
        void** a = Cache_get(C, "a");
        ASSERT_NE(a, nullptr);
        Cache_return(C, a);
}

TEST_F(CacheFixture, ConcurrentCheckOutsAreExclusive) {
        int counter = 0;
        Cache_put(C, "n", &counter);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; t++)
                threads.emplace_back([&] {
                        for (int i = 0; i < 2000; i++) {
                                void** e = Cache_get(C, "n");
                                ++*static_cast<int*>(*e);
                                Cache_return(C, e);
                        }
                });
        for (auto& t : threads)
                t.join();
        EXPECT_EQ(counter, 8000);
}

// CacheQueue ----------------------------------------------------------------------------

namespace {

// What the engines below saw, in order, with a way to wait for it.
struct Seen {
        std::mutex mutex;
        std::condition_variable cv;
        std::vector<std::vector<std::string>> batches;
        int perPass = 0;  // items an engine takes per pass; 0 takes all

        void reset(int take = 0) {
                std::lock_guard<std::mutex> lock(mutex);
                batches.clear();
                perPass = take;
        }
        std::vector<std::string> all() {
                std::lock_guard<std::mutex> lock(mutex);
                std::vector<std::string> out;
                for (auto& b : batches)
                        out.insert(out.end(), b.begin(), b.end());
                return out;
        }
        size_t items() { return all().size(); }
        // Waits at most `limit` for n items; true if they came.
        bool waitFor(size_t n, std::chrono::milliseconds limit) {
                std::unique_lock<std::mutex> lock(mutex);
                return cv.wait_for(lock, limit, [&] {
                        size_t got = 0;
                        for (auto& b : batches)
                                got += b.size();
                        return got >= n;
                });
        }
};

Seen seen;

void engine(List_T work) {
        std::lock_guard<std::mutex> lock(seen.mutex);
        std::vector<std::string> batch;
        for (int n = 0; List_length(work) > 0 && (seen.perPass == 0 || n < seen.perPass); n++)
                batch.push_back(static_cast<const char*>(List_pop(work)));
        seen.batches.push_back(batch);
        seen.cv.notify_all();
}

char A[] = "a", B[] = "b", Cc[] = "c", D[] = "d";

}  // namespace


TEST(CacheQueue, BatchesByLength) {
        seen.reset();
        // Only the queue's own thread hands items over, and below the length none is made.
        int threads = threadCount();
        CacheQueue_T Q = CacheQueue_new(0, 3, engine);
        CacheQueue_add(Q, A);
        CacheQueue_add(Q, B);
        EXPECT_EQ(threadCount(), threads);
        EXPECT_EQ(CacheQueue_size(Q), 2);
        CacheQueue_add(Q, Cc);
        ASSERT_TRUE(seen.waitFor(3, 2s));
        EXPECT_EQ(seen.all(), (std::vector<std::string>{"a", "b", "c"}));
        // Below the threshold again, once the thread is gone: only a flush hands it over.
        ASSERT_TRUE(threadCountBecomes(threads));
        CacheQueue_add(Q, D);
        EXPECT_EQ(threadCount(), threads);
        EXPECT_EQ(seen.items(), 3u);
        CacheQueue_flush(Q);
        ASSERT_TRUE(seen.waitFor(4, 2s));
        CacheQueue_free(&Q);
        EXPECT_EQ(seen.all(), (std::vector<std::string>{"a", "b", "c", "d"}));
}

TEST(CacheQueue, BatchesByTimeOrAtOnceOnFlush) {
        seen.reset();
        CacheQueue_T Q = CacheQueue_new(1, 0, engine);
        CacheQueue_flush(Q);  // nothing queued: nothing happens
        EXPECT_EQ(seen.items(), 0u);
        auto start = std::chrono::steady_clock::now();
        CacheQueue_add(Q, A);
        CacheQueue_add(Q, B);
        ASSERT_TRUE(seen.waitFor(2, 3s));
        auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_GE(waited, 900ms);
        EXPECT_EQ(seen.batches.size(), 1u);  // both in one batch
        CacheQueue_free(&Q);

        // With a minute to wait, delivery within seconds can only come from the flush, or
        // from the length cutting the time short.
        Q = CacheQueue_new(60, 2, engine);
        CacheQueue_add(Q, Cc);
        CacheQueue_flush(Q);
        ASSERT_TRUE(seen.waitFor(3, 20s));
        CacheQueue_add(Q, A);
        CacheQueue_add(Q, B);
        ASSERT_TRUE(seen.waitFor(5, 20s));
        CacheQueue_free(&Q);
}

TEST(CacheQueue, LeftoversAreTriedAgainInOrder) {
        seen.reset(1);
        CacheQueue_T Q = CacheQueue_new(0, 4, engine);
        CacheQueue_add(Q, A);
        CacheQueue_add(Q, B);
        CacheQueue_add(Q, Cc);
        CacheQueue_add(Q, D);
        ASSERT_TRUE(seen.waitFor(4, 2s));
        EXPECT_EQ(seen.all(), (std::vector<std::string>{"a", "b", "c", "d"}));
        EXPECT_GE(seen.batches.size(), 4u);
        CacheQueue_free(&Q);
}

TEST(CacheQueue, FreeHandsOverWhatIsQueued) {
        // No thread runs: free starts one and waits for it.
        seen.reset();
        CacheQueue_T Q = CacheQueue_new(0, 10, engine);
        CacheQueue_add(Q, A);
        CacheQueue_add(Q, B);
        CacheQueue_free(&Q);
        EXPECT_EQ(seen.all(), (std::vector<std::string>{"a", "b"}));

        // A thread waits out a long timeout: free cuts the wait short.
        seen.reset();
        Q = CacheQueue_new(60, 0, engine);
        CacheQueue_add(Q, Cc);
        auto start = std::chrono::steady_clock::now();
        CacheQueue_free(&Q);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);  // not the minute
        EXPECT_EQ(seen.all(), (std::vector<std::string>{"c"}));
}

TEST(CacheQueue, ManyProducersLoseNothing) {
        seen.reset();
        CacheQueue_T Q = CacheQueue_new(0, 7, engine);
        static char items[4][250][8];
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; t++)
                threads.emplace_back([&, t] {
                        for (int i = 0; i < 250; i++) {
                                snprintf(items[t][i], sizeof items[t][i], "%d-%d", t, i);
                                CacheQueue_add(Q, items[t][i]);
                        }
                });
        for (auto& t : threads)
                t.join();
        CacheQueue_free(&Q);
        EXPECT_EQ(seen.items(), 1000u);
}
