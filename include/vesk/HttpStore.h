/*
 * HttpStore: a request body as it arrives, in memory or, above a limit, in a temporary
 * file, inflated on the way in when it is gzip.
 *
 * A store lives in its connection's Arena. The connector allocates it, writes the body
 * into it chunk by chunk on the reactor thread, closes it and attaches it to the
 * request; a processor thread parses it into parameters or parts; HttpRequest_end
 * removes it (the buffer, the mapping, the temporary file). Content kinds: 0 form,
 * 1 multipart, 2 XML. Failures are logged and reported by NULL or false. A NULL store
 * fails the check "S".
 */
#ifndef VESK_HTTPSTORE_INCLUDED
#define VESK_HTTPSTORE_INCLUDED

#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/InetAddress.h>

VESK_BEGIN_DECLS

/* A store for a body of length bytes: in memory up to limit, else in a temporary file;
   encoding 1 inflates gzip. NULL when the file or the inflater cannot be made. Checks
   "inet". */
VESK_API HttpStore_T HttpStore_alloc(InetAddress_T inet, int contentKind, long length, long limit,
                                     int encoding);
/* Stores n bytes of the body; false when they cannot be stored. */
VESK_API int HttpStore_write(HttpStore_T S, const void* bytes, int n);
/* Ends the body: a file store gets a terminating byte and is closed. */
VESK_API void HttpStore_close(HttpStore_T S);
/* Closes the file if still open, then removes the store. */
VESK_API void HttpStore_destroy(HttpStore_T S);
/* Frees the buffer, or unmaps and deletes the file. */
VESK_API void HttpStore_remove(HttpStore_T S);
/* Parses the body into the request's parameters or parts, by content kind; 0, or -1 when
   it holds more fields than the request's connector allows. */
VESK_API int HttpStore_parse(HttpStore_T S, HttpRequest_T request);
/* Bytes held, inflated. */
VESK_API int HttpStore_getStoredDataSize(HttpStore_T S);
/* Bytes received from the client: compressed bytes for gzip, else as stored. */
VESK_API int HttpStore_getUploadedDataSize(HttpStore_T S);
/* The connection. */
VESK_API InetAddress_T HttpStore_getInetAddress(HttpStore_T S);
/* The content kind: 0 form, 1 multipart, 2 XML. */
VESK_API int HttpStore_getContentType(HttpStore_T S);

VESK_END_DECLS

#endif
