/*
 * Mem: the process heap, raising instead of returning NULL.
 *
 * Each operation takes the caller's function, file and line so that a
 * MemoryException names the site that asked for memory. The macros below fill
 * them in. Sizes below 1 fail the checks "nbytes > 0" and "count > 0".
 */
#ifndef VESK_MEM_INCLUDED
#define VESK_MEM_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* A new heap block of nbytes; the caller frees it with Mem_free. */
VESK_API void* Mem_alloc(int nbytes, const char* func, const char* file, int line);

/* A new zeroed heap block of count * nbytes. */
VESK_API void* Mem_calloc(int count, int nbytes, const char* func, const char* file, int line);

/* Resizes ptr to nbytes and returns the block; on failure the old block stays valid. */
VESK_API void* Mem_resize(void* ptr, int nbytes, const char* func, const char* file, int line);

/* Frees ptr; NULL is a no-op. */
VESK_API void Mem_free(void* ptr, const char* func, const char* file, int line);

#define ALLOC(nbytes) Mem_alloc((nbytes), __func__, __FILE__, __LINE__)
#define CALLOC(count, nbytes) Mem_calloc((count), (nbytes), __func__, __FILE__, __LINE__)
#define RESIZE(ptr, nbytes) \
        ((ptr) = (__typeof__(ptr))Mem_resize((ptr), (nbytes), __func__, __FILE__, __LINE__))
#define NEW(p) ((p) = (__typeof__(p))ALLOC((int)sizeof *(p)))
#define NEW0(p) ((p) = (__typeof__(p))CALLOC(1, (int)sizeof *(p)))
#define FREE(ptr) ((void)(Mem_free((ptr), __func__, __FILE__, __LINE__), (ptr) = 0))

VESK_END_DECLS

#endif
