/*
 * CacheQueue: a batching queue. Items are added from any thread; one background thread
 * hands them to the engine in batches, once `timeout` seconds have passed since the
 * batch began, once `length` items wait, or at once after CacheQueue_flush.
 *
 * The engine gets the batch as a List and removes the items it has dealt with; what it
 * leaves in the list is tried again in a later batch, behind newer items. Items stay
 * the caller's. CacheQueue_free(&Q) hands every item still queued to the engine before
 * it frees the queue, and clears the caller's pointer. Bad arguments raise
 * AssertException.
 */
#ifndef VESK_CACHEQUEUE_INCLUDED
#define VESK_CACHEQUEUE_INCLUDED

#include <vesk/Export.h>
#include <vesk/List.h>

VESK_BEGIN_DECLS

typedef struct CacheQueue_S* CacheQueue_T;

/* A new queue batching every timeout seconds and/or every length items (0 turns either off,
   not both) into engine. */
VESK_API CacheQueue_T CacheQueue_new(int timeout, int length, void (*engine)(List_T work));

/* Hands all queued items to the engine, waits for it, frees the queue and clears *Q. */
VESK_API void CacheQueue_free(CacheQueue_T* Q);

/* Queues data for the engine; never runs the engine on the caller's thread. */
VESK_API void CacheQueue_add(CacheQueue_T Q, void* data);

/* Asks for the queued items to be handed over now; does nothing on an empty queue. */
VESK_API void CacheQueue_flush(CacheQueue_T Q);

/* Items queued or in the engine's hands, read without a lock: an estimate. */
VESK_API int CacheQueue_size(CacheQueue_T Q);

VESK_END_DECLS

#endif
