#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <vesk/Arena.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpResponse.h>
#include <vesk/InetAddress.h>
#include <vesk/InputStream.h>
#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/OutputStream.h>
#include <vesk/assert.h>

#include "ssl/SSLTransport.hpp"

namespace {

constexpr int kAddrSize = 128;
constexpr int kNameSize = 256;
constexpr int kAddressSize = 41;
constexpr int kBlockingTimeout = 3000;

}  // namespace

struct InetAddress_S {
        int port;
        SSL_T ssl;
        int socket;
        int addrlen;
        int keepAlive;
        int remotePort;
        HttpConnector_T connector;
        union {
                char bytes[kAddrSize];
                struct sockaddr_storage storage;
        } addr;
        int blocking;
        int enableLookups;
        int isClient;
        Arena_T arena;
        HttpRequest_T request;
        HttpResponse_T response;
        char* localHostName;
        char* remoteHostName;
        char* localHostAddress;
        char* remoteHostAddress;
        InputStream_T input;
        OutputStream_T output;
};

namespace {

const struct sockaddr* peer(InetAddress_T I) {
        return reinterpret_cast<const struct sockaddr*>(&I->addr);
}

// A text buffer of the connection, made in the arena on first use and cleared for a new
// lookup on every call.
char* textBuffer(InetAddress_T I, char*& buffer, int size) {
        if (!buffer)
                buffer = static_cast<char*>(ARENA_ALLOC(I->arena, size));
        buffer[0] = 0;
        return buffer;
}

const char* orEmpty(char* buffer, int status) {
        if (status != 0)
                buffer[0] = 0;
        return buffer;
}

// The hard and the orderly end share everything but how the descriptor is closed.
void finish(InetAddress_T* I, bool hard) {
        InetAddress_T inet = *I;
        if (inet->response)
                HttpResponse_free(&inet->response);
        if (inet->output)
                OutputStream_end(inet->output);
        // TLS goes last: ending the output may still flush through it, and the streams
        // hold the object until the arena goes.
        if (inet->ssl)
                SSLTransport_release(&inet->ssl);
        if (hard) {
                Net_abort(inet->socket);
        } else {
                Net_shutdown(inet->socket, SHUT_RDWR);
                Net_close(inet->socket);
        }
        Arena_dispose(&inet->arena);
        FREE(*I);
}

}  // namespace

InetAddress_T InetAddress_new(int port, int socket, const struct sockaddr* addr, int addrlen,
                              int isClient) {
        assert(addr);
        assert(addrlen > 0 && addrlen <= kAddrSize);
        InetAddress_T I;
        NEW0(I);
        I->port = port;
        I->socket = socket;
        I->addrlen = addrlen;
        memcpy(I->addr.bytes, addr, static_cast<size_t>(addrlen));
        I->keepAlive = HTTPCONNECTOR_KEEP_ALIVE_REQUESTS;
        I->remotePort = -1;
        I->blocking = 1;
        I->isClient = isClient;
        I->arena = Arena_new();
        return I;
}

void InetAddress_release(InetAddress_T I) {
        assert(I);
        if (I->response)
                HttpResponse_free(&I->response);
        if (I->output)
                OutputStream_end(I->output);
        Arena_free(I->arena);
        I->request = nullptr;
        I->response = nullptr;
        I->localHostName = I->remoteHostName = nullptr;
        I->localHostAddress = I->remoteHostAddress = nullptr;
        I->input = nullptr;
        I->output = nullptr;
}

void InetAddress_halfClose(InetAddress_T I) {
        assert(I);
        if (I->response)
                HttpResponse_free(&I->response);
        if (I->output)
                OutputStream_end(I->output);
        if (I->ssl)
                SSLTransport_release(&I->ssl);
        // Both streams still point at the TLS object just released.
        I->input = nullptr;
        I->output = nullptr;
        Net_shutdown(I->socket, SHUT_WR);
}

void InetAddress_free(InetAddress_T* I) {
        assert(I && *I);
        finish(I, false);
}

void InetAddress_abort(InetAddress_T* I) {
        assert(I && *I);
        finish(I, true);
}

InputStream_T InetAddress_getInputStream(InetAddress_T I) {
        assert(I);
        if (!I->input) {
                I->input = InputStream_alloc(I->arena, I->socket);
                if (!I->blocking)
                        InputStream_setTimeout(I->input, 0);
                if (I->ssl)
                        InputStream_setSSL(I->input, I->ssl);
        }
        return I->input;
}

OutputStream_T InetAddress_getOutputStream(InetAddress_T I) {
        assert(I);
        if (!I->output) {
                I->output = OutputStream_alloc(I->arena, I->socket);
                if (!I->blocking)
                        OutputStream_setTimeout(I->output, 0);
                if (I->ssl)
                        OutputStream_setSSL(I->output, I->ssl);
        }
        return I->output;
}

