/*
 * Table: a hash table from untyped keys to untyped values.
 *
 * Comparison and hash are the caller's: cmp returns 0 for equal keys. Text keys
 * use Str_cmp and Str_hash, which respect case. The table copies nothing; keys
 * and values stay the caller's and must outlive their bindings. The number of
 * buckets is chosen from the size hint once and never changes.
 *
 * A table lives on the heap (Table_new) or in an arena (Table_alloc); an arena
 * table is never freed alone and Table_free refuses it. Removed bindings are
 * kept for reuse. Table_map stops with AssertException "H->timestamp == stamp"
 * when the table changes during the walk; Table_rewind and Table_next walk a
 * table that may lose bindings on the way. Absent handles fail the check "H".
 */
#ifndef VESK_TABLE_INCLUDED
#define VESK_TABLE_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Table_S* Table_T;

/* A new heap table for about hint bindings; free it with Table_free. */
VESK_API Table_T Table_new(int hint, int (*cmp)(const void* x, const void* y),
                           unsigned int (*hash)(const void* key));

/* A new table in arena, or on the heap if arena is NULL. */
VESK_API Table_T Table_alloc(Arena_T arena, int hint, int (*cmp)(const void* x, const void* y),
                             unsigned int (*hash)(const void* key));

/* Frees a heap table and its bindings and clears *H; keys and values stay the caller's. */
VESK_API void Table_free(Table_T* H);

/* Binds key to value and returns the value it replaced, or NULL for a new key. A replaced
   binding keeps its first key. */
VESK_API void* Table_put(Table_T H, const void* key, void* value);

/* The value bound to key, or NULL. */
VESK_API void* Table_get(Table_T H, const void* key);

/* True if key has a binding; a NULL key gives false. */
VESK_API int Table_has(Table_T H, const void* key);

/* Removes the binding of key and returns its value, or NULL. */
VESK_API void* Table_remove(Table_T H, const void* key);

/* The number of bindings. */
VESK_API int Table_length(Table_T H);

/* Calls apply(key, &value, cl) for each binding; apply may change the value in its slot. */
VESK_API void Table_map(Table_T H, void (*apply)(const void* key, void** value, void* cl),
                        void* cl);

/* Starts a walk with Table_next. */
VESK_API void Table_rewind(Table_T H);

/* The next value of the walk, or NULL at the end. One walk per table at a time. */
VESK_API void* Table_next(Table_T H);

/* A new array of the keys closed by NULL, in the table's arena or on the heap; a heap array is
   freed with Mem_free. */
VESK_API void** Table_keys(Table_T H);

/* A new array of key, value, key, value, ... closed by one NULL, allocated as Table_keys. */
VESK_API void** Table_toArray(Table_T H);

VESK_END_DECLS

#endif
