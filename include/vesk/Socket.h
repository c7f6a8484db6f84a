/*
 * Socket: a small client connection to a host and port, plain or TLS, with buffered
 * streams that wait up to 3000 ms.
 *
 * Socket_new raises IOException when the host cannot be reached. Socket_free(&S)
 * flushes and closes; Socket_abort(&S) resets; both clear the caller's pointer. The
 * host functions write into the caller's buffer. A NULL object fails the check "S".
 */
#ifndef VESK_SOCKET_INCLUDED
#define VESK_SOCKET_INCLUDED

#include <vesk/Export.h>
#include <vesk/InetAddress.h>
#include <vesk/InputStream.h>
#include <vesk/Net.h>
#include <vesk/OutputStream.h>

VESK_BEGIN_DECLS

/* A connection to host at port, with TLS when ssl is true. */
VESK_API Socket_T Socket_new(const char* host, int port, int ssl);
/* Flushes what is buffered, closes and frees; clears *S. */
VESK_API void Socket_free(Socket_T* S);
/* Resets the connection and frees; clears *S. */
VESK_API void Socket_abort(Socket_T* S);
/* Starts TLS on a plain connection; raises IOException on failure. */
VESK_API void Socket_starttls(Socket_T S);
/* The input stream. */
VESK_API InputStream_T Socket_getInputStream(Socket_T S);
/* The output stream, buffering up to 3000 bytes. */
VESK_API OutputStream_T Socket_getOutputStream(Socket_T S);
/* True once either stream reported closed; sticky. */
VESK_API int Socket_isClosed(Socket_T S);
/* True when bytes can be read within timeout ms. */
VESK_API int Socket_canRead(Socket_T S, int timeout);
/* True when bytes can be written within timeout ms. */
VESK_API int Socket_canWrite(Socket_T S, int timeout);
/* Shuts the reading side; true on success. */
VESK_API int Socket_shutdownRead(Socket_T S);
/* Shuts the writing side; true on success. */
VESK_API int Socket_shutdownWrite(Socket_T S);
/* The descriptor. */
VESK_API int Socket_getSocket(Socket_T S);
/* The host as given, S's own text. */
VESK_API const char* Socket_getHost(Socket_T S);
/* The port as given. */
VESK_API int Socket_getPort(Socket_T S);
/* The connection object. */
VESK_API InetAddress_T Socket_getInetAddress(Socket_T S);
/* Attaches the connection object made by connecting; S owns it. */
VESK_API void Socket_setInetAddress(Socket_T S, InetAddress_T inet);
/* Number of TCP addresses of host; 0 if it does not resolve. */
VESK_API int Socket_resolve(const char* host);
/* Number of addresses of host of IP version 4 or 6. */
VESK_API int Socket_vresolve(const char* host, int version);
/* Numeric IPv4 text of host in result and result, or the error text and NULL. */
VESK_API char* Socket_ip4(const char* host, char* result, int size);
/* Numeric IPv6 text of host in result and result, or the error text and NULL. */
VESK_API char* Socket_ip6(const char* host, char* result, int size);
/* This machine's host name in result and result, or the error text and NULL. */
VESK_API char* Socket_localhost(char* result, int size);

VESK_END_DECLS

#endif
