/*
 * HttpConnector: one listening port and every connection accepted on it.
 *
 * A connector is configured with its setters, given an Engine, and started before
 * the Reactor runs. All network waiting happens on the Reactor thread; a request is
 * handed to one of the connector's processor threads only when its head and body are
 * complete, and comes back through the connector's response pipe to be flushed, logged
 * and either kept alive (for as many requests and idle seconds as the connector's
 * keep-alive settings allow) or closed. Failures on a connection are answered on the
 * wire, never raised.
 *
 * A declared body is always read, also on a method that takes none (and then dropped),
 * so that no byte of it is taken for a request; a body framed by Transfer-Encoding ends
 * the connection after its answer. A client that waits with "Expect: 100-continue" is
 * sent "100 Continue" just before its body is read. A connection that closes while its
 * client may still be sending shuts its sending side and reads on until the client
 * closes, for at most 5 seconds of silence, 30 seconds or 64 MiB, so that the answer
 * is not lost to a reset.
 *
 * The connection timeout is set and read in seconds and kept in milliseconds. String
 * setters copy their argument and free the old value. HttpConnector_free(&H) frees
 * the socket, the processor pool and the texts, and clears the caller's pointer. A
 * NULL connector fails the check "H"; a bad setter value fails the setter's check.
 */
#ifndef VESK_HTTPCONNECTOR_INCLUDED
#define VESK_HTTPCONNECTOR_INCLUDED

#include <vesk/Engine.h>
#include <vesk/Export.h>
#include <vesk/HttpRequest.h>

VESK_BEGIN_DECLS

/* The limits a connector starts with, which a connection without a connector keeps: the
   most parameters of a request, the largest body in bytes, the requests of one connection
   and the seconds a kept-alive connection may idle. */
#define HTTPCONNECTOR_MAX_PARAMETER_COUNT 10000
#define HTTPCONNECTOR_CONTENT_LENGTH_LIMIT 51200000
#define HTTPCONNECTOR_KEEP_ALIVE_REQUESTS 100
#define HTTPCONNECTOR_KEEP_ALIVE_TIMEOUT 15

/* A connector with the defaults: port 8080, IPv4, all interfaces, "http", 128 processor
   threads ending after 30 idle seconds, a 30 s read timeout, bodies up to 51200000 bytes
   of which up to 32768 are kept in memory, at most 10000 parameters, lenient parsing, and
   connections kept alive for 100 requests and 15 idle seconds. */
VESK_API HttpConnector_T HttpConnector_new(void);
/* Frees the listening socket and the processor pool if any, the texts and H; clears *H. */
VESK_API void HttpConnector_free(HttpConnector_T* H);

/* The listening port; 0 lets the system pick one, which start stores here. */
VESK_API void HttpConnector_setPort(HttpConnector_T H, int port);
VESK_API int HttpConnector_getPort(HttpConnector_T H);
/* Makes this a TLS port, with the scheme "https"; the TLS identity comes from the Host
   whose address is the local address of each connection. */
