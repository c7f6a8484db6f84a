/*
 * Dir: one pass, or many, over the entries of a directory or of a glob pattern.
 *
 * A Dir_T hands out one shared File_T that it resets for each entry: copy what you
 * need before the next Dir_next. Entries carry full paths under the base path, which
 * ends in '/'. A directory lists "." and ".." too; a pattern lists its matches in
 * file-system order. Dir_free(&D) frees it and clears the caller's pointer. An
 * absent object raises AssertException ("D"). The process-wide functions at the
 * end never raise; they give false or NULL with errno set.
 */
#ifndef VESK_DIR_INCLUDED
#define VESK_DIR_INCLUDED

#include <sys/types.h>

#include <vesk/Export.h>
#include <vesk/File.h>

VESK_BEGIN_DECLS

typedef struct Dir_S* Dir_T;

/* The directory formatted from format, or NULL with errno set if it cannot be opened.
   Raises for an absent format or a path longer than 4095 characters. */
VESK_API Dir_T Dir_new(const char* format, ...) VESK_PRINTF(1, 2);

/* The matches of the glob pattern formatted from format, or NULL with errno set if none. */
VESK_API Dir_T Dir_glob(const char* format, ...) VESK_PRINTF(1, 2);

/* Closes and frees *D and clears it. Checks "D && *D". */
VESK_API void Dir_free(Dir_T* D);

/* The next entry as the shared File_T, owned by D, or NULL at the end. */
VESK_API File_T Dir_next(Dir_T D);

/* Starts over from the first entry. */
VESK_API void Dir_rewind(Dir_T D);

/* Calls apply(file, ap) for every entry, then rewinds. */
VESK_API void Dir_map(Dir_T D, void (*apply)(File_T file, void* ap), void* ap);

/* Entries handed out since the last rewind. */
VESK_API int Dir_pos(Dir_T D);

/* The base path, ending in '/', owned by D. */
VESK_API const char* Dir_getPath(Dir_T D);

/* The current directory written into buffer of size bytes; buffer, or NULL. */
VESK_API char* Dir_cwd(char* buffer, int size);

/* Changes the current directory; true on success. */
VESK_API int Dir_chdir(const char* path);

/* Removes an empty directory; true on success. */
VESK_API int Dir_delete(const char* path);

/* Makes a directory and, if mode is not 0, sets its permission bits to mode; true on
   success. Any failure sets errno to EINVAL. */
VESK_API int Dir_mkdir(const char* path, mode_t mode);

VESK_END_DECLS

#endif
