/*
 * Arena: a region allocator for objects that die together.
 *
 * Memory comes from large chunks; nothing is freed one by one. Arena_free
 * releases everything at once and keeps the handle for reuse; Arena_dispose
 * also frees the handle and clears the caller's reference. Chunks given back
 * are kept on a per-thread list of at most ten, so a warm thread allocates
 * without calling the heap. An arena has no lock: one thread at a time.
 * Allocation failure raises MemoryException naming the caller's site.
 */
#ifndef VESK_ARENA_INCLUDED
#define VESK_ARENA_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Arena_S* Arena_T;

/* Creates the per-thread free-chunk key, once per process; call first of all. */
VESK_API void Arena_init(void);

/* A new empty arena on the heap. */
VESK_API Arena_T Arena_new(void);

/* Frees all chunks and the handle; clears *A. Checks "A && *A". */
VESK_API void Arena_dispose(Arena_T* A);

/* nbytes of aligned, uninitialised memory owned by A. */
VESK_API void* Arena_alloc(Arena_T A, int nbytes, const char* func, const char* file, int line);

/* count * nbytes of zeroed memory owned by A. */
VESK_API void* Arena_calloc(Arena_T A, int count, int nbytes, const char* func, const char* file,
                            int line);

/* Releases everything A holds; A can be used again. */
VESK_API void Arena_free(Arena_T A);

#define ARENA_ALLOC(A, nbytes) Arena_alloc((A), (nbytes), __func__, __FILE__, __LINE__)
#define ARENA_CALLOC(A, count, nbytes) \
        Arena_calloc((A), (count), (nbytes), __func__, __FILE__, __LINE__)

VESK_END_DECLS

#endif
