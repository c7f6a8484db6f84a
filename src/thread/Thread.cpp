#include <pthread.h>

#include <vesk/System.h>
#include <vesk/Thread.h>

#include "thread/Lock.hpp"

namespace {

pthread_attr_t myDetachStateAttribute;
bool ready = false;
// Guards `ready`, so that Thread_init, Thread_fini and a first Thread_createDetached may race.
pthread_mutex_t readyMutex = PTHREAD_MUTEX_INITIALIZER;

void prepare() {
        if (ready)
                return;
        int status = pthread_attr_init(&myDetachStateAttribute);
        if (status != 0)
                THROW(AssertException, "pthread_attr_init -- %s", System_getError(status));
        status = pthread_attr_setdetachstate(&myDetachStateAttribute, PTHREAD_CREATE_DETACHED);
        if (status != 0) {
                pthread_attr_destroy(&myDetachStateAttribute);
                THROW(AssertException, "pthread_attr_setdetachstate -- %s",
                      System_getError(status));
        }
        ready = true;
}

}  // namespace

void Thread_init(void) {
        vesk::Lock lock(readyMutex);
        prepare();
}

void Thread_fini(void) {
        vesk::Lock lock(readyMutex);
        if (ready) {
                pthread_attr_destroy(&myDetachStateAttribute);
                ready = false;
        }
}

void Thread_createDetached(pthread_t* thread, void* (*threadFunc)(void*), void* threadArgs) {
        assert(thread);
        assert(threadFunc);
        vesk::Lock lock(readyMutex);
        // A process that skipped Thread_init, or already ran Thread_fini, still gets its thread.
        prepare();
        int status = pthread_create(thread, &myDetachStateAttribute, threadFunc, threadArgs);
        if (status != 0)
                THROW(AssertException, "pthread_create -- %s", System_getError(status));
}
