#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vesk/Dispatcher.h>
#include <vesk/Thread.h>

#include "thread/Lock.hpp"
#include "support/Support.hpp"
#include "support/Threads.hpp"

using namespace std::chrono_literals;

namespace {

// Watches the engine: who runs, in what order, how many at once, and holds items at a
// gate until the test opens it.
struct Probe {
        std::mutex m;
        std::condition_variable cv;
        bool open = true;
        int running = 0;
        int maxRunning = 0;
        int served = 0;
        std::vector<int> order;
        std::chrono::milliseconds work{0};

        // Waits, bounded, until pred holds; returns whether it did.
        template <typename P>
        bool await(P pred, std::chrono::milliseconds bound = 5000ms) {
                std::unique_lock<std::mutex> lock(m);
                return cv.wait_for(lock, bound, pred);
        }
        void release() {
                std::lock_guard<std::mutex> lock(m);
                open = true;
                cv.notify_all();
        }
};

struct Item {
        Probe* probe;
        int n;
};

thread_local int servedHere = 0;
std::atomic<pid_t> lastTid{0};
std::atomic<int> lastServedHere{0};

void engine(void* data) {
        auto* item = static_cast<Item*>(data);
        Probe& p = *item->probe;
        lastTid = static_cast<pid_t>(syscall(SYS_gettid));
        lastServedHere = ++servedHere;
        {
                std::unique_lock<std::mutex> lock(p.m);
                p.order.push_back(item->n);
                p.running++;
                p.maxRunning = std::max(p.maxRunning, p.running);
                p.cv.notify_all();
                p.cv.wait(lock, [&] { return p.open; });
        }
        std::this_thread::sleep_for(p.work);
        std::lock_guard<std::mutex> lock(p.m);
        p.running--;
        p.served++;
        p.cv.notify_all();
}

std::vector<Item> items(Probe& probe, int count) {
        std::vector<Item> v;
        for (int i = 1; i <= count; i++)
                v.push_back({&probe, i});
        return v;
}

bool threadAlive(pid_t tid) {
        struct stat st;
        return stat(("/proc/self/task/" + std::to_string(tid)).c_str(), &st) == 0;
}

}  // namespace

TEST(Dispatcher, GrowsToItsMaximumAndNoFurther) {
        Probe probe;
        probe.open = false;
        auto work = items(probe, 10);
        int threads = threadCount();
        Dispatcher_T D = Dispatcher_new(3, 30, engine);
        for (auto& item : work)
                EXPECT_TRUE(Dispatcher_add(D, &item));
        // Threads are made by the adds, and the three held at the gate cannot end.
        EXPECT_TRUE(probe.await([&] { return probe.running == 3; }));
        EXPECT_EQ(threadCount(), threads + 3);
        probe.release();
        EXPECT_TRUE(probe.await([&] { return probe.served == 10; }));
        EXPECT_EQ(probe.maxRunning, 3);
        Dispatcher_free(&D);
}

TEST(Dispatcher, ItemsWaitingForABusyPoolAreServedInOrder) {
        Probe probe;
        probe.open = false;
        auto work = items(probe, 20);
        Dispatcher_T D = Dispatcher_new(1, 30, engine);
        Dispatcher_add(D, &work[0]);
        EXPECT_TRUE(probe.await([&] { return probe.running == 1; }));
        for (size_t i = 1; i < work.size(); i++)
                Dispatcher_add(D, &work[i]);
        probe.release();
        EXPECT_TRUE(probe.await([&] { return probe.served == 20; }));
        std::vector<int> expected;
        for (auto& item : work)
                expected.push_back(item.n);
        EXPECT_EQ(probe.order, expected);
        Dispatcher_free(&D);
}

