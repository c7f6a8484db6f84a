/*
 * Bit: a set of unsigned 32-bit integers, with the set algebra.
 *
 * Bit_T is an opaque handle on the heap; Bit_free(&B) frees it and clears the
 * caller's reference. The algebra returns a new set that the caller frees and
 * leaves its operands alone; it accepts one absent operand (an empty set) but
 * not two. A set has no lock: its owner guards it. Memory failure raises
 * MemoryException with the name of the failing Judy call as the message.
 */
#ifndef VESK_BIT_INCLUDED
#define VESK_BIT_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Bit_S* Bit_T;

/* A new empty set. */
VESK_API Bit_T Bit_new(void);

/* Frees the set and clears *B. Checks "B && *B". */
VESK_API void Bit_free(Bit_T* B);

/* Adds n; returns 1 if it was new, 0 if it was there already. */
VESK_API int Bit_put(Bit_T B, unsigned int n);

/* Removes n; returns 1 if it was a member, 0 if not. */
VESK_API int Bit_remove(Bit_T B, unsigned int n);

/* True (1) if n is a member. */
VESK_API int Bit_member(Bit_T B, unsigned int n);

/* The number of members. */
VESK_API long long Bit_length(Bit_T B);

/* Removes every member. */
VESK_API void Bit_clear(Bit_T B);

/* Calls apply(n, cl) for each member in rising order. The set must not change meanwhile. */
VESK_API void Bit_map(Bit_T B, void (*apply)(unsigned int n, void* cl), void* cl);

/* Calls apply(n, cl) for each member in falling order. */
VESK_API void Bit_rmap(Bit_T B, void (*apply)(unsigned int n, void* cl), void* cl);

/* Starts a new walk with Bit_next. */
VESK_API void Bit_rewind(Bit_T B);

/* The next member in rising order, or -1 at the end. */
VESK_API long long Bit_next(Bit_T B);

/* True if s and t are the same set or hold the same members; false if only one is absent. */
VESK_API int Bit_eq(Bit_T s, Bit_T t);

/* True if s is a proper subset of t; an absent s is the empty set. Checks "t" if both are absent.
 */
VESK_API int Bit_lt(Bit_T s, Bit_T t);

/* A new set of the members of s or t. */
VESK_API Bit_T Bit_union(Bit_T s, Bit_T t);

/* A new set of the members of both s and t. */
VESK_API Bit_T Bit_inter(Bit_T s, Bit_T t);

/* A new set of the members of s that are not in t. */
VESK_API Bit_T Bit_minus(Bit_T s, Bit_T t);

/* A new set of the members in exactly one of s and t. */
VESK_API Bit_T Bit_diff(Bit_T s, Bit_T t);

VESK_END_DECLS

#endif
