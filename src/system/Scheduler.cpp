#include <limits.h>
#include <pthread.h>
#include <string.h>

#include <atomic>

#include <ev.h>

#include <vesk/Dispatcher.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/Mem.h>
#include <vesk/Scheduler.h>
#include <vesk/Str.h>
#include <vesk/Vector.h>
#include <vesk/assert.h>

#include "thread/Lock.hpp"

namespace {

enum { Task_None = 0, Task_Once, Task_At, Task_Periodic };

constexpr int kNameLength = 20;
constexpr int kFirstTasks = 8;
constexpr int kIdleSeconds = 60;

}  // namespace

struct Task_S {
        // First, because the loop hands the watcher back and it is taken as the task.
        union {
                ev_timer timer;
                ev_periodic periodic;
        } watcher;
        int type;
        char name[kNameLength + 1];
        void* data;
        int offset;
        int interval;
        bool isavailable;
        void (*worker)(Task_T t);
        double lastRun;
        int isrunning;  // Mem memory holds no std::atomic: reached through atomic_ref
        Scheduler_T scheduler;
};

struct Scheduler_S {
        struct ev_loop* loop;
        ev_async wakeup;
        int stopped;
        pthread_mutex_t lock;
        pthread_t thread;
        Vector_T tasks;
        Dispatcher_T dispatcher;
};

namespace {

std::atomic_ref<int> running(Task_T t) {
        return std::atomic_ref<int>(t->isrunning);
}

// The loop's thread holds `lock` all the time it works and lets go of it only while it
// sleeps in the back-end; so another thread that holds `lock` may change the watchers,
// and then wakes the loop to have it recalculate its timeout.
void loop_release(struct ev_loop* loop) noexcept {
        Scheduler_T scheduler = static_cast<Scheduler_T>(ev_userdata(loop));
        Exception_wrapper(pthread_mutex_unlock(&(scheduler->lock)));
}

void loop_acquire(struct ev_loop* loop) noexcept {
        Scheduler_T scheduler = static_cast<Scheduler_T>(ev_userdata(loop));
        Exception_wrapper(pthread_mutex_lock(&(scheduler->lock)));
}

void* loop_run(void* arg) {
        Scheduler_T C = static_cast<Scheduler_T>(arg);
        LOCK(C->lock);
        ev_run(C->loop, 0);
        UNLOCK(C->lock);
        return nullptr;
}

void loop_notify(struct ev_loop* loop, ev_async*, int) {
        Scheduler_T C = static_cast<Scheduler_T>(ev_userdata(loop));
        if (C->stopped)
                ev_break(loop, EVBREAK_ALL);
}

void task_worker(void* arg) {
        Task_T task = static_cast<Task_T>(arg);
        TRY
                task->worker(task);
        ELSE
                Error_error("Scheduler: task %s: %s: %s\n", task->name,
                            Exception_frame.exception->name, Exception_frame.message);
        FINALLY
                running(task).store(0);
        END_TRY;
}

void task_periodic(struct ev_loop* loop, ev_periodic* w, int) {
        Task_T task = reinterpret_cast<Task_T>(w);
        int idle = 0;
        // Runs of one task never overlap: a firing during a run is dropped.
        if (!running(task).compare_exchange_strong(idle, 1))
                return;
        task->lastRun = ev_now(loop);
        if (!Dispatcher_add(task->scheduler->dispatcher, task)) {
                Error_error("Scheduler: could not add task '%s' to the dispatcher\n", task->name);
                // The next firing tries again, and a cancelled record can be reused.
                running(task).store(0);
        }
}

void task_timer(struct ev_loop* loop, ev_timer* w, int revents) {
        ev_timer_stop(loop, w);
        task_periodic(loop, reinterpret_cast<ev_periodic*>(w), revents);
}

// Gives a set-up task's watcher its callback, once, while it is not running.
void prepare(Task_T t) {
        if (t->type == Task_Once) {
                if (!ev_cb(&t->watcher.timer))
                        ev_timer_init(&t->watcher.timer, task_timer, 0., 0.);
        } else if (!ev_cb(&t->watcher.periodic)) {
                ev_periodic_init(&t->watcher.periodic, task_periodic, 0., 0., nullptr);
        }
}

void setUp(Task_T t, int type, int offset, int interval) {
        vesk::Lock lock(t->scheduler->lock);
        t->type = type;
        t->offset = offset;
        t->interval = interval;
        prepare(t);
}

void stopWatcher(Task_T t) {
        struct ev_loop* loop = t->scheduler->loop;
        if (t->type == Task_Once)
                ev_timer_stop(loop, &t->watcher.timer);
        else if (t->type != Task_None)
                ev_periodic_stop(loop, &t->watcher.periodic);
}

void wake(Scheduler_T C) {
        ev_async_send(C->loop, &C->wakeup);
}

// Ends the loop's thread: its callbacks have all returned when this does.
void stopLoop(Scheduler_T C) {
        {
                vesk::Lock lock(C->lock);
                C->stopped = 1;
        }
        wake(C);
        Exception_wrapper(pthread_join(C->thread, NULL));
}

}  // namespace