TEST(Dispatcher, IdleThreadEndsAndANewOneTakesOver) {
        Probe probe;
        auto work = items(probe, 2);
        Dispatcher_T D = Dispatcher_new(2, 1, engine);
        Dispatcher_add(D, &work[0]);
        ASSERT_TRUE(probe.await([&] { return probe.served == 1; }));
        pid_t first = lastTid;
        EXPECT_EQ(lastServedHere, 1);
        // The deadline has whole seconds, so the thread ends within two.
        auto deadline = std::chrono::steady_clock::now() + 3s;
        while (threadAlive(first) && std::chrono::steady_clock::now() < deadline)
                std::this_thread::sleep_for(20ms);
        EXPECT_FALSE(threadAlive(first));
        Dispatcher_add(D, &work[1]);
        ASSERT_TRUE(probe.await([&] { return probe.served == 2; }));
        // A fresh thread: its thread-local count starts over.
        EXPECT_EQ(lastServedHere, 1);
        Dispatcher_free(&D);
}

TEST(Dispatcher, FreeWaitsForBusyThreadsAndTheWholeQueue) {
        Probe probe;
        probe.work = 10ms;
        auto work = items(probe, 12);
        Dispatcher_T D = Dispatcher_new(2, 30, engine);
        for (auto& item : work)
                Dispatcher_add(D, &item);
        Dispatcher_free(&D);
        std::lock_guard<std::mutex> lock(probe.m);
        EXPECT_EQ(probe.served, 12);
        EXPECT_EQ(probe.running, 0);
}

namespace {

std::atomic<int> detachedRuns{0};
std::atomic<int> detachState{-1};

void* detached(void* arg) {
        pthread_attr_t attr;
        int state = -1;
        if (pthread_getattr_np(pthread_self(), &attr) == 0) {
                pthread_attr_getdetachstate(&attr, &state);
                pthread_attr_destroy(&attr);
        }
        detachState = state;
        detachedRuns++;
        static_cast<Probe*>(arg)->release();
        return nullptr;
}

}  // namespace

TEST(Thread, StartsDetachedThreadsEvenAfterFini) {
        pthread_t t;
        detachedRuns = 0;
        for (int round = 0; round < 2; round++) {
                Probe probe;
                probe.open = false;
                Thread_createDetached(&t, detached, &probe);
                EXPECT_TRUE(probe.await([&] { return probe.open; }));
                EXPECT_EQ(detachState, PTHREAD_CREATE_DETACHED);
                Thread_fini();
        }
        EXPECT_EQ(detachedRuns, 2);
        Thread_init();
        Thread_init();
}

TEST(Lock, FailedLockOrUnlockRaisesTheCheck) {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_t mutex;
        pthread_mutex_init(&mutex, &attr);
        pthread_mutexattr_destroy(&attr);

        EXPECT_EQ(assertion([&] { UNLOCK(mutex); }), "_yystatus == 0");
        EXPECT_EQ(assertion([&] {
                          vesk::Lock held(mutex);
                          LOCK(mutex);  // a second lock by the owner fails, and held lets go
                  }),
                  "_yystatus == 0");
        EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
        EXPECT_EQ(assertion([&] { vesk::Lock again(mutex); }), "_yystatus == 0");
        pthread_mutex_unlock(&mutex);
        {
                vesk::Lock held(mutex);
                held.unlock();
                held.lock();
        }
        EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
        pthread_mutex_unlock(&mutex);
        pthread_mutex_destroy(&mutex);
}

TEST(Lock, NamedGuardLogsAFailureInsteadOfRaising) {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
        pthread_mutex_t mutex;
        pthread_mutex_init(&mutex, &attr);
        pthread_mutexattr_destroy(&attr);

        testing::internal::CaptureStderr();
        EXPECT_EQ(assertion([&] {
                          vesk::Lock held(mutex, "Pool");
                          ASSERT_TRUE(held);
                          vesk::Lock again(mutex, "Pool");  // a second lock by the owner fails
                          EXPECT_FALSE(again);
                          pthread_mutex_unlock(&mutex);  // so that held's release fails too
                  }),
                  "");
        std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find("Pool: Acquiring lock error -- "), std::string::npos) << log;
        EXPECT_NE(log.find("Pool: Release lock error -- "), std::string::npos) << log;
        EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
        pthread_mutex_unlock(&mutex);
        pthread_mutex_destroy(&mutex);
}
