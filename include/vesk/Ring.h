/*
 * Ring: a circular, doubly linked list of references, indexed from 0.
 *
 * Ring_T is an opaque handle on the heap; Ring_free(&ring) frees it and its
 * nodes and clears the caller's reference. The values are the caller's. A
 * position lies between elements: 1 is before element 0 and length + 1 after
 * the last; counted from the right, 0 is after the last and -length before the
 * first. Every bad argument raises AssertException. No lock.
 */
#ifndef VESK_RING_INCLUDED
#define VESK_RING_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Ring_S* Ring_T;

/* A new empty ring. */
VESK_API Ring_T Ring_new(void);

/* A new ring of the arguments up to the first NULL. */
VESK_API Ring_T Ring_ring(void* x, ...);

/* Frees the ring and its nodes, not the values; clears *ring. */
VESK_API void Ring_free(Ring_T* ring);

/* The number of elements. */
VESK_API int Ring_length(Ring_T ring);

/* Element i. */
VESK_API void* Ring_get(Ring_T ring, int i);

/* Replaces element i with x; returns the old value. */
VESK_API void* Ring_put(Ring_T ring, int i, void* x);

/* Inserts x at position pos; returns x. */
VESK_API void* Ring_add(Ring_T ring, int pos, void* x);

/* Adds x as the new element 0; returns x. */
VESK_API void* Ring_addlo(Ring_T ring, void* x);

/* Adds x after the last element; returns x. */
VESK_API void* Ring_addhi(Ring_T ring, void* x);

/* Removes element i and returns its value. */
VESK_API void* Ring_remove(Ring_T ring, int i);

/* Removes element 0 and returns its value. */
VESK_API void* Ring_remlo(Ring_T ring);

/* Removes the last element and returns its value. */
VESK_API void* Ring_remhi(Ring_T ring);

/* Rotates by n: element i moves to position i + n modulo the length; n < 0 turns it left. */
VESK_API void Ring_rotate(Ring_T ring, int n);

VESK_END_DECLS

#endif
