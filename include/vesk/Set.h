/*
 * Set: a hash set of untyped references with the set algebra.
 *
 * Comparison and hash are the caller's: cmp returns 0 for equal members. The
 * set copies nothing; members stay the caller's. The number of buckets is
 * chosen from the size hint once and never changes; the smallest set has 127.
 *
 * A set lives on the heap (Set_new) or in an arena (Set_alloc); an arena set is
 * never freed alone and Set_free refuses it. Set_map stops with AssertException
 * "S->timestamp == stamp" when the set changes during the walk; Set_rewind and
 * Set_next walk a set that may lose members on the way.
 *
 * The algebra returns a new set and leaves its operands alone. Either operand
 * may be NULL, not both; two sets must share cmp, hash and arena. The result
 * lives where its operands live. Absent handles fail the check "S".
 */
#ifndef VESK_SET_INCLUDED
#define VESK_SET_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Set_S* Set_T;

/* A new heap set for about hint members; free it with Set_free. */
VESK_API Set_T Set_new(int hint, int (*cmp)(const void* x, const void* y),
                       unsigned int (*hash)(const void* x));

/* A new set in arena, or on the heap if arena is NULL. */
VESK_API Set_T Set_alloc(Arena_T arena, int hint, int (*cmp)(const void* x, const void* y),
                         unsigned int (*hash)(const void* x));

/* Frees a heap set and clears *S; the members stay the caller's. */
VESK_API void Set_free(Set_T* S);

/* Adds member; an equal member already there is replaced by this reference. */
VESK_API void Set_put(Set_T S, const void* member);

/* True if a member equal to member is in the set. */
VESK_API int Set_member(Set_T S, const void* member);

/* Removes the member equal to member and returns the stored reference, or NULL. */
VESK_API void* Set_remove(Set_T S, const void* member);

/* The number of members. */
VESK_API int Set_length(Set_T S);

/* Calls apply(member, cl) for each member. */
VESK_API void Set_map(Set_T S, void (*apply)(const void* member, void* cl), void* cl);

/* Starts a walk with Set_next. */
VESK_API void Set_rewind(Set_T S);

/* The next member of the walk, or NULL at the end. One walk per set at a time. */
VESK_API void* Set_next(Set_T S);

/* A new set of the members of s or t. */
VESK_API Set_T Set_union(Set_T s, Set_T t);

/* A new set of the members of both s and t. */
VESK_API Set_T Set_inter(Set_T s, Set_T t);

/* A new set of the members of t that are not in s. */
VESK_API Set_T Set_minus(Set_T t, Set_T s);

/* A new set of the members of exactly one of s and t. */
VESK_API Set_T Set_diff(Set_T s, Set_T t);

VESK_END_DECLS

#endif
