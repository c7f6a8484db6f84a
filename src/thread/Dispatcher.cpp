#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <time.h>

#include <vesk/Dispatcher.h>
#include <vesk/Error.h>
#include <vesk/List.h>
#include <vesk/Mem.h>
#include <vesk/System.h>
#include <vesk/assert.h>

// Every thread call here is checked by hand and logged: the pool must outlive a failure
// that would otherwise raise on a worker thread, where no block waits for it.
struct Dispatcher_S {
        int idle;
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

// Unlocks D's mutex when a scope ends, also by a raise (a queue node that cannot be
// allocated), so that the pool is never left locked.
class Held {
public:
        explicit Held(Dispatcher_T D) : D_(D) {}
        ~Held() {
                int status = pthread_mutex_unlock(&D_->mutex);
                if (status != 0)
                        Error_error("Dispatcher: Release lock error -- %s\n",
                                    System_getError(status));
        }
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;

private:
        Dispatcher_T D_;
};

void unlockOrLog(Dispatcher_T D) {
        int status = pthread_mutex_unlock(&D->mutex);
        if (status != 0)
                Error_error("Dispatcher: Release lock error -- %s\n", System_getError(status));
}

// Lowers the count of live threads; the last one out wakes Dispatcher_free.
void leave(Dispatcher_T D) {
        D->threads--;
        if (D->threads < 1)
                pthread_cond_broadcast(&D->cond);
}

// The worker: serves the queue, waits at most `timeout` seconds for more, then ends.
void* server(void* arg) {
        Dispatcher_T D = static_cast<Dispatcher_T>(arg);
        int status = pthread_mutex_lock(&D->mutex);
        if (status != 0) {
                Error_error("Dispatcher: Acquiring lock error -- %s\n", System_getError(status));
                return nullptr;
        }
        bool timedOut = false;
        for (;;) {
                bool foundByTimedOutWait = false;
                while (List_length(D->queue) == 0) {
                        if (D->stopped)
                                goto shutdown;
                        struct timespec deadline;
                        clock_gettime(CLOCK_REALTIME, &deadline);
                        deadline.tv_sec += D->timeout;
                        deadline.tv_nsec = 0;
                        D->idle++;
                        status = pthread_cond_timedwait(&D->cond, &D->mutex, &deadline);
                        D->idle--;
                        if (status == ETIMEDOUT) {
                                timedOut = true;
                                if (List_length(D->queue) == 0)
                                        goto idle;
                                foundByTimedOutWait = true;
                        } else if (status != 0) {
                                Error_debug("Dispatcher: thread wait failed, %d(%s)\n", status,
                                            System_getError(status));
                                leave(D);
                                unlockOrLog(D);
                                return nullptr;
                        }
                }
                do {
                        if (!foundByTimedOutWait)
                                timedOut = false;
                        foundByTimedOutWait = false;
                        void* item = List_pop(D->queue);
                        status = pthread_mutex_unlock(&D->mutex);
                        if (status != 0) {
                                List_append(D->queue, item);
                                Error_error("Dispatcher: Release lock error -- %s\n",
                                            System_getError(status));
                                return nullptr;
                        }
                        D->engine(item);
                        if (pthread_mutex_lock(&D->mutex) != 0)
                                return nullptr;
                } while (List_length(D->queue) > 0);
        idle:
                if (D->stopped)
                        goto shutdown;
                // Idle too long: even one last item served does not renew the thread.
                if (timedOut) {
                        leave(D);
                        unlockOrLog(D);
                        return nullptr;
                }
        }
shutdown:
        Error_debug("Processor thread shutting down\n");
        leave(D);
        unlockOrLog(D);
        return nullptr;
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
        int status = pthread_mutex_lock(&D->mutex);
        if (status != 0) {
                Error_error("Dispatcher: Acquiring lock error -- %s\n", System_getError(status));
                return 0;
        }
        Held held(D);
        List_append(D->queue, data);
        if (D->idle >= List_length(D->queue)) {
                status = pthread_cond_signal(&D->cond);
                if (status != 0)
                        Error_error("Dispatcher: Condition signal error -- %s\n",
                                    System_getError(status));
        } else if (D->threads < D->maxThreads) {
                pthread_t thread;
                status = pthread_create(&thread, &D->attr, server, D);
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
        int status = pthread_mutex_lock(&d->mutex);
        if (status == 0) {
                if (d->threads > 0) {
                        d->stopped = 1;
                        if (d->idle > 0)
                                status = pthread_cond_broadcast(&d->cond);
                        while (status == 0 && d->threads > 0)
                                status = pthread_cond_wait(&d->cond, &d->mutex);
                }
                int unlocked = pthread_mutex_unlock(&d->mutex);
                if (status == 0)
                        status = unlocked;
        }
        if (status == 0)
                status = pthread_mutex_destroy(&d->mutex);
        if (status == 0)
                status = pthread_cond_destroy(&d->cond);
        if (status == 0)
                status = pthread_attr_destroy(&d->attr);
        if (status != 0)
                finalizeFailed(status);
        List_free(&d->queue);
        FREE(d);
        *D = nullptr;
}
