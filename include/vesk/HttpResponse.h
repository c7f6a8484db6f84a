/*
 * HttpResponse: the status and headers of a response and the way its head is written.
 *
 * A response is a record in its connection's Arena; HttpResponse_free(&H) only gives
 * back what it holds outside the arena (server pages, a mapped file) and clears the
 * caller's pointer. The body goes through the connection's OutputStream. The head is
 * written once, at commit: when the stream's buffer overflows, on a send operation, on
 * HttpResponse_setFileMap or at HttpResponse_finalize. After commit, and while an
 * include runs, header setters, reset, redirect and error pages do nothing. Header
 * values are formatted texts kept in the arena. A header name that is not a token, or a
 * value with a control byte other than tab (a cookie's text or a redirect target too),
 * raises AssertException "Invalid header name '%s'" or "Invalid value of header '%s'",
 * committed or not: no header can break the head. The answer to a HEAD is its head
 * alone; an HTTP/1.0 client is never sent chunks. A NULL response fails the check "H".
 */
#ifndef VESK_HTTPRESPONSE_INCLUDED
#define VESK_HTTPRESPONSE_INCLUDED

#include <stdarg.h>
#include <time.h>

#include <vesk/Arena.h>
#include <vesk/Cookie.h>
#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/OutputStream.h>

VESK_BEGIN_DECLS

typedef struct ServerPage_S* ServerPage_T;
typedef struct FileMap_S* FileMap_T;

/* A new response in arena: status 200, protocol "HTTP/1.1". */
VESK_API HttpResponse_T HttpResponse_new(Arena_T arena);
/* Frees server pages and returns a mapped file; clears *H. Checks "H && *H". */
VESK_API void HttpResponse_free(HttpResponse_T* H);
/* The reason phrase of code; "Unknown status" for codes it does not know. */
VESK_API const char* HttpResponse_status(int code);
/* Attaches the output stream, which then commits this response and buffers 8192 bytes. */
VESK_API void HttpResponse_setOutputStream(HttpResponse_T H, OutputStream_T out);
/* The output stream. */
VESK_API OutputStream_T HttpResponse_getOutputStream(HttpResponse_T H);
/* The response's arena. */
VESK_API Arena_T HttpResponse_getArena(HttpResponse_T H);
/* True once the head is written. */
VESK_API int HttpResponse_isCommited(HttpResponse_T H);
/* The status code. */
VESK_API int HttpResponse_getStatus(HttpResponse_T H);
/* Sets the status code. */
VESK_API void HttpResponse_setStatus(HttpResponse_T H, int status);
/* Requests left on the connection; 0 closes it after this response. */
VESK_API int HttpResponse_getKeepAlive(HttpResponse_T H);
/* Sets the requests left; 0 also sets "Connection: close". */
VESK_API void HttpResponse_setKeepAlive(HttpResponse_T H, int keepAlive);
/* True while a forward runs. */
VESK_API int HttpResponse_isProcessingForward(HttpResponse_T H);
/* Marks a forward as running or not. */
VESK_API void HttpResponse_setProcessingForward(HttpResponse_T H, int forward);
/* True while an include runs. */
VESK_API int HttpResponse_isProcessingInclude(HttpResponse_T H);
/* Marks an include as running or not. */
VESK_API void HttpResponse_setProcessingInclude(HttpResponse_T H, int include);
/* Stores the connector. */
VESK_API void HttpResponse_setConnector(HttpResponse_T H, HttpConnector_T connector);
/* The connector, or NULL. */
VESK_API HttpConnector_T HttpResponse_getConnector(HttpResponse_T H);
/* Stores the request. */
VESK_API void HttpResponse_setRequest(HttpResponse_T H, HttpRequest_T request);
/* The request. */
VESK_API HttpRequest_T HttpResponse_getRequest(HttpResponse_T H);
/* Stores the context. */
VESK_API void HttpResponse_setContext(HttpResponse_T H, Context_T context);
/* The context, or NULL. */
VESK_API Context_T HttpResponse_getContext(HttpResponse_T H);
/* Copies the protocol of the status line; one with a control byte raises "Invalid
   protocol '%s'". */
