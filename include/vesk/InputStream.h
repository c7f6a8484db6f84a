/*
 * InputStream: a buffered reader over a descriptor, plain or TLS, with a timeout in
 * milliseconds (3000 at creation, 0 for no waiting) and optional decoding of chunked
 * transfer encoding.
 *
 * Readers never raise on the network: they report by -1 or NULL. A caller tells a
 * timeout from an end by InputStream_isClosed (an error, sticky) and
 * Inputstream_peerClosed (the peer ended its side). InputStream_hasRequest finds the
 * end of an HTTP request head in the stream's own 4096-byte buffer without waiting;
 * the head is not copied. A stream made with InputStream_alloc lives in its arena and
 * is never freed alone. A NULL stream fails the check "S".
 */
#ifndef VESK_INPUTSTREAM_INCLUDED
#define VESK_INPUTSTREAM_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct InputStream_S* InputStream_T;
typedef struct SSL_S* SSL_T;

/* A new stream over socket, on the heap. */
VESK_API InputStream_T InputStream_new(int socket);
/* A new stream over socket, in arena. */
VESK_API InputStream_T InputStream_alloc(Arena_T arena, int socket);
/* Frees a heap stream and clears *S; the descriptor stays open. */
VESK_API void InputStream_free(InputStream_T* S);
/* Reads through the TLS object ssl from now on (NULL: plain). */
VESK_API void InputStream_setSSL(InputStream_T S, SSL_T ssl);
/* True once the stream failed; sticky. */
VESK_API int InputStream_isClosed(InputStream_T S);
/* True once the peer closed its side; sticky. */
VESK_API int Inputstream_peerClosed(InputStream_T S);
/* The read timeout in milliseconds. */
VESK_API int InputStream_getTimeout(InputStream_T S);
/* Sets the read timeout; checks "timeout >= 0". */
VESK_API void InputStream_setTimeout(InputStream_T S, int timeout);
/* True while chunked transfer encoding is decoded. */
VESK_API int InputStream_isChunked(InputStream_T S);
/* Switches chunked decoding on or off. */
VESK_API void InputStream_setChunked(InputStream_T S, int chunked);
/* Forgets buffered bytes and the head and chunk state; a closed stream stays closed. */
VESK_API void InputStream_clear(InputStream_T S);
/* Bytes that can be read without touching the socket. */
VESK_API int InputStream_buffered(InputStream_T S);
/* The next byte as 0 to 255, or -1 at the end, on a timeout or at the last chunk. */
VESK_API int InputStream_read(InputStream_T S);
/* Reads up to n bytes into b; the count, or -1 if the stream is closed. */
VESK_API int InputStream_readBytes(InputStream_T S, void* b, int n);
/* Reads a line up to and including LF, at most size - 1 bytes, into s and terminates
   it; s, or NULL when nothing was read. */
VESK_API char* InputStream_readLine(InputStream_T S, char* s, int size);
/* Reads what has arrived, at most size - 1 bytes, into s and terminates it, waiting
   the timeout only for the first byte; the count, or -1 if the stream is closed. */
VESK_API int InputStream_readText(InputStream_T S, char* s, int size);
/* Skips n bytes; n, 0 for n below 1, or -1 at the end or on no data. */
VESK_API int InputStream_skip(InputStream_T S, int n);
/* One read without waiting, then looks for the end of a request head. Sets *buffer to
   the stream's buffer. The head's length when complete, 0 if more is needed, -1 when
   the stream ended or the client is hostile, -2 when 4096 bytes hold no end of head. */
VESK_API int InputStream_hasRequest(InputStream_T S, char** buffer);

VESK_END_DECLS

#endif