void InetAddress_setBlocking(InetAddress_T I) {
        assert(I);
        I->blocking = 1;
        if (I->input)
                InputStream_setTimeout(I->input, kBlockingTimeout);
        if (I->output)
                OutputStream_setTimeout(I->output, kBlockingTimeout);
}

void InetAddress_setNonBlocking(InetAddress_T I) {
        assert(I);
        I->blocking = 0;
        if (I->input)
                InputStream_setTimeout(I->input, 0);
        if (I->output)
                OutputStream_setTimeout(I->output, 0);
}

int InetAddress_isBlocking(InetAddress_T I) {
        assert(I);
        return I->blocking;
}

void InetAddress_setSSL(InetAddress_T I, SSL_T ssl) {
        assert(I);
        assert(ssl);
        I->ssl = ssl;
        if (I->input)
                InputStream_setSSL(I->input, ssl);
        if (I->output)
                OutputStream_setSSL(I->output, ssl);
}

SSL_T InetAddress_getSSL(InetAddress_T I) {
        assert(I);
        return I->ssl;
}

int InetAddress_isSecure(InetAddress_T I) {
        assert(I);
        return I->ssl != nullptr;
}

int InetAddress_setKeepAlive(InetAddress_T I, int value) {
        assert(I);
        // The value is a flag: a true one uses up one request of the budget.
        if (value < 1)
                I->keepAlive = 0;
        else if (I->keepAlive > 0)
                I->keepAlive--;
        return I->keepAlive;
}

void InetAddress_setKeepAliveRequests(InetAddress_T I, int requests) {
        assert(I);
        assert(requests > 0);
        I->keepAlive = requests;
}

int InetAddress_getKeepAlive(InetAddress_T I) {
        assert(I);
        return I->keepAlive;
}

int InetAddress_getSocket(InetAddress_T I) {
        assert(I);
        return I->socket;
}

Arena_T InetAddress_getArena(InetAddress_T I) {
        assert(I);
        return I->arena;
}

int InetAddress_getVersion(InetAddress_T I) {
        assert(I);
        return Net_getIPVersion(peer(I));
}

HttpConnector_T InetAddress_getConnector(InetAddress_T I) {
        assert(I);
        return I->connector;
}

void InetAddress_setConnector(InetAddress_T I, HttpConnector_T connector) {
        assert(I);
        I->connector = connector;
}

HttpRequest_T InetAddress_getRequest(InetAddress_T I) {
        assert(I);
        return I->request;
}

void InetAddress_setRequest(InetAddress_T I, HttpRequest_T request) {
        assert(I);
        I->request = request;
}

HttpResponse_T InetAddress_getResponse(InetAddress_T I) {
        assert(I);
        return I->response;
}

void InetAddress_setResponse(InetAddress_T I, HttpResponse_T response) {
        assert(I);
        I->response = response;
}

int InetAddress_getEnableLookups(InetAddress_T I) {
        assert(I);
        return I->enableLookups;
}

void InetAddress_setEnableLookups(InetAddress_T I, int enableLookups) {
        assert(I);
        I->enableLookups = enableLookups;
}

const char* InetAddress_getRemoteHostAddress(InetAddress_T I) {
        assert(I);
        char* buf = textBuffer(I, I->remoteHostAddress, kAddressSize);
        return orEmpty(
            buf, Net_getAddrInfo(peer(I), static_cast<socklen_t>(I->addrlen), buf, kAddressSize));
}

const char* InetAddress_getRemoteHostName(InetAddress_T I) {
        assert(I);
        char* buf = textBuffer(I, I->remoteHostName, kNameSize);
        socklen_t len = static_cast<socklen_t>(I->addrlen);
        int status = I->enableLookups ? Net_getNameInfo(peer(I), len, buf, kNameSize)
                                      : Net_getAddrInfo(peer(I), len, buf, kNameSize);
        return orEmpty(buf, status);
}

int InetAddress_getRemoteHostPort(InetAddress_T I) {
        assert(I);
        if (I->isClient)
                return I->port;
        char port[16];
        I->remotePort =
            Net_getRemotePort(peer(I), static_cast<socklen_t>(I->addrlen), port, sizeof port) == 0
                ? atoi(port)
                : -1;
        return I->remotePort;
}

const char* InetAddress_getLocalHostAddress(InetAddress_T I) {
        assert(I);
        char* buf = textBuffer(I, I->localHostAddress, kAddressSize);
        return orEmpty(buf, Net_getLocalAddrInfo(I->socket, buf, kAddressSize));
}

const char* InetAddress_getLocalHostName(InetAddress_T I) {
        assert(I);
        char* buf = textBuffer(I, I->localHostName, kNameSize);
        int status = I->enableLookups ? Net_getLocalNameInfo(I->socket, buf, kNameSize)
                                      : Net_getLocalAddrInfo(I->socket, buf, kNameSize);
        return orEmpty(buf, status);
}

int InetAddress_getLocalHostPort(InetAddress_T I) {
        assert(I);
        return I->isClient ? Net_getLocalPort(I->socket) : I->port;
}
