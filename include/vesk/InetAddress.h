/*
 * InetAddress: one connection. It owns the descriptor, the peer's address, the
 * connection's Arena, the TLS object and the two streams, and points at the current
 * request, response and connector.
 *
 * Everything that lives for one request comes from the arena: InetAddress_release
 * empties it between keep-alive requests, so a stream or text got from here must not
 * be kept across it. InetAddress_free closes in order and InetAddress_abort resets the
 * connection; both clear the caller's pointer. InetAddress_halfClose stops the sending
 * side only, so that a peer still sending can be read to its end before the close.
 * Host-name getters return the object's own text, empty on failure. A NULL object fails
 * the check "I". One thread at a time.
 */
#ifndef VESK_INETADDRESS_INCLUDED
#define VESK_INETADDRESS_INCLUDED

#include <sys/socket.h>

#include <vesk/Arena.h>
#include <vesk/Export.h>
#include <vesk/InputStream.h>
#include <vesk/Net.h>
#include <vesk/OutputStream.h>

VESK_BEGIN_DECLS

typedef struct SSL_S* SSL_T;
typedef struct HttpRequest_S* HttpRequest_T;
typedef struct HttpResponse_S* HttpResponse_T;
typedef struct HttpConnector_S* HttpConnector_T;

/* A connection over socket with the peer address addr; port is the listening port of an
   accepted connection and the remote port of a client one. */
VESK_API InetAddress_T InetAddress_new(int port, int socket, const struct sockaddr* addr,
                                       int addrlen, int isClient);
/* Ends one request and keeps the connection: frees the response, ends the output, empties
   the arena and forgets request, response, streams and texts. */
VESK_API void InetAddress_release(InetAddress_T I);
/* Ends the sending side and keeps the receiving one: frees the response, ends the output,
   ends TLS with its close notice and shuts the socket down for writing. Neither stream
   may be used afterwards; what the peer still sends is read from the socket itself. */
VESK_API void InetAddress_halfClose(InetAddress_T I);
/* Orderly close and free; clears *I. */
VESK_API void InetAddress_free(InetAddress_T* I);
/* Close with a reset and free; clears *I. */
VESK_API void InetAddress_abort(InetAddress_T* I);
/* The input stream, made in the arena on first use. */
VESK_API InputStream_T InetAddress_getInputStream(InetAddress_T I);
/* The output stream, made in the arena on first use. */
VESK_API OutputStream_T InetAddress_getOutputStream(InetAddress_T I);
/* The streams wait up to 3000 ms in poll from now on. */
VESK_API void InetAddress_setBlocking(InetAddress_T I);
/* The streams never wait from now on. */
VESK_API void InetAddress_setNonBlocking(InetAddress_T I);
/* True while the streams wait. */
VESK_API int InetAddress_isBlocking(InetAddress_T I);
/* Attaches the TLS object, also to existing streams; checks "ssl". */
VESK_API void InetAddress_setSSL(InetAddress_T I, SSL_T ssl);
/* The TLS object, or NULL. */
VESK_API SSL_T InetAddress_getSSL(InetAddress_T I);
/* True with a TLS object. */
VESK_API int InetAddress_isSecure(InetAddress_T I);
/* A value below 1 ends keep-alive; another uses up one request. The requests left. */
VESK_API int InetAddress_setKeepAlive(InetAddress_T I, int value);
/* The requests this connection may serve from now on; checks "requests > 0". */
VESK_API void InetAddress_setKeepAliveRequests(InetAddress_T I, int requests);
/* Requests left on this connection; before the first, HTTPCONNECTOR_KEEP_ALIVE_REQUESTS
   unless set. */
VESK_API int InetAddress_getKeepAlive(InetAddress_T I);
/* The descriptor. */
VESK_API int InetAddress_getSocket(InetAddress_T I);
/* The connection's arena. */
VESK_API Arena_T InetAddress_getArena(InetAddress_T I);
/* 4 or 6, from the peer address. */
VESK_API int InetAddress_getVersion(InetAddress_T I);
/* The connector that accepted the connection, or NULL. */
VESK_API HttpConnector_T InetAddress_getConnector(InetAddress_T I);
/* Stores the connector; not owned. */
VESK_API void InetAddress_setConnector(InetAddress_T I, HttpConnector_T connector);
/* The current request, or NULL. */
VESK_API HttpRequest_T InetAddress_getRequest(InetAddress_T I);
/* Stores the current request. */
VESK_API void InetAddress_setRequest(InetAddress_T I, HttpRequest_T request);
/* The current response, or NULL. */
VESK_API HttpResponse_T InetAddress_getResponse(InetAddress_T I);
/* Stores the current response; it is freed with the request. */
VESK_API void InetAddress_setResponse(InetAddress_T I, HttpResponse_T response);
/* True when host-name getters may use reverse DNS. */
VESK_API int InetAddress_getEnableLookups(InetAddress_T I);
/* Allows or forbids reverse DNS. */
VESK_API void InetAddress_setEnableLookups(InetAddress_T I, int enableLookups);
/* Numeric text of the peer address. */
VESK_API const char* InetAddress_getRemoteHostAddress(InetAddress_T I);
/* The peer's host name with lookups on, else its numeric address. */
VESK_API const char* InetAddress_getRemoteHostName(InetAddress_T I);
/* The peer's port, or -1. */
VESK_API int InetAddress_getRemoteHostPort(InetAddress_T I);
/* Numeric text of the local address. */
VESK_API const char* InetAddress_getLocalHostAddress(InetAddress_T I);
/* The local host name with lookups on, else the numeric local address. */
VESK_API const char* InetAddress_getLocalHostName(InetAddress_T I);
/* The local port, or -1. */
VESK_API int InetAddress_getLocalHostPort(InetAddress_T I);

VESK_END_DECLS

#endif
