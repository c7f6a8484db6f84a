/*
 * Vector: a growable array of untyped references, on the heap.
 *
 * The vector holds references only; what they refer to stays the caller's.
 * Indexes run from 0; an index out of range raises AssertException "Index out
 * of bounds". Vector_map stops with AssertException "V->timestamp == stamp"
 * when the vector changes during the walk. Absent handles fail the check "V".
 */
#ifndef VESK_VECTOR_INCLUDED
#define VESK_VECTOR_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Vector_S* Vector_T;

/* A new empty vector with room for hint elements, or 16 if hint is 0; free it with Vector_free. */
VESK_API Vector_T Vector_new(int hint);

/* Frees the vector and clears *V; the elements stay the caller's. */
VESK_API void Vector_free(Vector_T* V);

/* Adds e at the end. */
VESK_API void Vector_push(Vector_T V, void* e);

/* Adds e at index i, 0 to length, moving later elements up. */
VESK_API void Vector_insert(Vector_T V, int i, void* e);

/* Replaces the element at i and returns the old one. */
VESK_API void* Vector_set(Vector_T V, int i, void* e);

/* The element at i. */
VESK_API void* Vector_get(Vector_T V, int i);

/* Removes and returns the element at i, moving later elements down. */
VESK_API void* Vector_remove(Vector_T V, int i);

/* Removes and returns the last element; an empty vector raises "Vector is empty". */
VESK_API void* Vector_pop(Vector_T V);

/* Removes all elements and keeps the capacity. */
VESK_API void Vector_clear(Vector_T V);

/* The number of elements. */
VESK_API int Vector_size(Vector_T V);

/* True if the vector has no elements. */
VESK_API int Vector_isEmpty(Vector_T V);

/* Calls apply(e, cl) for each element from index 0. */
VESK_API void Vector_map(Vector_T V, void (*apply)(void* e, void* cl), void* cl);

/* A new heap array of the elements and then one entry holding end; free it with Mem_free. */
VESK_API void** Vector_toArray(Vector_T V, void* end);

VESK_END_DECLS

#endif
