// Mutexes, scoped locks and condition variables over pthreads.
//
// Every threading call goes through VDB_THREAD_CHECK: status 0 or ETIMEDOUT passes, anything
// else writes the call and the system's error text to standard error and aborts. Such a
// failure means a broken lock, which no caller could recover from.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <time.h>

namespace vdb {

[[noreturn]] void threadFailed(const char* call, int status);

#define VDB_THREAD_CHECK(F)                                 \
        do {                                                \
                int _vstatus = (F);                         \
                if (_vstatus != 0 && _vstatus != ETIMEDOUT) \
                        ::vdb::threadFailed(#F, _vstatus);  \
        } while (0)

class Mutex {
public:
        Mutex() { VDB_THREAD_CHECK(pthread_mutex_init(&mutex_, nullptr)); }
        ~Mutex() { VDB_THREAD_CHECK(pthread_mutex_destroy(&mutex_)); }
        Mutex(const Mutex&) = delete;
        Mutex& operator=(const Mutex&) = delete;
        pthread_mutex_t* native() { return &mutex_; }

private:
        pthread_mutex_t mutex_;
};

// Holds a mutex for the guard's scope; unlock() and lock() step out of it for a while.
class Lock {
public:
        explicit Lock(Mutex& mutex) : mutex_(mutex) { lock(); }
        ~Lock() {
                if (held_)
                        unlock();
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

        void lock() {
                VDB_THREAD_CHECK(pthread_mutex_lock(mutex_.native()));
                held_ = true;
        }
        void unlock() {
                held_ = false;
                VDB_THREAD_CHECK(pthread_mutex_unlock(mutex_.native()));
        }
        Mutex& mutex() { return mutex_; }

private:
        Mutex& mutex_;
        bool held_ = false;
};

// A condition variable on the monotonic clock, so that a change of the wall clock does not
// stretch or cut a timed wait.
class Condition {
public:
        Condition() {
                pthread_condattr_t attributes;
                VDB_THREAD_CHECK(pthread_condattr_init(&attributes));
                VDB_THREAD_CHECK(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC));
                VDB_THREAD_CHECK(pthread_cond_init(&cond_, &attributes));
                VDB_THREAD_CHECK(pthread_condattr_destroy(&attributes));
        }
        ~Condition() { VDB_THREAD_CHECK(pthread_cond_destroy(&cond_)); }
        Condition(const Condition&) = delete;
        Condition& operator=(const Condition&) = delete;

        // Waits until signalled or until the monotonic time `deadline`.
        void waitUntil(Lock& lock, const struct timespec& deadline) {
                VDB_THREAD_CHECK(pthread_cond_timedwait(&cond_, lock.mutex().native(), &deadline));
        }
        void broadcast() { VDB_THREAD_CHECK(pthread_cond_broadcast(&cond_)); }

private:
        pthread_cond_t cond_;
};

}  // namespace vdb
