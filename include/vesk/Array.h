/*
 * Array: a dynamic array of fixed-size elements, indexed from 0.
 *
 * Array_T is an opaque handle on the heap; Array_free(&array) frees it and its
 * elements and clears the caller's reference. Elements are copied in and out
 * by value, `size` bytes each. Every bad argument raises AssertException with
 * the text of the failed check. No lock: the owner guards the array.
 */
#ifndef VESK_ARRAY_INCLUDED
#define VESK_ARRAY_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Array_S* Array_T;

/* A new array of `length` zeroed elements of `size` bytes; a length of 0 holds no memory. */
VESK_API Array_T Array_new(int length, int size);

/* Frees the array and its elements; clears *array. */
VESK_API void Array_free(Array_T* array);

/* The number of elements. */
VESK_API int Array_length(Array_T array);

/* The bytes in one element. */
VESK_API int Array_size(Array_T array);

/* A pointer to element i, valid until the array is resized or freed. */
VESK_API void* Array_get(Array_T array, int i);

/* Copies `size` bytes from elem into element i; returns elem. */
VESK_API void* Array_put(Array_T array, int i, void* elem);

/* Changes the number of elements; new elements are zeroed, 0 frees them all. */
VESK_API void Array_resize(Array_T array, int length);

/* A new array of `length` elements holding the first elements of array that fit. */
VESK_API Array_T Array_copy(Array_T array, int length);

VESK_END_DECLS

#endif
