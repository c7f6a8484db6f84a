/*
 * Thread: starting detached threads.
 *
 * Thread_init prepares the shared detached-thread attributes, once per process
 * however often it is called; the library calls it at load time. A thread
 * started here cannot be joined and cleans up after itself when its function
 * returns. Its function runs with no protected block: an exception that leaves
 * it ends the process, so the function holds its own TRY. Failures raise
 * AssertException with the failing call and the system's error text.
 */
#ifndef VESK_THREAD_INCLUDED
#define VESK_THREAD_INCLUDED

#include <pthread.h>

#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* Prepares the detached-thread attributes; does nothing if they are ready. */
VESK_API void Thread_init(void);

/* Releases the attributes; a later Thread_init prepares them again. */
VESK_API void Thread_fini(void);

/* Starts threadFunc(threadArgs) on a new detached thread whose id goes to *thread. */
VESK_API void Thread_createDetached(pthread_t* thread, void* (*threadFunc)(void* threadArgs),
                                    void* threadArgs);

VESK_END_DECLS

#endif
