/*
 * Map: a case-insensitive multimap of texts, for headers and parameters.
 *
 * Each key has a list of values, newest first, and may have none. Keys are
 * compared ignoring case; the text of the first key put is kept. The map copies
 * nothing: keys and values stay the caller's. Keys are kept in a list, newest
 * first, which gives the order of every walk; a map of more than a few keys also
 * indexes them by a hash with a per-process key, so that look-up and put take the
 * same time with ten thousand keys as with ten.
 *
 * A map lives on the heap (Map_new) or in an arena (Map_alloc); an arena map is
 * never freed alone and Map_free refuses it. Absent keys are ignored by adding
 * operations and found nowhere by queries. Map_map stops with AssertException
 * "M->timestamp == stamp" when the map changes during the walk. Absent handles
 * fail the check "M".
 */
#ifndef VESK_MAP_INCLUDED
#define VESK_MAP_INCLUDED

#include <stdarg.h>

#include <vesk/Arena.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Map_S* Map_T;

/* A new empty map on the heap; free it with Map_free. */
VESK_API Map_T Map_new(void);

/* A new empty map in arena, which must be present. */
VESK_API Map_T Map_alloc(Arena_T arena);

/* Frees a heap map and its nodes and clears *M; keys and values stay the caller's. */
VESK_API void Map_free(Map_T* M);

/* Adds value to key, making the key if needed; a NULL value makes only the key. */
VESK_API void Map_put(Map_T M, const char* key, const char* value);

/* Replaces all values of key by value, or by none if value is NULL. */
VESK_API void Map_set(Map_T M, const char* key, const char* value);

/* The value of key put last, or NULL. */
VESK_API const char* Map_get(Map_T M, const char* key);

/* Map_get for the key formed by fmt and ap, cut at 255 characters. */
VESK_API const char* Map_vget(Map_T M, const char* fmt, va_list ap) VESK_PRINTF(2, 0);

/* A new array of all values of key, newest first, closed by NULL; NULL for an unknown key.
   Allocated in the map's arena, or on the heap and then freed with Mem_free. */
VESK_API const char** Map_gets(Map_T M, const char* key);

/* Map_gets for the key formed by fmt and ap, cut at 255 characters. */
VESK_API const char** Map_vgets(Map_T M, const char* fmt, va_list ap) VESK_PRINTF(2, 0);

/* True if key exists, with or without values. */
VESK_API int Map_has(Map_T M, const char* key);

/* True if a value of key contains value, ignoring case: "gzip" is in "GZIP, deflate". */
VESK_API int Map_hasValue(Map_T M, const char* key, const char* value);

/* Removes key and all its values. */
VESK_API void Map_remove(Map_T M, const char* key);

/* Removes all keys. */
VESK_API void Map_clear(Map_T M);

/* The number of keys, not of values. */
VESK_API int Map_length(Map_T M);

/* The number of values of all keys. */
VESK_API int Map_count(Map_T M);

/* A new array of the keys, newest first, closed by NULL; allocated as Map_gets. */
VESK_API const char** Map_keys(Map_T M);

/* A new array of the values of all keys, key by key, closed by NULL; allocated as Map_gets. */
VESK_API const char** Map_values(Map_T M);

/* Calls apply(key, value, cl) for each value of each key, and apply(key, NULL, cl) for a key
   without values. */
VESK_API void Map_map(Map_T M, void (*apply)(const char* key, const char* value, void* cl),
                      void* cl);

/* Prints the map to standard output, for debugging. */
VESK_API void Map_list(Map_T M);

VESK_END_DECLS

#endif
