/*
 * LRU: a map from text keys to values that remembers the order of use.
 *
 * Keys are compared with Str_cmp, so case matters. Neither keys nor values are
 * copied: both stay the caller's and a key must outlive its entry. There is no
 * built-in capacity; the owner decides when to drop the eldest entry. Only
 * LRU_get counts as a use: LRU_put on a present key keeps its place. A walk with
 * LRU_rewind and LRU_next runs from the eldest entry to the most recently used.
 * Absent handles fail the check "L".
 */
#ifndef VESK_LRU_INCLUDED
#define VESK_LRU_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct LRU_S* LRU_T;

/* A new empty cache on the heap for about hint entries; free it with LRU_free. */
VESK_API LRU_T LRU_new(int hint);

/* Frees the cache and clears *L; keys and values stay the caller's. */
VESK_API void LRU_free(LRU_T* L);

/* Binds key to value and returns the value it replaced, or NULL for a new key, which becomes the
   most recently used. */
VESK_API void* LRU_put(LRU_T L, const char* key, void* value);

/* The value of key, or NULL; a found entry becomes the most recently used. */
VESK_API void* LRU_get(LRU_T L, const char* key);

/* Removes key and returns its value, or NULL. */
VESK_API void* LRU_remove(LRU_T L, const char* key);

/* Removes the least recently used entry and returns its value, or NULL if there is none. */
VESK_API void* LRU_removeEldest(LRU_T L);

/* The number of entries. */
VESK_API int LRU_length(LRU_T L);

/* Starts a walk with LRU_next. */
VESK_API void LRU_rewind(LRU_T L);

/* The next value of the walk, eldest first, or NULL at the end. */
VESK_API void* LRU_next(LRU_T L);

VESK_END_DECLS

#endif
