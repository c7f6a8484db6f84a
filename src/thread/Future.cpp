#include <pthread.h>
#include <time.h>

#include <atomic>

#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/Future.h>
#include <vesk/Mem.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/Table.h>
#include <vesk/Time.h>
#include <vesk/assert.h>

#include "thread/Lock.hpp"

namespace {

constexpr int kMonitorHint = 11;

// One key's waiters. `waiters` counts the threads in a wait and the signals kept for the
// next ones, so that a monitor with a kept signal is never swept.
struct Monitor {
        pthread_cond_t sem;
        char* key;
        pthread_mutex_t mutex;
        int waiters;
        int pending;
        // Raised by each wake-up, so that a waiter tells it from a spurious return.
        unsigned generation;
};

}  // namespace

// `stopped` and `waiters` are read outside `mutex`; Mem memory holds no std::atomic, so
// they are reached through atomic_ref.
struct Future_S {
        pthread_cond_t sem;
        Table_T monitors;
        pthread_mutex_t mutex;
        int stopped;
        int waiters;
};

namespace {

std::atomic_ref<int> waiting(Future_T F) {
        return std::atomic_ref<int>(F->waiters);
}

std::atomic_ref<int> stopping(Future_T F) {
        return std::atomic_ref<int>(F->stopped);
}

Monitor* newMonitor(const char* key) {
        Monitor* m;
        NEW0(m);
        Exception_wrapper(pthread_cond_init(&m->sem, NULL));
        Exception_wrapper(pthread_mutex_init(&m->mutex, NULL));
        m->key = Str_dup(key);
        return m;
}

void freeMonitor(Monitor* m) {
        Exception_wrapper(pthread_cond_destroy(&m->sem));
        Exception_wrapper(pthread_mutex_destroy(&m->mutex));
        FREE(m->key);
        FREE(m);
}

// The key's monitor, made if missing. Called under the future's mutex. A new key first
// sweeps the monitors that nobody uses, but only while no thread waits at all, which keeps
// the table from growing with each key without taking a monitor from under a waiter.
Monitor* getMonitor(Future_T F, const char* key) {
        Monitor* m = static_cast<Monitor*>(Table_get(F->monitors, key));
        if (m)
                return m;
        if (waiting(F).load() == 0 && Table_length(F->monitors) > 0) {
                Table_rewind(F->monitors);
                while (Monitor* old = static_cast<Monitor*>(Table_next(F->monitors)))
                        if (old->waiters < 1) {
                                Table_remove(F->monitors, old->key);
                                freeMonitor(old);
                        }
        }
        m = newMonitor(key);
        Table_put(F->monitors, m->key, m);
        return m;
}

// Wakes every thread waiting on the monitor. Called under its mutex.
void wakeAll(Monitor* m) {
        m->generation++;
        Exception_wrapper(pthread_cond_broadcast(&m->sem));
}

// Wakes the waiters of every key. Called under the future's mutex.
void wakeEveryKey(Future_T F) {
        Table_rewind(F->monitors);
        while (Monitor* m = static_cast<Monitor*>(Table_next(F->monitors))) {
                vesk::Lock lock(m->mutex);
                wakeAll(m);
        }
}

// Waits on key until it is signalled, or until deadline when one is given. The status of
// the wait (0 for a signal), and whether a signal came.
int await(Future_T F, const char* key, const struct timespec* deadline, bool& signalled) {
        Monitor* m;
        {
                vesk::Lock lock(F->mutex);
                m = getMonitor(F, key);
                waiting(F)++;
        }
        int status = 0;
        signalled = false;
        {
                // Only this mutex is held while blocking; `stopped` is read under it, so a
                // waiter either sees it or is woken by Future_free's wake-up.
                vesk::Lock lock(m->mutex);
                if (m->pending > 0) {
                        m->waiters--;
                        m->pending--;
                        signalled = true;
                } else if (!stopping(F).load()) {
                        m->waiters++;
                        unsigned generation = m->generation;
                        do
                                status = lock.wait(m->sem, deadline);
                        while (status == 0 && m->generation == generation);
                        m->waiters--;
                        signalled = status == 0;
                }
        }
        // The last waiter to leave a future being freed wakes Future_free; this thread does
        // not touch the future once it has let go of the mutex.
        vesk::Lock lock(F->mutex);
        if (--waiting(F) == 0 && stopping(F).load())
                Exception_wrapper(pthread_cond_broadcast(&F->sem));
        return status;
}

}  // namespace

Future_T Future_new(void) {
        Future_T F;
        NEW0(F);
        Exception_wrapper(pthread_cond_init(&F->sem, NULL));
        Exception_wrapper(pthread_mutex_init(&F->mutex, NULL));
        F->monitors = Table_new(kMonitorHint, Str_cmp, Str_hash);
        return F;
}

void Future_free(Future_T* F) {
        assert(F && *F);
        Future_T f = *F;
        {
                vesk::Lock lock(f->mutex);
                stopping(f).store(1);
                wakeEveryKey(f);
                while (waiting(f).load() > 0)
                        Exception_wrapper(pthread_cond_wait(&f->sem, &f->mutex));
                Table_rewind(f->monitors);
                while (Monitor* m = static_cast<Monitor*>(Table_next(f->monitors))) {
                        Table_remove(f->monitors, m->key);
                        freeMonitor(m);
                }
        }
        Exception_wrapper(pthread_cond_destroy(&f->sem));
        Exception_wrapper(pthread_mutex_destroy(&f->mutex));
        Table_free(&f->monitors);
        FREE(*F);
}

void Future_wait(Future_T F, const char* key) {
        assert(F);
        assert(key);
        bool signalled;
        int status = await(F, key, nullptr, signalled);
        if (status != 0)
                Error_error("Future_wait(%s) -- %s\n", key, System_getError(status));
}

int Future_timedWait(Future_T F, long millisec, const char* key) {
        assert(F);
        assert(key);
        assert(millisec > 0);
        // The fraction is a thousandth of the true one, so the wait is in effect rounded down
        // to whole seconds from the start of the present second.
        struct timespec deadline;
        deadline.tv_sec = Time_now() + millisec / 1000;
        deadline.tv_nsec = (millisec % 1000) * 1000;
        bool signalled;
        int status = await(F, key, &deadline, signalled);
        if (status != 0 && status != ETIMEDOUT)
                Error_error("Future_timedWait(%s) -- %s\n", key, System_getError(status));
        return signalled;
}

void Future_notify(Future_T F, const char* key) {
        assert(F);
        assert(key);
        vesk::Lock lock(F->mutex);
        Monitor* m = getMonitor(F, key);
        vesk::Lock held(m->mutex);
        // Kept signals count among the waiters; only threads that really wait take a wake-up,
        // and any further signal is kept as well.
        if (m->waiters > m->pending) {
                wakeAll(m);
        } else {
                m->waiters++;
                m->pending++;
        }
}

void Future_notifyAll(Future_T F) {
        assert(F);
        if (waiting(F).load() <= 0)
                return;
        vesk::Lock lock(F->mutex);
        wakeEveryKey(F);
}

int Future_has(Future_T F, const char* key) {
        assert(F);
        assert(key);
        vesk::Lock lock(F->mutex);
        Monitor* m = static_cast<Monitor*>(Table_get(F->monitors, key));
        if (!m)
                return 0;
        vesk::Lock held(m->mutex);
        return m->waiters;
}
