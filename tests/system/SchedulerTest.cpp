#include <gtest/gtest.h>

#include <limits.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include <vesk/Scheduler.h>
#include <vesk/Time.h>

#include "support/HttpSupport.hpp"
#include "support/Support.hpp"

using namespace std::chrono_literals;

namespace {

// The names of the tasks that ran, in order, with a gate that holds the workers until the
// test opens it.
struct Log {
        std::mutex m;
        std::condition_variable cv;
        std::vector<std::string> runs;
        bool open = true;

        void record(Task_T t) {
                std::unique_lock<std::mutex> lock(m);
                runs.push_back(Task_getName(t));
                cv.notify_all();
                cv.wait(lock, [&] { return open; });
        }
        int count(const std::string& name) {
                std::lock_guard<std::mutex> lock(m);
                return static_cast<int>(std::count(runs.begin(), runs.end(), name));
        }
        // Waits, bounded, until name has run n times; whether it has.
        bool ran(const std::string& name, int n) {
                std::unique_lock<std::mutex> lock(m);
                return cv.wait_for(lock, 20s,
                                   [&] { return std::count(runs.begin(), runs.end(), name) >= n; });
        }
        void release() {
                std::lock_guard<std::mutex> lock(m);
                open = true;
                cv.notify_all();
        }
};

Task_T logged(Scheduler_T C, const char* name, Log& log) {
        Task_T t = Scheduler_createTask(C, name);
        Task_setWorker(t, [](Task_T t) { static_cast<Log*>(Task_getData(t))->record(t); });
        Task_setData(t, &log);
        return t;
}

Task_T once(Scheduler_T C, const char* name, Log& log, int offset) {
        Task_T t = logged(C, name, log);
        Task_setOnce(t, offset);
        Scheduler_add(t);
        return t;
}

Task_T every(Scheduler_T C, const char* name, Log& log, int interval) {
        Task_T t = logged(C, name, log);
        Task_setPeriodic(t, 0, interval);
        Scheduler_add(t);
        return t;
}

}  // namespace

TEST(Scheduler, ChecksItsArguments) {
        EXPECT_EQ(assertion([] { Scheduler_new(0); }), "threads>0");
        Scheduler_T C = Scheduler_new(1);
        Log log;
        Task_T t = logged(C, "a name of thirty characters..", log);
        EXPECT_STREQ(Task_getName(t), "a name of thirty cha");
        EXPECT_EQ(assertion([&] { Scheduler_add(t); }), "task->type != Task_None");
        EXPECT_EQ(assertion([&] { Task_setPeriodic(t, 0, 0); }), "interval > 0");
        EXPECT_EQ(assertion([&] { Task_setAt(t, static_cast<time_t>(INT_MAX) + 1); }),
                  "time <= INT_MAX");
        Task_setPeriodic(t, 0, 60000);
        EXPECT_EQ(assertion([&] { Task_setAt(t, Time_now()); }),
                  "t->type == Task_None || t->type == Task_At");
        Task_T idle = Scheduler_createTask(C, "idle");
        Task_setOnce(idle, 10);
        EXPECT_EQ(assertion([&] { Scheduler_add(idle); }), "task->worker");
        Task_cancel(t);
        EXPECT_EQ(assertion([&] { Scheduler_add(t); }), "task->isavailable == false");
        EXPECT_EQ(assertion([] { Scheduler_free(nullptr); }), "C && *C");
        Scheduler_free(&C);
        EXPECT_EQ(C, nullptr);
}

TEST(Scheduler, OnceAtAndPeriodicTasksFireInOrderAndCancelledOnesNot) {
        // One thread, so the runs come in the order the loop hands them over.
        Scheduler_T C = Scheduler_new(1);
        Log log;
        Task_T late = once(C, "late", log, 300);
        once(C, "first", log, 100);
        Task_cancel(once(C, "cancelled", log, 150));
        once(C, "second", log, 200);
        ASSERT_TRUE(log.ran("late", 1));
        EXPECT_EQ(log.runs, (std::vector<std::string>{"first", "second", "late"}));
        // A fired timer waits for nothing more, and its record stays taken until cancelled.
        EXPECT_EQ(Task_nextRun(late), 0);
        EXPECT_NE(Scheduler_createTask(C, "new"), late);

        time_t when = Time_now() + 1;
        Task_T at = logged(C, "at", log);
        Task_setAt(at, when);
        Scheduler_add(at);
        ASSERT_TRUE(log.ran("at", 1));
        EXPECT_GE(Task_lastRun(at), when);

        every(C, "tick", log, 20);
        EXPECT_TRUE(log.ran("tick", 3));
        Scheduler_free(&C);
}

