#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vesk/Scheduler.h>
#include <vesk/Time.h>

#include "support/HttpSupport.hpp"
#include "support/Support.hpp"

using namespace std::chrono_literals;

namespace {

// What the workers saw, with a gate that holds a worker until the test opens it.
struct Log {
        std::mutex m;
        std::condition_variable cv;
        std::vector<std::string> runs;
        int inside = 0;
        int mostInside = 0;
        bool open = true;

        void record(Task_T t) {
                std::unique_lock<std::mutex> lock(m);
                runs.push_back(Task_getName(t));
                inside++;
                mostInside = std::max(mostInside, inside);
                cv.notify_all();
                cv.wait(lock, [&] { return open; });
                inside--;
        }
        int count(const std::string& name) {
                std::lock_guard<std::mutex> lock(m);
                int n = 0;
                for (auto& r : runs)
                        n += r == name;
                return n;
        }
        // Waits, bounded, until pred holds under the lock; whether it did.
        template <typename P>
        bool await(P pred) {
                std::unique_lock<std::mutex> lock(m);
                return cv.wait_for(lock, 20s, pred);
        }
        bool awaitCount(const std::string& name, int n) {
                return await([&] {
                        int c = 0;
                        for (auto& r : runs)
                                c += r == name;
                        return c >= n;
                });
        }
        void release() {
                std::lock_guard<std::mutex> lock(m);
                open = true;
                cv.notify_all();
        }
};

void logRun(Task_T t) {
        static_cast<Log*>(Task_getData(t))->record(t);
}

Task_T task(Scheduler_T C, const char* name, Log& log) {
        Task_T t = Scheduler_createTask(C, name);
        Task_setWorker(t, logRun);
        Task_setData(t, &log);
        return t;
}

Task_T once(Scheduler_T C, const char* name, Log& log, int offset) {
        Task_T t = task(C, name, log);
        Task_setOnce(t, offset);
        Scheduler_add(t);
        return t;
}

Task_T periodic(Scheduler_T C, const char* name, Log& log, int interval) {
        Task_T t = task(C, name, log);
        Task_setPeriodic(t, 0, interval);
        Scheduler_add(t);
        return t;
}

}  // namespace

TEST(Scheduler, ChecksItsArguments) {
        EXPECT_EQ(assertion([] { Scheduler_new(0); }), "threads>0");
        Scheduler_T C = Scheduler_new(1);
        Log log;
        Task_T t = task(C, "a name of thirty characters..", log);
        EXPECT_STREQ(Task_getName(t), "a name of thirty cha");
        EXPECT_EQ(assertion([&] { Scheduler_add(t); }), "task->type != Task_None");
        EXPECT_EQ(assertion([&] { Task_setPeriodic(t, 0, 0); }), "interval > 0");
        Task_setPeriodic(t, 0, 60000);
        EXPECT_EQ(assertion([&] { Task_setAt(t, Time_now()); }),
                  "t->type == Task_None || t->type == Task_At");
        EXPECT_EQ(assertion([&] { Task_setOnce(t, 1); }),
                  "t->type == Task_None || t->type == Task_Once");
        EXPECT_EQ(assertion([&] { Task_setWorker(t, nullptr); }), "worker");
        Task_T idle = Scheduler_createTask(C, "idle");
        Task_setOnce(idle, 10);
        EXPECT_EQ(assertion([&] { Scheduler_add(idle); }), "task->worker");
        Task_cancel(t);
        EXPECT_EQ(assertion([&] { Scheduler_add(t); }), "task->isavailable == false");
        EXPECT_EQ(assertion([&] { Task_cancel(t); }), "t->isavailable == false");
        EXPECT_EQ(assertion([] { Scheduler_createTask(nullptr, "x"); }), "C");
        EXPECT_EQ(assertion([] { Scheduler_free(nullptr); }), "C && *C");
        Scheduler_free(&C);
        EXPECT_EQ(C, nullptr);
}

TEST(Scheduler, OnceTasksFireOnceInTheOrderOfTheirDelays) {
        // One thread, so the runs come in the order the loop hands them over.
        Scheduler_T C = Scheduler_new(1);
        Log log;
        Task_T late = once(C, "late", log, 300);
        Task_T first = once(C, "first", log, 100);
        Task_T second = once(C, "second", log, 200);
        ASSERT_TRUE(log.await([&] { return log.runs.size() == 3; }));
        EXPECT_EQ(log.runs, (std::vector<std::string>{"first", "second", "late"}));
        // A fired timer waits for nothing more, and its record stays taken until cancelled.
        for (Task_T t : {late, first, second}) {
                EXPECT_EQ(Task_nextRun(t), 0);
                EXPECT_GT(Task_lastRun(t), 0);
                EXPECT_NE(Scheduler_createTask(C, "new"), t);
        }
        Scheduler_free(&C);
}

