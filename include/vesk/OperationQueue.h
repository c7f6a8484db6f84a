/*
 * OperationQueue: runs operations on a background thread, in batches.
 *
 * A batch is run once `timeout` seconds have passed since it began, once `length`
 * operations wait, or at once after OperationQueue_invoke; 0 turns either threshold
 * off, but not both. The queue owns an operation from OperationQueue_add on and frees
 * it when it has run (see Operation). OperationQueue_free(&O) runs every operation
 * still queued, frees the queue and clears the caller's pointer. Bad arguments raise
 * AssertException.
 */
#ifndef VESK_OPERATIONQUEUE_INCLUDED
#define VESK_OPERATIONQUEUE_INCLUDED

#include <vesk/Export.h>
#include <vesk/Operation.h>

VESK_BEGIN_DECLS

typedef struct OperationQueue_S* OperationQueue_T;

/* A queue running its operations every timeout seconds and/or every length operations. */
VESK_API OperationQueue_T OperationQueue_new(int timeout, int length);

/* Queues o, which the queue then owns; never runs it on the caller's thread. */
VESK_API void OperationQueue_add(OperationQueue_T O, Operation_T o);

/* Asks for the queued operations to be run now, on the queue's thread. */
VESK_API void OperationQueue_invoke(OperationQueue_T O);

/* The operations queued or being run, read without a lock: an estimate. */
VESK_API int OperationQueue_size(OperationQueue_T O);

/* Runs what is queued, waits for it, frees the queue and clears *O. */
VESK_API void OperationQueue_free(OperationQueue_T* O);

VESK_END_DECLS

#endif
