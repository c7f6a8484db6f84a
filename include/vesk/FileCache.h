/*
 * FileCache: the process-wide store of memory-mapped files.
 *
 * A file is mapped once and shared by everyone who sends it; each file may be held in a
 * plain and in a gzip-compressed form at once. FileCache_get hands out a FileMap_T
 * (File.h) with one more reference, which the holder gives back with FileCache_return
 * and must not touch afterwards. The cache keeps the total mapped size within its limit
 * by dropping mappings that no one holds; a mapping in use is never dropped. The cache
 * does not notice a file that changed on disk: a holder who finds the mapping stale
 * (FileMap_isCurrent) takes it out with FileCache_discard, so that the next
 * FileCache_get maps the file afresh, or marks it with FileMap_purge, so that the last
 * holder's return drops it. An absent cache or mapping raises AssertException.
 */
#ifndef VESK_FILECACHE_INCLUDED
#define VESK_FILECACHE_INCLUDED

#include <stdint.h>

#include <vesk/Export.h>
#include <vesk/File.h>

VESK_BEGIN_DECLS

typedef struct FileCache_S* FileCache_T;

/* The one cache of the process, made on first use. */
VESK_API FileCache_T FileCache_getInstance(void);

/* Unmaps everything, whoever still holds it, and frees the cache; nothing without one. */
VESK_API void FileCache_free(void);

/* The mapping of path, gzip-compressed if compress is 1, with one more reference; NULL if
   it cannot be mapped (logged, errno set as by File_map). */
VESK_API FileMap_T FileCache_get(FileCache_T F, int compress, const char* path);

/* Gives back one reference to map. */
VESK_API void FileCache_return(FileCache_T F, FileMap_T map);

/* Sets the limit in bytes: 0 keeps nothing beyond its holders, anything else is at least
   1024000. Checks "size >= 0". */
VESK_API void FileCache_setMaxSize(FileCache_T F, int64_t size);

/* The limit in bytes. */
VESK_API int64_t FileCache_getMaxSize(FileCache_T F);

/* Bytes now mapped by the cache. */
VESK_API int64_t FileCache_size(FileCache_T F);

/* Mappings now held by the cache. */
VESK_API int FileCache_files(FileCache_T F);

/* Takes a held mapping out of the cache at once: the next FileCache_get of its path maps
   the file afresh, while the holders of map go on reading it until the last one returns
   it, which unmaps it. For a mapping whose file changed, or that could not be read. */
VESK_API void FileCache_discard(FileCache_T F, FileMap_T map);

/* Marks a held mapping as stale: it is dropped when its last holder returns it. */
VESK_API void FileMap_purge(FileMap_T M);

/* True if M is marked to be dropped. */
VESK_API int FileMap_isPurged(FileMap_T M);

/* The holders of M now. */
VESK_API int FileMap_getRefcount(FileMap_T M);

VESK_END_DECLS

#endif
