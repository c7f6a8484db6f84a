// Scoped locks over pthread mutexes and read-write locks.
//
// Taking or releasing a lock is checked: a non-zero status raises AssertException with the
// text "_yystatus == 0". A guard releases what it holds when it goes out of scope, also
// when a raise leaves the scope; an unlock that fails while a raise is already on its way
// is logged instead, since two raises at once would end the process. A mutex guard given
// its owner's name logs every failure instead of raising.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <exception>
#include <mutex>

#include <vesk/Error.h>
#include <vesk/System.h>
#include <vesk/assert.h>

// The plain forms, for the rare code that cannot hold a guard.
#define LOCK(mutex)                                           \
        do {                                                  \
                int _yystatus = pthread_mutex_lock(&(mutex)); \
                assert(_yystatus == 0);                       \
        } while (0)
#define UNLOCK(mutex)                                           \
        do {                                                    \
                int _yystatus = pthread_mutex_unlock(&(mutex)); \
                assert(_yystatus == 0);                         \
        } while (0)

namespace vesk {

// Releases through `release`; raises on failure unless the scope is being left by a raise.
template <typename L>
inline void releaseChecked(L* lock, int (*release)(L*)) {
        int _yystatus = release(lock);
        if (_yystatus != 0) {
                if (std::uncaught_exceptions() > 0)
                        Error_error("Lock: release failed while unwinding -- %s\n",
                                    System_getError(_yystatus));
                else
                        assert(_yystatus == 0);
        }
}

// Holds a mutex for the guard's scope. unlock() and lock() let a scope step out of the
// mutex for a while (to run a callback, say) and take it back; wait() gives it up while
// waiting on a condition.
//
// A guard given its owner's name never raises: code that must outlive a failed call, such
// as a worker thread that no block waits on, gets the failure logged under that name, and
// the guard then holds nothing. lock() and unlock() tell whether they succeeded.
class Lock {
public:
        explicit Lock(pthread_mutex_t& mutex) : mutex_(mutex) { lock(); }
        Lock(pthread_mutex_t& mutex, const char* owner) : mutex_(mutex), owner_(owner) { lock(); }
        // Takes the mutex only if it is free; the guard then tells whether it holds it. A
        // busy mutex is no failure.
        Lock(pthread_mutex_t& mutex, std::try_to_lock_t) : mutex_(mutex) {
                int _yystatus = pthread_mutex_trylock(&mutex_);
                held_ = _yystatus == 0;
                if (!held_ && _yystatus != EBUSY)
                        failed(_yystatus, "Acquiring lock error");
        }
        ~Lock() noexcept(false) {
                if (!held_)
                        return;
                if (owner_)
                        unlock();
                else
                        releaseChecked(&mutex_, pthread_mutex_unlock);
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

        bool lock() {
                int _yystatus = pthread_mutex_lock(&mutex_);
                held_ = _yystatus == 0;
                if (!held_)
                        failed(_yystatus, "Acquiring lock error");
                return held_;
        }
        bool unlock() {
                held_ = false;
                int _yystatus = pthread_mutex_unlock(&mutex_);
                if (_yystatus != 0)
                        failed(_yystatus, "Release lock error");
                return _yystatus == 0;
        }

        // Waits on cond until it is signalled, or until deadline when one is given; the
        // status of the wait, which holds the mutex again when it returns.
        int wait(pthread_cond_t& cond, const struct timespec* deadline = nullptr) {
                return deadline ? pthread_cond_timedwait(&cond, &mutex_, deadline)
                                : pthread_cond_wait(&cond, &mutex_);
        }

        explicit operator bool() const { return held_; }

private:
        void failed(int _yystatus, const char* what) {
                if (owner_)
                        Error_error("%s: %s -- %s\n", owner_, what, System_getError(_yystatus));
                else
                        assert(_yystatus == 0);
        }

        pthread_mutex_t& mutex_;
        const char* owner_ = nullptr;
        bool held_ = false;
};

// Holds a read-write lock for reading, or for writing, for the guard's scope.
class RWLock {
public:
        enum Mode { Read, Write };
        RWLock(pthread_rwlock_t& lock, Mode mode) : lock_(lock) {
                int _yystatus =
                    mode == Read ? pthread_rwlock_rdlock(&lock_) : pthread_rwlock_wrlock(&lock_);
                assert(_yystatus == 0);
        }
        ~RWLock() noexcept(false) { releaseChecked(&lock_, pthread_rwlock_unlock); }
        RWLock(const RWLock&) = delete;
        RWLock& operator=(const RWLock&) = delete;

private:
        pthread_rwlock_t& lock_;
};

}  // namespace vesk