TEST(Scheduler, PeriodicTaskFallsOnMultiplesOfItsIntervalUntilRestartShiftsThem) {
        Scheduler_T C = Scheduler_new(1);
        Log log;
        // Once a minute, as crontab would: on the minute.
        Task_T t = logged(C, "minutely", log);
        Task_setPeriodic(t, 5000, 60000);
        Scheduler_add(t);
        time_t next = Task_nextRun(t);
        EXPECT_EQ(next % 60, 0);
        EXPECT_LE(next, Time_now() + 60);
        Task_restart(t);
        EXPECT_EQ(Task_nextRun(t) % 60, 5);
        Task_cancel(t);
        EXPECT_EQ(Task_nextRun(t), 0);
        Scheduler_free(&C);
}

TEST(Scheduler, SlowTaskNeitherDelaysAnothersClockNorOverlapsItself) {
        Scheduler_T C = Scheduler_new(4);
        Log slowLog, fastLog;
        slowLog.open = false;
        Task_T slow = every(C, "slow", slowLog, 20);
        ASSERT_TRUE(slowLog.ran("slow", 1));
        Task_T fast = every(C, "fast", fastLog, 20);
        EXPECT_TRUE(fastLog.ran("fast", 5));
        // The slow task's firings came meanwhile, and were dropped: no second run started.
        EXPECT_EQ(slowLog.count("slow"), 1);
        slowLog.release();
        EXPECT_TRUE(slowLog.ran("slow", 3));
        Task_cancel(slow);
        Task_cancel(fast);
        Scheduler_free(&C);
}

TEST(Scheduler, TaskRecordIsReusedOnceItsRunHasEnded) {
        Scheduler_T C = Scheduler_new(1);
        Log log;
        log.open = false;
        Task_T first = once(C, "first", log, 0);
        ASSERT_TRUE(log.ran("first", 1));
        // Cancelled while its run goes on, the record is not handed out...
        Task_cancel(first);
        Task_T other = Scheduler_createTask(C, "other");
        EXPECT_NE(other, first);
        Task_cancel(other);
        // ...until the run has ended; then it comes back cleared.
        log.release();
        EXPECT_TRUE(eventually([&] {
                Task_T t = Scheduler_createTask(C, "again");
                if (t == first)
                        return true;
                Task_cancel(t);
                return false;
        }));
        EXPECT_STREQ(Task_getName(first), "again");
        EXPECT_EQ(Task_getData(first), nullptr);
        EXPECT_EQ(Task_lastRun(first), 0);
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
        // The line is logged before the first run ends, and so before the second starts.
        EXPECT_TRUE(log.ran("raiser", 2));
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find("Scheduler: task raiser: AssertException: bad input\n"),
                  std::string::npos)
            << err;
        Task_cancel(t);
        Scheduler_free(&C);
}

TEST(Scheduler, FreeRefusesNewTasksAndWaitsForRunsWhileTasksStillFire) {
        Scheduler_T C = Scheduler_new(2);
        Log log;
        every(C, "left", log, 1);
        ASSERT_TRUE(log.ran("left", 3));
        // A run that goes on while the scheduler stops sees new tasks refused.
        static bool refused;
        refused = false;
        Task_T t = Scheduler_createTask(C, "late");
        Task_setOnce(t, 0);
        Task_setData(t, C);
        Task_setWorker(t, [](Task_T self) {
                refused = eventually([&] {
                        Task_T n =
                            Scheduler_createTask(static_cast<Scheduler_T>(Task_getData(self)), "n");
                        if (n)
                                Task_cancel(n);
                        return n == nullptr;
                });
        });
        Scheduler_add(t);
        ASSERT_TRUE(eventually([&] { return Task_lastRun(t) != 0; }));
        Scheduler_free(&C);
        EXPECT_TRUE(refused);
}
