// What the streams and sockets ask of the TLS layer, in one place.
//
// A connection is plain while its SSL_T is NULL, and then nothing here is called. The
// streams pass their own timeout, so that a read that must not wait (the head check of
// a request) does not wait even on a blocking connection.
#pragma once

#include <stdint.h>

#include <vesk/InetAddress.h>
#include <vesk/SSL.h>

struct ssl_st;

// Reads at most size bytes; the count, 0 with EAGAIN when nothing came within timeout
// ms, 0 at a clean close, or -1.
int SSLTransport_read(SSL_T ssl, void* buffer, int size, int timeout);

// Writes at most size bytes; the count, 0 with EAGAIN when nothing fit within timeout
// ms, or -1.
int SSLTransport_write(SSL_T ssl, const void* buffer, int size, int timeout);

// Whether the handshake has yet to finish.
bool SSLTransport_handshaking(SSL_T ssl);

// Takes the handshake as far as the socket allows without waiting: 1 when it is done, 0
// when it waits for the socket (SSLTransport_wantsWrite tells which way), -1 when it
// failed (logged in debug mode only).
int SSLTransport_handshake(SSL_T ssl);

// Whether the last step waits for the socket to take bytes rather than to bring them.
bool SSLTransport_wantsWrite(SSL_T ssl);

// Whether bytes already read from the socket wait inside the TLS layer, so that the
// socket may never signal them.
bool SSLTransport_buffered(SSL_T ssl);

// Time_milli when the handshake began.
int64_t SSLTransport_started(SSL_T ssl);

// The library's own connection object, for checks that look below this layer.
struct ssl_st* SSLTransport_native(SSL_T ssl);

// Bytes decrypted and waiting inside the TLS layer.
inline int SSLTransport_pending(SSL_T ssl) {
        return SSLPending(ssl);
}

// Shuts TLS down, frees the object and clears *ssl.
inline void SSLTransport_release(SSL_T* ssl) {
        SSLRelease(ssl);
}

// Starts the client side of TLS on inet for the server named host and attaches the object
// with InetAddress_setSSL.
inline void SSLTransport_connect(InetAddress_T inet, const char* host) {
        SSLConnect(inet, host);
}
