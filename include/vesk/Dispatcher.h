/*
 * Dispatcher: a pool of worker threads with a shared queue.
 *
 * Dispatcher_new gives a pool with no thread yet. Each Dispatcher_add queues one
 * item; a thread takes it and calls engine(item) outside the pool's lock. A new
 * thread is started only when more items wait than threads idle, up to the
 * maximum; beyond it items wait in order, without bound. A thread idle for
 * timeout seconds ends. The items stay the caller's: the engine owns what it is
 * given. An exception leaving the engine ends the process, so the engine holds
 * its own TRY. Thread failures inside the pool are logged, never raised, so the
 * pool survives them. Dispatcher_free waits for every queued item to be served.
 */
#ifndef VESK_DISPATCHER_INCLUDED
#define VESK_DISPATCHER_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Dispatcher_S* Dispatcher_T;

/* A pool of at most `threads` threads (> 0), each ending after `timeout` idle seconds. */
VESK_API Dispatcher_T Dispatcher_new(int threads, int timeout, void (*engine)(void* item));

/* Queues data (not NULL) for a thread; returns 1, or 0 if the pool's lock failed and the item
   was not queued. */
VESK_API int Dispatcher_add(Dispatcher_T D, void* data);

/* Serves what is queued, ends every thread, waits for them, frees the pool and clears *D. */
VESK_API void Dispatcher_free(Dispatcher_T* D);

VESK_END_DECLS

#endif