VESK_API void HttpResponse_setProtocol(HttpResponse_T H, const char* protocol);
/* The context's servlet context, or NULL without a context. */
VESK_API ServletContext_T HttpResponse_getServletContext(HttpResponse_T H);
/* Body bytes sent so far. */
VESK_API long long HttpResponse_getBytesWritten(HttpResponse_T H);

/* Adds a value (the formatted text; NULL format: none) to a header; checks "key". */
VESK_API void HttpResponse_addHeader(HttpResponse_T H, const char* key, const char* format, ...)
    VESK_PRINTF(3, 4);
/* Replaces a header's values by the formatted text; checks "key". */
VESK_API void HttpResponse_setHeader(HttpResponse_T H, const char* key, const char* format, ...)
    VESK_PRINTF(3, 4);
/* Adds a decimal value to a header. */
VESK_API void HttpResponse_addIntHeader(HttpResponse_T H, const char* key, long long value);
/* Replaces a header's values by a decimal value. */
VESK_API void HttpResponse_setIntHeader(HttpResponse_T H, const char* key, long long value);
/* Adds an HTTP date to a header. */
VESK_API void HttpResponse_addDateHeader(HttpResponse_T H, const char* key, time_t time);
/* Replaces a header's values by an HTTP date. */
VESK_API void HttpResponse_setDateHeader(HttpResponse_T H, const char* key, time_t time);
/* Removes a header, also after commit; checks "key". */
VESK_API void HttpResponse_removeHeader(HttpResponse_T H, const char* key);
/* Sets "Content-Type"; checks "type". */
VESK_API void HttpResponse_setContentType(HttpResponse_T H, const char* type);
/* Sets "Content-Length" and marks the length as set. */
VESK_API void HttpResponse_setContentLength(HttpResponse_T H, unsigned long long length);
/* A header's value put last, or NULL. */
VESK_API const char* HttpResponse_getHeader(HttpResponse_T H, const char* key);
/* True if the header is set. */
VESK_API int HttpResponse_containsHeader(HttpResponse_T H, const char* key);
/* True if a value of the header contains value, ignoring case. */
VESK_API int HttpResponse_containsHeaderValue(HttpResponse_T H, const char* key, const char* value);
/* Adds a "Set-Cookie" header for cookie; checks "cookie". */
VESK_API void HttpResponse_addCookie(HttpResponse_T H, Cookie_T cookie);
/* Drops the buffered body, the headers and the status. */
VESK_API void HttpResponse_reset(HttpResponse_T H);
/* Drops the buffered body. */
VESK_API void HttpResponse_resetBuffer(HttpResponse_T H);
/* The server page at path in this context, freed with the response; NULL if none. */
VESK_API ServerPage_T HttpResponse_getServerPage(HttpResponse_T H, const char* path);

/* Writes the status line and the headers in front of the body; once. */
VESK_API void HttpResponse_commit(HttpResponse_T H);
/* Ends the response after the servlet: gives an uncommitted body its exact length (for
   a HEAD the measured one, when it was written and not to be compressed) and commits, or
   marks the last chunk. */
VESK_API void HttpResponse_finalize(HttpResponse_T H);
/* Answers 302, never compressed, with a Location made from the formatted target; checks
   "location". Bytes no URI can hold are encoded, and the request's own path wholly. */
VESK_API void HttpResponse_sendRedirect(HttpResponse_T H, const char* location, ...)
    VESK_PRINTF(2, 3);
/* Answers with status and an error page, never compressed; the formatted message
   (NULL: none) is escaped. */
VESK_API void HttpResponse_sendError(HttpResponse_T H, int status, const char* format, ...)
    VESK_PRINTF(3, 4);
/* HttpResponse_sendError with a va_list. */
VESK_API void HttpResponse_vsendError(HttpResponse_T H, int status, const char* format, va_list ap)
    VESK_PRINTF(3, 0);
/* url with ";vsessionid=" inserted when the session id travels in URLs; in the arena or
   url itself. */
VESK_API const char* HttpResponse_encodeURL(HttpResponse_T H, const char* url);
/* Sends a mapped file as the body, with its length and type, and commits. */
VESK_API void HttpResponse_setFileMap(HttpResponse_T H, FileMap_T map);

VESK_END_DECLS

#endif
