/*
 * OutputStream: a buffered writer over a descriptor, plain or TLS, sending its Chain
 * with gathered writes and a timeout in milliseconds (3000 at creation, 0 for no
 * waiting).
 *
 * The buffer is flushed whenever it reaches the buffer size. A stream can frame its
 * body as chunked transfer encoding, compress it with gzip, and send a mapped file with
 * no copy. Writers never raise on the network: a failed flush closes the stream for
 * good, and later writes are dropped. With a response attached, the first flush
 * commits its head, and compression asks the response first. A stream made with
 * OutputStream_alloc lives in its arena and is never freed alone. A NULL stream fails
 * the check "S".
 */
#ifndef VESK_OUTPUTSTREAM_INCLUDED
#define VESK_OUTPUTSTREAM_INCLUDED

#include <stdarg.h>

#include <vesk/Arena.h>
#include <vesk/Chain.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct OutputStream_S* OutputStream_T;
typedef struct SSL_S* SSL_T;
typedef struct FileMap_S* FileMap_T;

/* A new stream over socket, on the heap. */
VESK_API OutputStream_T OutputStream_new(int socket);
/* A new stream over socket, in arena. */
VESK_API OutputStream_T OutputStream_alloc(Arena_T arena, int socket);
/* Stops compression and frees a heap stream, dropping what was not flushed; clears *S. */
VESK_API void OutputStream_free(OutputStream_T* S);
/* Flushes whenever n bytes are buffered. */
VESK_API void OutputStream_setBufferSize(OutputStream_T S, int n);
/* The buffer size. */
VESK_API int OutputStream_getBufferSize(OutputStream_T S);
/* The write timeout in milliseconds. */
VESK_API int OutputStream_getTimeout(OutputStream_T S);
/* Sets the write timeout; checks "timeout >= 0". */
VESK_API void OutputStream_setTimeout(OutputStream_T S, int timeout);
/* True once a write failed; sticky. */
VESK_API int OutputStream_isClosed(OutputStream_T S);
/* True when the body goes out in chunks. */
VESK_API int OutputStream_isChunked(OutputStream_T S);
/* Switches chunk framing on or off. */
VESK_API void OutputStream_setChunked(OutputStream_T S, int chunked);
/* Writes through the TLS object ssl from now on (NULL: plain). */
VESK_API void OutputStream_setSSL(OutputStream_T S, SSL_T ssl);
/* What a stream asks of the response whose body it carries; each call gets the response
   given with them to OutputStream_setResponse. */
typedef struct OutputStream_Response {
        /* Writes the head and puts it in front of the body with OutputStream_commit. */
        void (*commit)(void* response);
        /* True when the client takes a gzip body. */
        int (*acceptsGzip)(void* response);
        /* Says in the head that the body is gzip. */
        void (*setGzip)(void* response);
} OutputStream_Response;

/* Attaches response with its calls, which must outlive the stream's use of them: the first
   flush commits it. NULL calls detach it, and the stream sends what it is given. */
VESK_API void OutputStream_setResponse(OutputStream_T S, const OutputStream_Response* calls,
                                       void* response);
/* Body bytes sent so far. */
VESK_API long long OutputStream_getBytesWritten(OutputStream_T S);
/* Bytes buffered and not yet sent. */
VESK_API int OutputStream_buffered(OutputStream_T S);
/* True while output is compressed. */
VESK_API int OutputStream_isCompressed(OutputStream_T S);
/* With discard set, the body is measured and dropped instead of sent, as the answer to a
   HEAD must be: only a committed head goes out, with no chunk framing, and compression is
   claimed but not run. */
VESK_API void OutputStream_setDiscard(OutputStream_T S, int discard);
/* The body bytes a discarding stream has measured since it was last cleared. */
VESK_API long long OutputStream_getDiscarded(OutputStream_T S);
/* Buffers n bytes of data; nothing for NULL data or a closed stream. */
VESK_API void OutputStream_write(OutputStream_T S, const void* data, int n);
/* Buffers formatted text; nothing for a NULL or empty format or a closed stream. */
VESK_API void OutputStream_print(OutputStream_T S, const char* format, ...) VESK_PRINTF(2, 3);
/* Buffers formatted text. */
VESK_API void OutputStream_vprint(OutputStream_T S, const char* format, va_list ap)
    VESK_PRINTF(2, 0);
/* Makes the next flush send the final chunk. */
VESK_API void OutputStream_endChunked(OutputStream_T S);
/* Puts the response head held in headers in front of the buffered body. */
VESK_API void OutputStream_commit(OutputStream_T S, Chain_T headers);
/* Drops what is buffered and resets the byte count. */
VESK_API void OutputStream_clear(OutputStream_T S);
/* Sends what is buffered; the bytes written, 0 when the socket took nothing in time,
   or -1 when the stream is closed. */
VESK_API int OutputStream_flush(OutputStream_T S);
/* Compresses the body from now on at level 0 to 9; true when compressing. With a response
   attached, only while its head is not out and its client takes gzip, which its head then
   says; otherwise nothing changes and the result is false. */
VESK_API int OutputStream_startCompress(OutputStream_T S, int level);
/* Ends compression, if on. */
VESK_API void OutputStream_stopCompress(OutputStream_T S);
/* Ends the body: ends compression, if on. */
VESK_API void OutputStream_end(OutputStream_T S);
/* Queues the bytes of a mapped file for sending, with no copy but through TLS, which reads
   them through a buffer of its record size. map must stay held while the stream sends it.
   A file that shrank under its mapping fails the write, and the mapping leaves the cache. */
VESK_API void OutputStream_setFileMap(OutputStream_T S, FileMap_T map);

VESK_END_DECLS

#endif