TEST(Scheduler, AtTaskFiresNoEarlierThanItsTime) {
        Scheduler_T C = Scheduler_new(1);
        time_t at = Time_now() + 1;
        time_t ranAt = 0;
        Task_T t = Scheduler_createTask(C, "at");
        Task_setAt(t, at);
        Task_setData(t, &ranAt);
        Task_setWorker(t, [](Task_T self) { *static_cast<time_t*>(Task_getData(self)) = Time_now(); });
        Scheduler_add(t);
        EXPECT_EQ(Task_getOffset(t), at);
        EXPECT_TRUE(eventually([&] { return Task_lastRun(t) != 0 && Task_nextRun(t) == 0; }));
        Scheduler_free(&C);
        EXPECT_GE(ranAt, at);
}

TEST(Scheduler, PeriodicTaskFallsOnMultiplesOfItsIntervalAndRestartShiftsThem) {
        Scheduler_T C = Scheduler_new(1);
        Log log;
        // Once a minute, as crontab would: on the minute.
        Task_T t = periodic(C, "minutely", log, 60000);
        time_t next = Task_nextRun(t);
        EXPECT_EQ(next % 60, 0);
        EXPECT_GT(next, Time_now() - 1);
        EXPECT_LE(next, Time_now() + 60);
        Task_cancel(t);
        t = task(C, "shifted", log);
        Task_setPeriodic(t, 5000, 60000);
        Scheduler_add(t);
        EXPECT_EQ(Task_nextRun(t) % 60, 0);
        Task_restart(t);
        EXPECT_EQ(Task_nextRun(t) % 60, 5);
        Task_cancel(t);
        EXPECT_EQ(Task_nextRun(t), 0);
        Scheduler_free(&C);
}

TEST(Scheduler, PeriodicTaskRunsAgainAndAgain) {
        Scheduler_T C = Scheduler_new(2);
        Log log;
        Task_T t = periodic(C, "tick", log, 20);
        EXPECT_TRUE(log.awaitCount("tick", 5));
        EXPECT_EQ(Task_getInterval(t), 20);
        Task_cancel(t);
        Scheduler_free(&C);
}

TEST(Scheduler, SlowTaskNeitherDelaysAnothersClockNorOverlapsItself) {
        Scheduler_T C = Scheduler_new(4);
        Log log;
        log.open = false;
        Task_T slow = periodic(C, "slow", log, 20);
        ASSERT_TRUE(log.awaitCount("slow", 1));
        // The first run is held at the gate. The other task's runs pass it there too, but the
        // gate lets nobody through, so give that one its own log.
        Log fast;
        Task_T other = periodic(C, "fast", fast, 20);
        EXPECT_TRUE(fast.awaitCount("fast", 5));
        // Firings of the slow task came meanwhile, and were dropped: no second run started.
        EXPECT_EQ(log.count("slow"), 1);
        log.release();
        EXPECT_TRUE(log.awaitCount("slow", 3));
        EXPECT_EQ(log.mostInside, 1);
        Task_cancel(slow);
        Task_cancel(other);
        Scheduler_free(&C);
}

TEST(Scheduler, CancelledTasksDoNotFire) {
        Scheduler_T C = Scheduler_new(1);
        Log log;
        Task_T cancelled = once(C, "cancelled", log, 100);
        once(C, "witness", log, 200);
        Task_cancel(cancelled);
        EXPECT_EQ(Task_nextRun(cancelled), 0);
        // Timers fire in order: once the later one has, the cancelled one's time has passed.
        ASSERT_TRUE(log.awaitCount("witness", 1));
        EXPECT_EQ(log.count("cancelled"), 0);

        // A periodic task that cancels itself in its second run.
        struct Self {
                Log* log;
                int runs = 0;
        } self{&log};
        Task_T stopper = Scheduler_createTask(C, "stopper");
        Task_setPeriodic(stopper, 0, 20);
        Task_setData(stopper, &self);
        Task_setWorker(stopper, [](Task_T t) {
                Self* s = static_cast<Self*>(Task_getData(t));
                s->log->record(t);
                if (++s->runs == 2)
                        Task_cancel(t);
        });
        Scheduler_add(stopper);
        ASSERT_TRUE(log.awaitCount("stopper", 2));
        Task_T tick = periodic(C, "tick", log, 20);
        EXPECT_TRUE(log.awaitCount("tick", 4));
        EXPECT_EQ(log.count("stopper"), 2);
        Task_cancel(tick);
        Scheduler_free(&C);
}

