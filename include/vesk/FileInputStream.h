/*
 * FileInputStream: a buffered reader over a file, with a position and seeking.
 *
 * FileInputStream_new gives NULL when the file cannot be opened (see
 * File_getLastError); every later failure raises IOException with the system's
 * error text. The stream owns its descriptor: FileInputStream_free closes it, so
 * a stream already closed with FileInputStream_close raises when freed (it is
 * freed all the same). An absent stream raises AssertException ("S").
 */
#ifndef VESK_FILEINPUTSTREAM_INCLUDED
#define VESK_FILEINPUTSTREAM_INCLUDED

#include <sys/types.h>

#include <vesk/Export.h>
#include <vesk/File.h>

VESK_BEGIN_DECLS

typedef struct FileInputStream_S* FileInputStream_T;

/* A stream reading file from its start, or NULL if it cannot be opened. */
VESK_API FileInputStream_T FileInputStream_new(File_T file);

/* Closes the file and frees *S; clears *S. Checks "S && *S". */
VESK_API void FileInputStream_free(FileInputStream_T* S);

/* Closes the file. */
VESK_API void FileInputStream_close(FileInputStream_T S);

/* The next byte as 0 to 255, or -1 at the end of the file. */
VESK_API int FileInputStream_read(FileInputStream_T S);

/* Reads up to size bytes into buffer; the count, 0 at the end of the file. */
VESK_API int FileInputStream_readBytes(FileInputStream_T S, void* buffer, int size);

/* Reads a line up to and including LF, at most size - 1 bytes, into buffer and
   terminates it; buffer, or NULL at the end of the file. */
VESK_API char* FileInputStream_readLine(FileInputStream_T S, char* buffer, int size);

/* True once reading failed. */
VESK_API int FileInputStream_isClosed(FileInputStream_T S);

/* The read timeout in milliseconds. */
VESK_API int FileInputStream_getTimeout(FileInputStream_T S);

/* Sets the read timeout; checks "timeout >= 0". */
VESK_API void FileInputStream_setTimeout(FileInputStream_T S, int timeout);

/* The descriptor's offset, which runs ahead of the bytes handed out by what is buffered. */
VESK_API off_t FileInputStream_pos(FileInputStream_T S);

/* Forgets what is buffered and goes back to the start; true on success. */
VESK_API int FileInputStream_rewind(FileInputStream_T S);

/* Forgets what is buffered and moves to offset from the current position (whence 'c'), the
   start ('a') or the end ('e'), never past the end; the new position, or -1 with errno set. */
VESK_API off_t FileInputStream_seek(FileInputStream_T S, off_t offset, int whence);

VESK_END_DECLS

#endif
