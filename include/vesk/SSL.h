/*
 * SSL: TLS under the server's streams. One type plays two roles: a server context,
 * made once for each host from one PEM file (certificate chain and private key), and
 * a connection object, made for each accepted or outgoing connection and attached to
 * its InetAddress, whose streams then read and write through it.
 *
 * Only TLS 1.2 and 1.3 are spoken. A handshake is only started by SSLAccept and
 * SSLConnect; on a non-blocking socket it finishes inside later reads and writes.
 * The peer's certificate is not verified. Set-up errors raise AssertException or
 * IOException; a failed handshake raises IOException after releasing the object.
 * Reads and writes never raise: SSLRead and SSLWrite give the count, 0 with errno
 * EAGAIN when nothing moved within the stream's timeout, 0 at a clean close by the
 * peer, or -1 on a failure, which is logged only when Container_Debug is set.
 * A connection object belongs to the thread that holds its InetAddress.
 */
#ifndef VESK_SSL_INCLUDED
#define VESK_SSL_INCLUDED

#include <vesk/Export.h>
#include <vesk/InetAddress.h>

VESK_BEGIN_DECLS

typedef struct SSL_S* SSL_T;

/* Readies the TLS library and the crypto locks; runs once however often it is called. */
VESK_API void SSLStart(void);
/* Undoes SSLStart at the end of the process. */
VESK_API void SSLStop(void);
/* Frees the calling thread's TLS error queue and state; called after each request. */
VESK_API void SSLThreadCleanup(void);
/* A server context from the PEM file with the OpenSSL cipher list ciphers. */
VESK_API SSL_T SSLNew(const char* file, const char* ciphers);
/* Frees a server context made by SSLNew and clears *S. */
VESK_API void SSLFree(SSL_T* S);
/* Starts the server side of TLS on inet with server's context and attaches the new
   object to inet, which owns it; returns it. */
VESK_API SSL_T SSLAccept(SSL_T server, InetAddress_T inet);
/* Starts the client side of TLS on inet with a private context and attaches the new
   object to inet, which owns it; returns it. serverName, the host the connection is
   for, is sent in the handshake (SNI) unless it is NULL or an IP address. */
VESK_API SSL_T SSLConnect(InetAddress_T inet, const char* serverName);
/* Shuts a connection object down without waiting, frees it and clears *S. */
VESK_API void SSLRelease(SSL_T* S);
/* Reads at most size bytes, waiting up to the timeout of inet's input stream. */
VESK_API int SSLRead(SSL_T S, void* buffer, int size);
/* Writes at most size bytes, waiting up to the timeout of inet's output stream. */
VESK_API int SSLWrite(SSL_T S, const void* buffer, int size);
/* Bytes already decrypted and waiting to be read. */
VESK_API int SSLPending(SSL_T S);

VESK_END_DECLS

#endif
