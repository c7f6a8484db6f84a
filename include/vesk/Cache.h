/*
 * Cache: a keyed table whose entries are checked out by one thread at a time.
 *
 * Cache_get returns an entry checked out: the caller has it alone until Cache_return,
 * while the rest of the table stays free for other threads. The entry's first field is
 * the value, so the returned pointer reads (and may replace) it: void* v = *entry.
 * Keys and values stay the caller's; the cache copies and frees neither. Cache_free(&C)
 * frees the entries and the table and clears the caller's pointer. An absent cache,
 * key or entry raises AssertException.
 */
#ifndef VESK_CACHE_INCLUDED
#define VESK_CACHE_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Cache_S* Cache_T;

/* A new cache for about hint keys, compared with cmp and hashed with hash. */
VESK_API Cache_T Cache_new(int hint, int (*cmp)(const void* x, const void* y),
                           unsigned int (*hash)(const void* key));

/* Frees the entries and the table, not the values, and clears *C. Checks "C && *C". */
VESK_API void Cache_free(Cache_T* C);

/* Binds key to value; returns the value replaced, or NULL for a new key. Waits while
   another thread has the key's entry checked out. */
VESK_API void* Cache_put(Cache_T C, const void* key, void* value);

/* The entry of key, checked out (waiting while another thread has it), or NULL. */
VESK_API void** Cache_get(Cache_T C, const void* key);

/* Ends the check-out of an entry from Cache_get. */
VESK_API void Cache_return(Cache_T C, void** c);

/* Removes key and returns its value, or NULL; waits until no thread has the entry. */
VESK_API void* Cache_remove(Cache_T C, const void* key);

/* True if key is bound; an absent key gives false. */
VESK_API int Cache_has(Cache_T C, const void* key);

/* The number of keys, read without a lock. */
VESK_API int Cache_size(Cache_T C);

/* Calls apply(key, value, ap) for each entry once no entry is checked out; check-outs wait
   until it is done. */
VESK_API void Cache_map(Cache_T C, void (*apply)(const void* key, void* value, void* ap), void* ap);

VESK_END_DECLS

#endif
