#include <stdio.h>
#include <sys/socket.h>

#include <vesk/Exception.h>
#include <vesk/InetAddress.h>
#include <vesk/InputStream.h>
#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/OutputStream.h>
#include <vesk/Socket.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/assert.h>

#include "ssl/SSLTransport.hpp"

namespace {

constexpr int kClientBufferSize = 3000;

}  // namespace

struct Socket_S {
        int port;
        int socket;
        int isClosed;
        char* host;
        InputStream_T input;
        OutputStream_T output;
        InetAddress_T inet;
};

namespace {

void destroy(Socket_T* S, bool hard) {
        Socket_T s = *S;
        if (s->inet) {
                if (hard) {
                        InetAddress_abort(&s->inet);
                } else {
                        if (s->output)
                                while (OutputStream_flush(s->output) > 0)
                                        ;
                        InetAddress_free(&s->inet);
                }
        }
        FREE(s->host);
        FREE(*S);
}

}  // namespace

Socket_T Socket_new(const char* host, int port, int ssl) {
        assert(host);
        assert(port >= 0);
        Socket_T S;
        NEW0(S);
        S->port = port;
        S->socket = -1;
        S->host = Str_dup(host);
        TRY
                S->socket = Net_createSocket(S);
                if (S->socket < 0)
                        THROW(IOException, "%s", System_getLastError());
                if (ssl)
                        Socket_starttls(S);
                InetAddress_setEnableLookups(S->inet, 1);
        ELSE
                destroy(&S, true);
                RETHROW;
        END_TRY;
        return S;
}

void Socket_free(Socket_T* S) {
        assert(S && *S);
        destroy(S, false);
}

void Socket_abort(Socket_T* S) {
        assert(S && *S);
        destroy(S, true);
}

void Socket_starttls(Socket_T S) {
        assert(S);
        if (!InetAddress_isSecure(S->inet))
                SSLTransport_connect(S->inet, S->host);
}

InputStream_T Socket_getInputStream(Socket_T S) {
        assert(S);
        if (!S->input)
                S->input = InetAddress_getInputStream(S->inet);
        return S->input;
}

OutputStream_T Socket_getOutputStream(Socket_T S) {
        assert(S);
        if (!S->output) {
                S->output = InetAddress_getOutputStream(S->inet);
                OutputStream_setBufferSize(S->output, kClientBufferSize);
        }
        return S->output;
}

int Socket_isClosed(Socket_T S) {
        assert(S);
        if (!S->isClosed)
                S->isClosed = (S->input && InputStream_isClosed(S->input)) ||
                              (S->output && OutputStream_isClosed(S->output));
        return S->isClosed;
}

int Socket_canRead(Socket_T S, int timeout) {
        assert(S);
        // Bytes already in the stream's buffer can be read without the socket.
        if (S->input && InputStream_buffered(S->input) > 0)
                return 1;
        return Net_canRead(S->socket, timeout);
}

int Socket_canWrite(Socket_T S, int timeout) {
        assert(S);
        return Net_canWrite(S->socket, timeout);
}

int Socket_shutdownRead(Socket_T S) {
        assert(S);
        return Net_shutdown(S->socket, SHUT_RD);
}

int Socket_shutdownWrite(Socket_T S) {
        assert(S);
        return Net_shutdown(S->socket, SHUT_WR);
}

int Socket_getSocket(Socket_T S) {
        assert(S);
        return S->socket;
}

const char* Socket_getHost(Socket_T S) {
        assert(S);
        return S->host;
}

int Socket_getPort(Socket_T S) {
        assert(S);
        return S->port;
}

InetAddress_T Socket_getInetAddress(Socket_T S) {
        assert(S);
        return S->inet;
}

void Socket_setInetAddress(Socket_T S, InetAddress_T inet) {
        assert(S);
        S->inet = inet;
}

int Socket_resolve(const char* host) {
        return Net_resolve(host);
}

int Socket_vresolve(const char* host, int version) {
        return Net_vresolve(host, version);
}

char* Socket_ip4(const char* host, char* result, int size) {
        return Net_getAddressOfHost(host, 4, result, size);
}

char* Socket_ip6(const char* host, char* result, int size) {
        return Net_getAddressOfHost(host, 6, result, size);
}

char* Socket_localhost(char* result, int size) {
        if (Net_getHostName(result, size) != 0) {
                if (result && size > 0)
                        snprintf(result, static_cast<size_t>(size), "%s", System_getLastError());
                return nullptr;
        }
        return result;
}
