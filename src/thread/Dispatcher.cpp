#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <time.h>

#include <atomic>

#include <vesk/Dispatcher.h>
#include <vesk/Error.h>
#include <vesk/List.h>
#include <vesk/Mem.h>
#include <vesk/System.h>
#include <vesk/assert.h>

#include "thread/Lock.hpp"

// Every thread call here is checked and logged, never raised: the pool must outlive a
// failure that would otherwise raise on a worker thread, where no block waits for it.
struct Dispatcher_S {
        int idle;
        // Threads back from an item and about to look at the queue again: they take what
        // is there without being woken. Raised without the lock, lowered under it.
        std::atomic<int> returning;
        int stopped;
        int threads;
        int timeout;
        List_T queue;
        int maxThreads;
        pthread_cond_t cond;
        pthread_attr_t attr;
        pthread_mutex_t mutex;
        void (*engine)(void* item);
};

namespace {

// The name that logged threading failures go under.
constexpr const char* kOwner = "Dispatcher";

// Lowers the count of live threads; the last one out wakes Dispatcher_free.
void leave(Dispatcher_T D) {
        D->threads--;
        if (D->threads < 1)
                pthread_cond_broadcast(&D->cond);
}

void* shutDown(Dispatcher_T D) {
        Error_debug("Processor thread shutting down\n");
        leave(D);
        return nullptr;
}

// The worker: serves the queue, waits at most `timeout` seconds for more, then ends.
void* server(void* arg) {
        Dispatcher_T D = static_cast<Dispatcher_T>(arg);
        vesk::Lock lock(D->mutex, kOwner);
        if (!lock)
                return nullptr;
        bool timedOut = false;
        bool returned = false;
        for (;;) {
                bool foundByTimedOutWait = false;
                while (List_length(D->queue) == 0) {
                        if (D->stopped)
                                return shutDown(D);
                        struct timespec deadline;
                        clock_gettime(CLOCK_REALTIME, &deadline);
                        deadline.tv_sec += D->timeout;
                        deadline.tv_nsec = 0;
                        D->idle++;
                        int status = lock.wait(D->cond, &deadline);
                        D->idle--;
                        if (status == ETIMEDOUT) {
                                timedOut = true;
                                if (List_length(D->queue) == 0)
                                        break;
                                foundByTimedOutWait = true;
                        } else if (status != 0) {
                                Error_debug("Dispatcher: thread wait failed, %d(%s)\n", status,
                                            System_getError(status));
                                leave(D);
                                return nullptr;
                        }
                }
                while (List_length(D->queue) > 0) {
                        D->returning.fetch_sub(returned ? 1 : 0, std::memory_order_relaxed);
                        returned = false;
                        if (!foundByTimedOutWait)
                                timedOut = false;
                        foundByTimedOutWait = false;
                        void* item = List_pop(D->queue);
                        if (!lock.unlock()) {
                                List_append(D->queue, item);
                                return nullptr;
                        }
                        D->engine(item);
                        D->returning.fetch_add(1, std::memory_order_relaxed);
                        returned = true;
                        if (!lock.lock())
                                return nullptr;
                }
                D->returning.fetch_sub(returned ? 1 : 0, std::memory_order_relaxed);
                returned = false;
                if (D->stopped)
                        return shutDown(D);
                // Idle too long: even one last item served does not renew the thread.
                if (timedOut) {
                        leave(D);
                        return nullptr;
                }
        }
}

// Stops the threads and waits until the last one has left. The status of the first failed
// call, or -1 when the lock failed, which is logged already.
int stopThreads(Dispatcher_T D) {
        vesk::Lock lock(D->mutex, kOwner);
        if (!lock)
                return -1;
        if (D->threads < 1)
                return 0;
        D->stopped = 1;
        int status = D->idle > 0 ? pthread_cond_broadcast(&D->cond) : 0;
        while (status == 0 && D->threads > 0)
                status = lock.wait(D->cond);
        return status;
}

void finalizeFailed(int status) {
        Error_error("Dispatcher: Error finalizing -- %s", System_getError(status));
}

}  // namespace

Dispatcher_T Dispatcher_new(int threads, int timeout, void (*engine)(void*)) {
        // The texts of these checks are part of the interface.
        // clang-format off
        assert(engine);
        assert(threads>0);
        assert(timeout>=0);
        // clang-format on
        Dispatcher_T D;
        NEW0(D);
        D->maxThreads = threads;
        D->timeout = timeout;
        D->engine = engine;
        int status = pthread_attr_init(&D->attr);
        if (status == 0) {
                status = pthread_attr_setdetachstate(&D->attr, PTHREAD_CREATE_DETACHED);
                if (status == 0) {
                        status = pthread_mutex_init(&D->mutex, nullptr);
                        if (status == 0) {
                                status = pthread_cond_init(&D->cond, nullptr);
                                if (status != 0)
                                        pthread_mutex_destroy(&D->mutex);
                        }
                }
                if (status != 0)
                        pthread_attr_destroy(&D->attr);
        }
        if (status != 0) {
                FREE(D);
                THROW(AssertException, "Dispatcher: Error initializing -- %s",
                      System_getError(status));
        }
        D->queue = List_new();
        return D;
}

int Dispatcher_add(Dispatcher_T D, void* data) {
        assert(D);
        assert(data);
        vesk::Lock lock(D->mutex, kOwner);
        if (!lock)
                return 0;
        List_append(D->queue, data);
        int pending = List_length(D->queue);
        // A thread on its way back to the queue takes the item without a wake-up.
        if (pending <= D->returning.load(std::memory_order_relaxed))
                return 1;
        if (D->idle >= pending) {
                // Signalled after the lock is given up, so that the woken thread does not
                // block at once on the mutex this thread still holds.
                lock.unlock();
                int status = pthread_cond_signal(&D->cond);
                if (status != 0)
                        Error_error("Dispatcher: Condition signal error -- %s\n",
                                    System_getError(status));
        } else if (D->threads < D->maxThreads) {
                pthread_t thread;
                int status = pthread_create(&thread, &D->attr, server, D);
                if (status == 0)
                        D->threads++;
                else
                        Error_error("Dispatcher: Error creating new dispatcher thread -- %s\n",
                                    System_getError(status));
        }
        return 1;
}

void Dispatcher_free(Dispatcher_T* D) {
        assert(D && *D);
        Dispatcher_T d = *D;
        int status = stopThreads(d);
        if (status == 0)
                status = pthread_mutex_destroy(&d->mutex);
        if (status == 0)
                status = pthread_cond_destroy(&d->cond);
        if (status == 0)
                status = pthread_attr_destroy(&d->attr);
        if (status > 0)
                finalizeFailed(status);
        List_free(&d->queue);
        FREE(d);
        *D = nullptr;
}