VESK_API void HttpConnector_setSecure(HttpConnector_T H, int secure);
VESK_API int HttpConnector_getSecure(HttpConnector_T H);
/* "https" for a secure connector, else "http"; a constant. */
VESK_API const char* HttpConnector_getScheme(HttpConnector_T H);
/* 4 or 6. */
VESK_API void HttpConnector_setIPVersion(HttpConnector_T H, int ipVersion);
VESK_API int HttpConnector_getIPVersion(HttpConnector_T H);
/* The address to listen on; NULL or "*" means every interface (stored as NULL). */
VESK_API void HttpConnector_setBindAddress(HttpConnector_T H, const char* bindAddress);
VESK_API const char* HttpConnector_getBindAddress(HttpConnector_T H);
/* When set, the server name of every request on this connector. */
VESK_API void HttpConnector_setProxyName(HttpConnector_T H, const char* proxyName);
VESK_API const char* HttpConnector_getProxyName(HttpConnector_T H);
/* When set, the scheme of every request on this connector. */
VESK_API void HttpConnector_setProxyScheme(HttpConnector_T H, const char* proxyScheme);
VESK_API const char* HttpConnector_getProxyScheme(HttpConnector_T H);
/* Above 0, the server port of every request on this connector. */
VESK_API void HttpConnector_setProxyPort(HttpConnector_T H, int proxyPort);
VESK_API int HttpConnector_getProxyPort(HttpConnector_T H);
/* The port of the secure connector that requests needing TLS are sent to; 0 for none. */
VESK_API void HttpConnector_setRedirectPort(HttpConnector_T H, int redirectPort);
VESK_API int HttpConnector_getRedirectPort(HttpConnector_T H);
/* Whether host names of peers are looked up. */
VESK_API void HttpConnector_setEnableLookups(HttpConnector_T H, int enableLookups);
VESK_API int HttpConnector_getEnableLookups(HttpConnector_T H);
/* The most processor threads at once. */
VESK_API void HttpConnector_setProcessorThreads(HttpConnector_T H, int processors);
VESK_API int HttpConnector_getProcessorThreads(HttpConnector_T H);
/* Seconds an idle processor thread lives. */
VESK_API void HttpConnector_setProcessorTimeout(HttpConnector_T H, int timeout);
VESK_API int HttpConnector_getProcessorTimeout(HttpConnector_T H);
/* Seconds a client may take to send a request head, or between pieces of a body. */
VESK_API void HttpConnector_setConnectionTimeout(HttpConnector_T H, int timeout);
VESK_API int HttpConnector_getConnectionTimeout(HttpConnector_T H);
/* The largest body accepted, in bytes; larger ones get 413. */
VESK_API void HttpConnector_setContentLengthLimit(HttpConnector_T H, int limit);
VESK_API int HttpConnector_getContentLengthLimit(HttpConnector_T H);
/* Bodies up to this many bytes are kept in memory, larger ones in a temporary file. */
VESK_API void HttpConnector_setContentLengthBufferLimit(HttpConnector_T H, int limit);
VESK_API int HttpConnector_getContentLengthBufferLimit(HttpConnector_T H);
/* When on, request heads are held to the standard's stricter rules: several or non-numeric
   Content-Length headers, Content-Length with Transfer-Encoding, a Transfer-Encoding other
   than chunked, folded lines, blanks before a colon, several Host headers and a Host that is
   no host name get 400 naming the header. Off, the default, reads them leniently. */
VESK_API void HttpConnector_setStrict(HttpConnector_T H, int strict);
VESK_API int HttpConnector_getStrict(HttpConnector_T H);
/* The most parameters a request may carry, from its query, path, form or multipart fields
   together; a request with more gets 400 "Too many parameters". Negative means no limit. */
VESK_API void HttpConnector_setMaxParameterCount(HttpConnector_T H, int count);
VESK_API int HttpConnector_getMaxParameterCount(HttpConnector_T H);
/* The requests one connection may serve before it is closed; checks "requests > 0". */
VESK_API void HttpConnector_setKeepAliveRequests(HttpConnector_T H, int requests);
VESK_API int HttpConnector_getKeepAliveRequests(HttpConnector_T H);
/* Seconds a kept-alive connection may wait for its next request, and the end of an answer
   may take to go out; the answer's Keep-Alive header names it. Checks "timeout > 0". */
VESK_API void HttpConnector_setKeepAliveTimeout(HttpConnector_T H, int timeout);
VESK_API int HttpConnector_getKeepAliveTimeout(HttpConnector_T H);
/* The Engine that maps requests to applications; not owned. */
VESK_API void HttpConnector_setEngine(HttpConnector_T H, Engine_T engine);
VESK_API Engine_T HttpConnector_getEngine(HttpConnector_T H);

/* Opens the port and registers it with the Reactor; raises IOException if the port or
   the response pipe cannot be made. Call before the Reactor runs or on its thread. */
VESK_API void HttpConnector_start(HttpConnector_T H);
/* The first step of a graceful stop: H closes its port and keeps no connection alive, while
   the requests it has already read are answered. On the Reactor thread. */
VESK_API void HttpConnector_quiesce(HttpConnector_T H);
/* Connections open now; on the Reactor thread. */
VESK_API int HttpConnector_getConnections(HttpConnector_T H);
/* Requests handed to processor threads whose answer has not gone out in full; on the
   Reactor thread. A graceful stop waits for this to reach 0. */
VESK_API int HttpConnector_getBusy(HttpConnector_T H);
/* Closes the port, waits for the processor threads to finish their queue and closes the
   response pipe; on the Reactor thread or after the Reactor has stopped. */
VESK_API void HttpConnector_stop(HttpConnector_T H);

VESK_END_DECLS

#endif
