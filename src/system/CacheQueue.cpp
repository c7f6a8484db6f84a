#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <time.h>

#include <vesk/CacheQueue.h>
#include <vesk/Exception.h>
#include <vesk/List.h>
#include <vesk/Mem.h>
#include <vesk/Thread.h>

#include "thread/Lock.hpp"

#include <vesk/assert.h>

struct CacheQueue_S {
        pthread_cond_t cv;
        int waiting;
        List_T work;
        List_T queue;
        pthread_mutex_t mutex;
        int stopped;
        pthread_t thread;  // 0 while no background thread runs
        int flush;
        int length;
        int timeout;
        void (*engine)(List_T work);
};

namespace {

bool running(CacheQueue_T Q) {
        return Q->thread != pthread_t{};
}

bool lengthReached(CacheQueue_T Q) {
        return Q->length > 0 && List_length(Q->queue) >= Q->length;
}

struct timespec monotonicNow() {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return now;
}

bool before(const struct timespec& a, const struct timespec& b) {
        return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

// Holds the batch back for `timeout` seconds, unless a flush, the length threshold or the
// end of the queue comes first. Those are tested before each wait as well, so a signal
// sent before this thread began to wait is not lost.
void holdBatch(CacheQueue_T Q) {
        struct timespec deadline = monotonicNow();
        deadline.tv_sec += Q->timeout;
        Q->waiting++;
        while (Q->timeout > 0 && !Q->flush && !Q->stopped && !lengthReached(Q) &&
               before(monotonicNow(), deadline))
                Exception_wrapper(pthread_cond_timedwait(&Q->cv, &Q->mutex, &deadline));
        Q->waiting--;
}

// The background thread, the only one that runs the engine.
void* processor(void* arg) {
        CacheQueue_T Q = static_cast<CacheQueue_T>(arg);
        vesk::Lock lock(Q->mutex);
        do {
                if (Q->timeout > 0 && !Q->flush)
                        holdBatch(Q);
                if (List_length(Q->queue) > 0) {
                        List_T batch = Q->queue;
                        Q->queue = Q->work;
                        Q->work = batch;
                        lock.unlock();
                        Q->engine(Q->work);
                        lock.lock();
                        if (List_length(Q->work) == 0) {
                                Q->flush = 0;
                                continue;
                        }
                        // What the engine left goes behind what came in meanwhile.
                        List_cat(Q->queue, Q->work);
                        List_clear(Q->work);
                }
                Q->flush = 0;
        } while (List_length(Q->queue) > 0);
        Q->thread = pthread_t{};
        if (Q->stopped)
                Exception_wrapper(pthread_cond_broadcast(&Q->cv));
        return nullptr;
}

void startProcessor(CacheQueue_T Q) {
        if (!running(Q))
                Thread_createDetached(&Q->thread, processor, Q);
        else if (Q->waiting > 0)
                Exception_wrapper(pthread_cond_signal(&Q->cv));
}

}  // namespace

CacheQueue_T CacheQueue_new(int timeout, int length, void (*engine)(List_T work)) {
        assert(engine);
        assert(timeout >= 0);
        assert(length >= 0);
        assert(timeout > 0 || length > 0);
        CacheQueue_T Q;
        NEW0(Q);
        Q->timeout = timeout;
        Q->length = length;
        Q->engine = engine;
        pthread_condattr_t attr;
        Exception_wrapper(pthread_condattr_init(&attr));
        Exception_wrapper(pthread_condattr_setclock(&attr, CLOCK_MONOTONIC));
        Exception_wrapper(pthread_cond_init(&Q->cv, &attr));
        pthread_condattr_destroy(&attr);
        Exception_wrapper(pthread_mutex_init(&Q->mutex, NULL));
        Q->work = List_new();
        Q->queue = List_new();
        return Q;
}

void CacheQueue_free(CacheQueue_T* Q) {
        assert(Q && *Q);
        CacheQueue_T q = *Q;
        pthread_t joinable{};
        {
                vesk::Lock lock(q->mutex);
                // A thread that no longer waits drains the queue at once.
                q->timeout = 0;
                if (running(q)) {
                        q->stopped = 1;
                        while (running(q)) {
                                Exception_wrapper(pthread_cond_signal(&q->cv));
                                Exception_wrapper(pthread_cond_wait(&q->cv, &q->mutex));
                        }
                } else if (List_length(q->queue) > 0) {
                        Exception_wrapper(pthread_create(&q->thread, NULL, processor, q));
                        joinable = q->thread;
                }
        }
        if (joinable != pthread_t{})
                Exception_wrapper(pthread_join(joinable, NULL));
        assert(List_length((*Q)->queue) == 0);
        assert(List_length((*Q)->work) == 0);
        List_free(&q->queue);
        List_free(&q->work);
        Exception_wrapper(pthread_cond_destroy(&q->cv));
        Exception_wrapper(pthread_mutex_destroy(&q->mutex));
        FREE(*Q);
}

void CacheQueue_add(CacheQueue_T Q, void* data) {
        assert(Q);
        assert(data);
        vesk::Lock lock(Q->mutex);
        List_append(Q->queue, data);
        if (Q->timeout > 0 && !running(Q))
                Thread_createDetached(&Q->thread, processor, Q);
        if (lengthReached(Q))
                startProcessor(Q);
}

void CacheQueue_flush(CacheQueue_T Q) {
        assert(Q);
        vesk::Lock lock(Q->mutex);
        if (List_length(Q->queue) > 0) {
                Q->flush = 1;
                startProcessor(Q);
        }
}

int CacheQueue_size(CacheQueue_T Q) {
        assert(Q);
        return List_length(Q->work) + List_length(Q->queue);
}