/* ----------------------------------------------------------------------------- Scheduler */

Scheduler_T Scheduler_new(int threads) {
        Scheduler_T C;
        NEW0(C);
        Exception_wrapper(pthread_mutex_init(&(C->lock), NULL));
        C->loop = ev_loop_new(EVFLAG_AUTO);
        if (!C->loop) {
                pthread_mutex_destroy(&C->lock);
                FREE(C);
                THROW(AssertException, "Scheduler: cannot create the event loop\n");
        }
        ev_set_userdata(C->loop, C);
        ev_set_loop_release_cb(C->loop, loop_release, loop_acquire);
        ev_async_init(&C->wakeup, loop_notify);
        ev_async_start(C->loop, &C->wakeup);
        C->tasks = Vector_new(kFirstTasks);
        TRY
                C->dispatcher = Dispatcher_new(threads, kIdleSeconds, task_worker);
                Error_debug("Starting Scheduler\n");
                Exception_wrapper(pthread_create(&C->thread, NULL, loop_run, (void*)C));
        ELSE
                if (C->dispatcher)
                        Dispatcher_free(&C->dispatcher);
                Vector_free(&C->tasks);
                ev_loop_destroy(C->loop);
                pthread_mutex_destroy(&C->lock);
                FREE(C);
                RETHROW;
        END_TRY;
        return C;
}

void Scheduler_free(Scheduler_T* C) {
        assert(C && *C);
        Scheduler_T c = *C;
        // The loop goes first, so that no firing reaches a dispatcher that is being freed;
        // the dispatcher then serves what was handed to it, and waits for the runs.
        stopLoop(c);
        Dispatcher_free(&c->dispatcher);
        while (!Vector_isEmpty(c->tasks)) {
                Task_T t = static_cast<Task_T>(Vector_pop(c->tasks));
                FREE(t);
        }
        Error_debug("Scheduler stopped\n");
        ev_loop_destroy(c->loop);
        Vector_free(&c->tasks);
        Exception_wrapper(pthread_mutex_destroy(&((*C)->lock)));
        FREE(*C);
}

Task_T Scheduler_createTask(Scheduler_T C, const char* name) {
        assert(C);
        assert(name);
        vesk::Lock lock(C->lock);
        if (C->stopped)
                return nullptr;
        Task_T t = nullptr;
        for (int i = 0; i < Vector_size(C->tasks) && !t; i++) {
                Task_T candidate = static_cast<Task_T>(Vector_get(C->tasks, i));
                if (candidate->isavailable && running(candidate).load() == 0)
                        t = candidate;
        }
        if (!t) {
                NEW0(t);
                Vector_push(C->tasks, t);
        }
        // A reused record's watcher was stopped when it was cancelled.
        memset(&t->watcher, 0, sizeof t->watcher);
        t->isavailable = false;
        t->type = Task_None;
        t->scheduler = C;
        t->lastRun = 0;
        running(t).store(0);
        Str_copy(t->name, name, kNameLength);
        t->worker = nullptr;
        t->data = nullptr;
        t->offset = 0;
        t->interval = 0;
        return t;
}

