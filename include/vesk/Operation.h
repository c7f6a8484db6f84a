/*
 * Operation: a unit of deferred work, execute(data) and then, if set, completed(data).
 *
 * Records come from a pool shared by all threads and go back to it when they are run
 * or freed, so a busy queue allocates little. The data stays the caller's.
 * Operation_execute(&O) runs the operation and always frees it; an exception raised
 * by the work is logged and goes no further, and completed is then not called. Both
 * Operation_execute and Operation_free clear the caller's pointer. Bad arguments raise
 * AssertException.
 */
#ifndef VESK_OPERATION_INCLUDED
#define VESK_OPERATION_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Operation_S* Operation_T;

/* An operation that runs execute(data); free it by running it or with Operation_free. */
VESK_API Operation_T Operation_new(void (*execute)(void* data), void* data);

/* Sets the function called with the data after execute has returned normally. */
VESK_API void Operation_setCompleted(Operation_T O, void (*completed)(void* data));

/* Runs execute and then completed, logs what either raises, frees the operation, clears *O. */
VESK_API void Operation_execute(Operation_T* O);

/* Frees the operation without running it and clears *O. */
VESK_API void Operation_free(Operation_T* O);

VESK_END_DECLS

#endif
