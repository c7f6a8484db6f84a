/*
 * Seq: a sequence of references that grows at both ends, indexed from 0.
 *
 * Seq_T is an opaque handle on the heap; Seq_free(&seq) frees it and clears the
 * caller's reference. The elements are the caller's: the sequence holds
 * references and never frees them. Adding to a full sequence doubles its room.
 * Every bad argument raises AssertException. No lock: the owner guards it.
 */
#ifndef VESK_SEQ_INCLUDED
#define VESK_SEQ_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Seq_S* Seq_T;

/* A new empty sequence with room for `hint` elements; 0 means 16. */
VESK_API Seq_T Seq_new(int hint);

/* A new sequence of the arguments up to the first NULL. */
VESK_API Seq_T Seq_seq(void* first, ...);

/* Frees the sequence, not its elements; clears *seq. */
VESK_API void Seq_free(Seq_T* seq);

/* The number of elements. */
VESK_API int Seq_length(Seq_T seq);

/* Element i. */
VESK_API void* Seq_get(Seq_T seq, int i);

/* Replaces element i with x; returns the old element. */
VESK_API void* Seq_put(Seq_T seq, int i, void* x);

/* Adds x at the high end; returns x. */
VESK_API void* Seq_addhi(Seq_T seq, void* x);

/* Adds x at the low end, as the new element 0; returns x. */
VESK_API void* Seq_addlo(Seq_T seq, void* x);

/* Removes and returns the element at the high end. */
VESK_API void* Seq_remhi(Seq_T seq);

/* Removes and returns element 0. */
VESK_API void* Seq_remlo(Seq_T seq);

VESK_END_DECLS

#endif
