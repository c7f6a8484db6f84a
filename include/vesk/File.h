/*
 * File: the file system, as functions on paths and descriptors and as a small object.
 *
 * A File_T holds one path with the result of its last stat, a digest text and an
 * ETag text. File_new never fails for a missing file: the object then reports
 * that it does not exist, and its getters give -1 or '?'. File_free(&F) frees it
 * and clears the caller's pointer. Text handed out by a File_T stays the
 * object's. An absent object raises AssertException ("F").
 *
 * Functions on a path never raise: an absent path or a failing system call gives
 * the stated failure value, with errno set. Times are seconds since the epoch, as
 * stat gives them. Text functions that take a non-const path change it in place.
 *
 * File_map maps the file into memory, plain or gzip-compressed, and hands out the
 * mapping as a FileMap_T that belongs to the File: it lives until the File is unmapped,
 * updated, reset or freed. Shared mappings come from FileCache (FileCache.h).
 */
#ifndef VESK_FILE_INCLUDED
#define VESK_FILE_INCLUDED

#include <sys/types.h>
#include <time.h>

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct File_S* File_T;
typedef struct FileMap_S* FileMap_T;
struct stat;

/* An object for the path formatted from format; raises if format is absent. */
VESK_API File_T File_new(const char* format, ...) VESK_PRINTF(1, 2);

/* Points F at a new path, unmaps it, stats it again and forgets its ETag; returns F. */
VESK_API File_T File_reset(File_T F, const char* format, ...) VESK_PRINTF(2, 3);

/* Unmaps F, forgets its ETag and stats its path again; returns F. */
VESK_API File_T File_update(File_T F);

/* Unmaps and frees *F and clears it. Checks "F && *F". */
VESK_API void File_free(File_T* F);

/* The path, owned by F. */
VESK_API const char* File_getPath(File_T F);

/* True if the last stat found the file. */
VESK_API int File_exist(File_T F);

/* Size in bytes, or -1 if the file does not exist. */
VESK_API off_t File_getSize(File_T F);

/* Modification, status change and access times, or -1. */
VESK_API time_t File_getMtime(File_T F);
VESK_API time_t File_getCtime(File_T F);
VESK_API time_t File_getAtime(File_T F);

/* The stat mode bits, or -1. */
VESK_API int File_getMod(File_T F);

/* Sets the permission bits of the file; false if it does not exist or chmod fails. */
VESK_API int File_setMod(File_T F, mode_t mode);

/* 1 for a regular file, 0 for anything else, -1 if the file does not exist. */
VESK_API int File_isaFile(File_T F);

/* 'b', 'p', 'c', 'd', 'r', 'l' or 's' by file type; '?' for other or none. */
VESK_API char File_getType(File_T F);

/* Digest of the file's content by algorithm as text owned by F (at F's own address), or NULL
   with errno set: ENOENT if the file does not exist, EINVAL if it cannot be digested. */
VESK_API const char* File_md(File_T F, const char* algorithm);

/* The ETag text "\"mtime-size\"", owned by F; empty if the file does not exist. */
VESK_API const char* File_etag(File_T F);

/* Maps F by mode: "r" read-only, "r+" writable and shared with the file, "rz" a
   gzip-compressed copy. The mapping, or NULL with errno set: ENOENT for a missing file,
   ENODATA for an empty one, EINVAL for a bad mode or no regular file, EFBIG for one too
   large, EIO if compressing failed. An existing mapping is returned as it is. */
VESK_API FileMap_T File_map(File_T F, const char* mode);

/* Unmaps F; true on success or when nothing is mapped. */
VESK_API int File_unmap(File_T F);

/* The File that owns the mapping M. */
VESK_API File_T FileMap_getFile(FileMap_T M);

/* The first mapped byte. */
VESK_API void* FileMap_getAddress(FileMap_T M);

/* Bytes mapped: the compressed size for a compressed mapping. */
VESK_API int FileMap_getSize(FileMap_T M);

/* Time_gmt of the file's modification time when it was mapped. */
VESK_API time_t FileMap_getMtime(FileMap_T M);

/* True for a gzip-compressed mapping. */
VESK_API int FileMap_isCompressed(FileMap_T M);

/* True if M was mapped from the file that st (from stat or lstat) describes: the same
   file, size, modification and status change time. False once the file was replaced or
   written since, when M holds bytes that the file no longer has. Checks "st". */
VESK_API int FileMap_isCurrent(FileMap_T M, const struct stat* st);

/* st_size of path, or -1. */
VESK_API off_t File_size(const char* path);

/* Modification, status change and access times of path, or -1. */
VESK_API time_t File_mtime(const char* path);
VESK_API time_t File_ctime(const char* path);
VESK_API time_t File_atime(const char* path);

/* st_mode of path, or -1. */
VESK_API int File_mod(const char* path);

/* The type character of path, as File_getType; '?' on failure. */
VESK_API char File_type(const char* path);

/* True for a regular file (links followed). */
VESK_API int File_isFile(const char* path);

/* True for a directory (links followed). */
VESK_API int File_isDirectory(const char* path);

/* True if stat finds path. */
VESK_API int File_existFile(const char* path);

/* True if the process may read, write or execute path. */
VESK_API int File_isReadable(const char* path);
VESK_API int File_isWritable(const char* path);
VESK_API int File_isExecutable(const char* path);

/* Removes a file or an empty directory; true on success. */
VESK_API int File_delete(const char* path);

/* Renames from to to; true on success. */
VESK_API int File_rename(const char* from, const char* to);

/* Sets the permission bits of path; true on success. */
VESK_API int File_chmod(const char* path, mode_t mode);

/* The absolute path without links, "." or ".." written into result, which needs 4097 bytes;
   returns result, or NULL. */
VESK_API char* File_getRealPath(const char* path, char* result);

/* True if path starts with '/'. */
VESK_API int File_isPathAbsolute(const char* path);

/* The text after the last '.' of path, pointing into path, or NULL if there is none. */
VESK_API const char* File_extension(const char* path);

/* The text after the last '/' of path, pointing into path, or path itself. */
VESK_API const char* File_basename(const char* path);

/* Cuts path after its last '/', or makes it "." if it has none; returns path. An empty path
   stays as it is. */
VESK_API char* File_dirname(char* path);

/* Turns path into its base name without extension (at most 255 bytes); returns path, or NULL
   for an absent or empty path. */
VESK_API char* File_noExtension(char* path);

/* Cuts trailing white space and '/' from path, but never its first character; returns path. */
VESK_API char* File_removeTrailingSeparator(char* path);

/* Opens path non-blocking by mode "r", "r+", "w", "w+", "a" or "a+" (later characters
   ignored); new files get 0666 less the umask. A descriptor, or -1 with errno set. */
VESK_API int File_open(const char* path, const char* mode);

/* Closes fd, retrying when interrupted; true on success. */
VESK_API int File_close(int fd);

/* True when fd can be read, or written, within timeout milliseconds. */
VESK_API int File_canRead(int fd, int timeout);
VESK_API int File_canWrite(int fd, int timeout);

/* The process's file mode creation mask. */
VESK_API mode_t File_umask(void);

/* Sets the process's mask; returns the previous one. */
VESK_API mode_t File_setUmask(mode_t mask);

/* The text of errno. */
VESK_API const char* File_getLastError(void);

VESK_END_DECLS

#endif
