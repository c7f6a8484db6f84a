// What the streams and sockets ask of the TLS layer, in one place.
//
// A connection is plain while its SSL_T is NULL, and then nothing here is called. The
// TLS layer plugs in by giving these bodies over to SSLRead, SSLWrite, SSLPending,
// SSLRelease and SSLConnect. Until it exists no TLS object can be made, so one that is
// handed in anyway is refused: reads and writes fail as on a broken connection, and a
// client that asks for TLS gets an IOException.
#pragma once

#include <errno.h>

#include <vesk/Exception.h>
#include <vesk/InetAddress.h>

// Reads at most size bytes; the count, 0 with EAGAIN when nothing came in time, or -1.
inline int SSLTransport_read(SSL_T ssl, void* buffer, int size) {
        (void)ssl, (void)buffer, (void)size;
        errno = ENOTSUP;
        return -1;
}

// Writes at most size bytes; the count, 0 with EAGAIN when nothing fit in time, or -1.
inline int SSLTransport_write(SSL_T ssl, const void* buffer, int size) {
        (void)ssl, (void)buffer, (void)size;
        errno = ENOTSUP;
        return -1;
}

// Bytes decrypted and waiting inside the TLS layer.
inline int SSLTransport_pending(SSL_T ssl) {
        (void)ssl;
        return 0;
}

// Shuts TLS down, frees the object and clears *ssl.
inline void SSLTransport_release(SSL_T* ssl) {
        *ssl = nullptr;
}

// Starts the client side of TLS on inet and attaches the object with InetAddress_setSSL.
inline void SSLTransport_connect(InetAddress_T inet) {
        (void)inet;
        THROW(IOException, "TLS is not available in this build");
}