TEST(Scheduler, TaskRecordsAreReusedOnceTheirRunHasEnded) {
        Scheduler_T C = Scheduler_new(1);
        Log log;
        Task_T first = task(C, "first", log);
        Task_cancel(first);
        Task_T again = Scheduler_createTask(C, "again");
        EXPECT_EQ(again, first);
        EXPECT_STREQ(Task_getName(again), "again");
        EXPECT_EQ(Task_getData(again), nullptr);
        EXPECT_EQ(Task_getOffset(again), 0);

        // A record whose run is still going is not handed out, even when cancelled.
        Task_setWorker(again, logRun);
        Task_setData(again, &log);
        Task_setOnce(again, 0);
        log.open = false;
        Scheduler_add(again);
        ASSERT_TRUE(log.awaitCount("again", 1));
        Task_cancel(again);
        Task_T other = Scheduler_createTask(C, "other");
        EXPECT_NE(other, again);
        Task_cancel(other);
        log.release();
        EXPECT_TRUE(eventually([&] {
                Task_T t = Scheduler_createTask(C, "probe");
                Task_cancel(t);
                return t == again;
        }));
        Scheduler_free(&C);
}

TEST(Scheduler, RestartRunsAOnceTaskAgain) {
        Scheduler_T C = Scheduler_new(1);
        Log log;
        Task_T t = once(C, "twice", log, 10);
        ASSERT_TRUE(log.awaitCount("twice", 1));
        // The one thread serves in order: once the marker has run, so has the whole first run,
        // and a firing is not dropped as overlapping it.
        once(C, "marker", log, 0);
        ASSERT_TRUE(log.awaitCount("marker", 1));
        EXPECT_EQ(Task_nextRun(t), 0);
        Task_restart(t);
        EXPECT_TRUE(log.awaitCount("twice", 2));
        Scheduler_free(&C);
}

TEST(Scheduler, WorkerThatRaisesIsLoggedAndItsTaskGoesOn) {
        Scheduler_T C = Scheduler_new(1);
        Log log;
        Task_T t = Scheduler_createTask(C, "raiser");
        Task_setPeriodic(t, 0, 20);
        Task_setData(t, &log);
        Task_setWorker(t, [](Task_T self) {
                Log* l = static_cast<Log*>(Task_getData(self));
                l->record(self);
                if (l->count("raiser") == 1)
                        THROW(AssertException, "bad %s", "input");
        });
        testing::internal::CaptureStderr();
        Scheduler_add(t);
        // The log line is written before the run ends, and so before the next one starts.
        EXPECT_TRUE(log.awaitCount("raiser", 2));
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find("Scheduler: task raiser: AssertException: bad input\n"), std::string::npos)
            << err;
        Task_cancel(t);
        Scheduler_free(&C);
}

TEST(Scheduler, FreeStopsTasksStillScheduledAndWaitsForRuns) {
        Scheduler_T C = Scheduler_new(2);
        Log log;
        periodic(C, "left", log, 1);
        ASSERT_TRUE(log.awaitCount("left", 3));

        // A run in progress while the scheduler stops: new tasks are refused, and the
        // scheduler waits for the run to end before it frees the records.
        struct Late {
                Scheduler_T scheduler;
                bool refused = false;
        } late{C};
        Task_T t = Scheduler_createTask(C, "late");
        Task_setOnce(t, 0);
        Task_setData(t, &late);
        Task_setWorker(t, [](Task_T self) {
                Late* l = static_cast<Late*>(Task_getData(self));
                l->refused = eventually([&] {
                        Task_T n = Scheduler_createTask(l->scheduler, "after");
                        if (n)
                                Task_cancel(n);
                        return n == nullptr;
                });
        });
        Scheduler_add(t);
        ASSERT_TRUE(eventually([&] { return Task_lastRun(t) != 0; }));
        Scheduler_free(&C);
        EXPECT_TRUE(late.refused);
}
