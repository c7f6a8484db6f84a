/*
 * FileOutputStream: a buffered writer that appends to a file, optionally gzip
 * compressed.
 *
 * Output always goes after what the file holds. FileOutputStream_new gives NULL
 * when the file cannot be opened (see File_getLastError); every later failure
 * raises IOException with the system's error text. FileOutputStream_free closes
 * the file unless it was closed already. An absent stream raises AssertException
 * ("S").
 */
#ifndef VESK_FILEOUTPUTSTREAM_INCLUDED
#define VESK_FILEOUTPUTSTREAM_INCLUDED

#include <stdarg.h>
#include <sys/types.h>

#include <vesk/Export.h>
#include <vesk/File.h>

VESK_BEGIN_DECLS

typedef struct FileOutputStream_S* FileOutputStream_T;

/* A stream appending to file, created if missing, or NULL if it cannot be opened. */
VESK_API FileOutputStream_T FileOutputStream_new(File_T file);

/* Closes the stream if still open, frees *S and clears it. Checks "S && *S". */
VESK_API void FileOutputStream_free(FileOutputStream_T* S);

/* Ends compression, writes out what is buffered and closes the file. */
VESK_API void FileOutputStream_close(FileOutputStream_T S);

/* Buffers size bytes of data; nothing for NULL data or a size below 1. */
VESK_API void FileOutputStream_write(FileOutputStream_T S, const void* data, int size);

/* Buffers formatted text; nothing for a NULL or empty format. */
VESK_API void FileOutputStream_print(FileOutputStream_T S, const char* format, ...)
    VESK_PRINTF(2, 3);
VESK_API void FileOutputStream_vprint(FileOutputStream_T S, const char* format, va_list ap)
    VESK_PRINTF(2, 0);

/* Writes out what is buffered; the bytes written. */
VESK_API int FileOutputStream_flush(FileOutputStream_T S);

/* Writes out what is buffered; the file's size. */
VESK_API off_t FileOutputStream_size(FileOutputStream_T S);

/* True once writing failed. */
VESK_API int FileOutputStream_isClosed(FileOutputStream_T S);

/* The write timeout in milliseconds. */
VESK_API int FileOutputStream_getTimeout(FileOutputStream_T S);

/* Sets the write timeout; checks "timeout >= 0". */
VESK_API void FileOutputStream_setTimeout(FileOutputStream_T S, int timeout);

/* True while output is compressed. */
VESK_API int FileOutputStream_isCompressed(FileOutputStream_T S);

/* Bytes buffered before they are written out; 4096 at creation. */
VESK_API int FileOutputStream_getBufferSize(FileOutputStream_T S);
VESK_API void FileOutputStream_setBufferSize(FileOutputStream_T S, int size);

/* Compresses all further output with gzip at level 0 to 9. Raises IOException if the file
   is not empty, since compressed output cannot be appended. */
VESK_API void FileOutputStream_startCompress(FileOutputStream_T S, int level);

VESK_END_DECLS

#endif
