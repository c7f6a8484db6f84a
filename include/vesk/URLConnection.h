/*
 * URLConnection: a small client that opens an InputStream on the resource of a URL,
 * over HTTP, HTTPS or from a local file.
 *
 * A connection is made by URL_getConnection and belongs to its URL: URL_free frees it,
 * with its socket or file and its headers. Request headers are copied. For HTTP the
 * request asks for "Connection: close", so the stream reads the body to its end;
 * chunked bodies are decoded. Every failure to connect, send or get a 200 answer raises
 * IOException; the stream then reports by -1 or NULL as every InputStream does. A NULL
 * connection fails the check "C".
 */
#ifndef VESK_URLCONNECTION_INCLUDED
#define VESK_URLCONNECTION_INCLUDED

#include <vesk/Export.h>
#include <vesk/InputStream.h>

VESK_BEGIN_DECLS

typedef struct URLConnection_S* URLConnection_T;

/* Sets the request method to "GET" or "POST", ignoring case; any other raises
   AssertException "Method not supported". POST sends the query as the form body. */
VESK_API void URLConnection_setMethod(URLConnection_T C, const char* method);
/* "GET" or "POST". */
VESK_API const char* URLConnection_getMethod(URLConnection_T C);
/* Adds the request header name with the value formatted from format; neither may hold a
   line break. */
VESK_API void URLConnection_addHeader(URLConnection_T C, const char* name, const char* format, ...)
    VESK_PRINTF(3, 4);
/* The newest value of the request header name, ignoring case in the name, or NULL. */
VESK_API const char* URLConnection_getHeader(URLConnection_T C, const char* name);
/* Connects and sends the request on first call, reads the answer's head and returns the
   stream of its body (or of the file); the same stream afterwards. Raises IOException. */
VESK_API InputStream_T URLConnection_getInputStream(URLConnection_T C);

VESK_END_DECLS

#endif