void Scheduler_add(Task_T task) {
        assert(task);
        Scheduler_T C = task->scheduler;
        vesk::Lock lock(C->lock);
        assert(task->isavailable == false);
        assert(task->worker);
        assert(task->type != Task_None);
        if (C->stopped)
                return;
        stopWatcher(task);
        if (task->type == Task_Once) {
                ev_now_update(C->loop);
                // The repeat value serves Task_restart; task_timer stops the timer as it fires.
                ev_timer_set(&task->watcher.timer, task->offset / 1000., task->offset / 1000.);
                ev_timer_start(C->loop, &task->watcher.timer);
        } else {
                // A periodic task's first firing falls on a multiple of its interval; its
                // offset counts from Task_restart on. An at-time task has no interval, and
                // its offset is the absolute time.
                double at = task->interval ? 0. : task->offset;
                ev_periodic_set(&task->watcher.periodic, at, task->interval / 1000., nullptr);
                ev_periodic_start(C->loop, &task->watcher.periodic);
        }
        wake(C);
}

/* ---------------------------------------------------------------------------------- Task */

void Task_setOnce(Task_T t, int offset) {
        assert(t);
        assert(t->type == Task_None || t->type == Task_Once);
        setUp(t, Task_Once, offset, 0);
}

void Task_setAt(Task_T t, time_t time) {
        assert(t);
        assert(t->type == Task_None || t->type == Task_At);
        // The time is kept in the 32-bit offset: a later one would come round as the past.
        assert(time <= INT_MAX);
        setUp(t, Task_At, static_cast<int>(time), 0);
}

void Task_setPeriodic(Task_T t, int offset, int interval) {
        assert(t);
        assert(t->type == Task_None || t->type == Task_Periodic);
        assert(interval > 0);
        setUp(t, Task_Periodic, offset, interval);
}

void Task_setWorker(Task_T t, void (*worker)(Task_T t)) {
        assert(t);
        assert(worker);
        vesk::Lock lock(t->scheduler->lock);
        t->worker = worker;
}

void Task_setData(Task_T t, void* data) {
        assert(t);
        vesk::Lock lock(t->scheduler->lock);
        t->data = data;
}

void* Task_getData(Task_T t) {
        assert(t);
        return t->data;
}

const char* Task_getName(Task_T t) {
        assert(t);
        return t->name;
}

int Task_getOffset(Task_T t) {
        assert(t);
        return t->offset;
}

int Task_getInterval(Task_T t) {
        assert(t);
        return t->interval;
}

time_t Task_lastRun(Task_T t) {
        assert(t);
        vesk::Lock lock(t->scheduler->lock);
        return static_cast<time_t>(t->lastRun);
}

time_t Task_nextRun(Task_T t) {
        assert(t);
        Scheduler_T C = t->scheduler;
        vesk::Lock lock(C->lock);
        if (t->type == Task_None)
                return 0;
        if (t->type == Task_Once)
                return ev_is_active(&t->watcher.timer)
                           ? static_cast<time_t>(ev_now(C->loop) +
                                                 ev_timer_remaining(C->loop, &t->watcher.timer))
                           : 0;
        return ev_is_active(&t->watcher.periodic)
                   ? static_cast<time_t>(ev_periodic_at(&t->watcher.periodic))
                   : 0;
}

void Task_cancel(Task_T t) {
        assert(t);
        Scheduler_T C = t->scheduler;
        vesk::Lock lock(C->lock);
        assert(t->isavailable == false);
        stopWatcher(t);
        wake(C);
        // A run in progress goes on; Scheduler_createTask waits for it to end before it
        // hands the record out again.
        t->isavailable = true;
}

void Task_restart(Task_T t) {
        assert(t);
        Scheduler_T C = t->scheduler;
        vesk::Lock lock(C->lock);
        assert(t->isavailable == false);
        if (C->stopped)
                return;
        ev_now_update(C->loop);
        switch (t->type) {
        case Task_Once:
                t->watcher.timer.repeat = t->offset / 1000.;
                ev_timer_again(C->loop, &t->watcher.timer);
                break;
        case Task_At:
                t->watcher.periodic.offset = t->offset;
                ev_periodic_again(C->loop, &t->watcher.periodic);
                break;
        case Task_Periodic:
                t->watcher.periodic.offset = t->offset / 1000.;
                t->watcher.periodic.interval = t->interval / 1000.;
                ev_periodic_again(C->loop, &t->watcher.periodic);
                break;
        }
        wake(C);
}
