/*
 * Future: threads wait on a text key until another thread signals that key.
 *
 * A signal for a key that nobody waits on is kept, and the next wait on that key
 * consumes it and returns at once; signals kept add up, one for each wait. A signal
 * for a key that threads wait on wakes them all and is not kept. Keys are copied.
 * Future_free(&F) wakes every waiter, waits until all have left, drops the kept
 * signals and clears the caller's pointer. A failed wait is logged, never raised;
 * bad arguments raise AssertException.
 */
#ifndef VESK_FUTURE_INCLUDED
#define VESK_FUTURE_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Future_S* Future_T;

/* A future with no key signalled; free it with Future_free. */
VESK_API Future_T Future_new(void);

/* Wakes all waiters, waits until they have left, frees the future and clears *F. */
VESK_API void Future_free(Future_T* F);

/* Blocks until key is signalled, or returns at once consuming a kept signal. */
VESK_API void Future_wait(Future_T F, const char* key);

/* As Future_wait for about millisec milliseconds (> 0), rounded down to whole seconds from
   the start of the present second; true if key was signalled, false if the time ran out. */
VESK_API int Future_timedWait(Future_T F, long millisec, const char* key);

/* Wakes every thread waiting on key, or keeps one signal for the next wait if none waits. */
VESK_API void Future_notify(Future_T F, const char* key);

/* Wakes every thread waiting on any key. */
VESK_API void Future_notifyAll(Future_T F);

/* The threads waiting on key plus the signals kept for it; 0 for a key never seen. */
VESK_API int Future_has(Future_T F, const char* key);

VESK_END_DECLS

#endif
