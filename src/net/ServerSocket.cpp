#include <errno.h>
#include <stdio.h>

#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/ServerSocket.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/assert.h>

struct ServerSocket_S {
        int port;
        int isClosed;
        int addrSize;
        int isSecure;
        int ipVersion;
        char* bindAddress;
        int socket;
        int connectionTimeout;
};

ServerSocket_T ServerSocket_new(int port, const char* bindAddress, int ipVersion) {
        assert(ipVersion == 4 || ipVersion == 6);
        ServerSocket_T S;
        NEW0(S);
        S->port = port;
        S->ipVersion = ipVersion;
        S->bindAddress = bindAddress ? Str_dup(bindAddress) : nullptr;
        S->connectionTimeout = 3000;
        S->socket = Net_createServerSocket(S);
        if (S->socket < 0) {
                char error[256];
                snprintf(error, sizeof error, "%s", System_getLastError());
                S->isClosed = 1;
                ServerSocket_free(&S);
                THROW(IOException, "Creating a serversocket at port %d -- %s", port, error);
        }
        // With port 0 the system chose one; keep it so that accepted connections and
        // callers see the real port.
        if (S->port == 0)
                S->port = Net_getLocalPort(S->socket);
        return S;
}

void ServerSocket_free(ServerSocket_T* S) {
        assert(S && *S);
        if (!(*S)->isClosed)
                ServerSocket_close(*S);
        FREE((*S)->bindAddress);
        FREE(*S);
}

void ServerSocket_close(ServerSocket_T S) {
        assert(S);
        if (S->isClosed)
                return;
        S->isClosed = 1;
        Net_close(S->socket);
}

int ServerSocket_isClosed(ServerSocket_T S) {
        assert(S);
        return S->isClosed;
}

InetAddress_T ServerSocket_accept(ServerSocket_T S) {
        assert(S);
        return S->isClosed ? nullptr : Net_accept(S);
}

int ServerSocket_hasConnection(ServerSocket_T S) {
        assert(S);
        return S->isClosed ? 0 : Net_canRead(S->socket, 0);
}

int ServerSocket_getSocket(ServerSocket_T S) {
        assert(S);
        return S->socket;
}

int ServerSocket_getPort(ServerSocket_T S) {
        assert(S);
        return S->port;
}

int ServerSocket_getIPVersion(ServerSocket_T S) {
        assert(S);
        return S->ipVersion;
}

int ServerSocket_getAddrSize(ServerSocket_T S) {
        assert(S);
        return S->addrSize;
}

void ServerSocket_setAddrSize(ServerSocket_T S, int addrSize) {
        assert(S);
        S->addrSize = addrSize;
}

const char* ServerSocket_getBindAddress(ServerSocket_T S) {
        assert(S);
        return S->bindAddress;
}

int ServerSocket_getConnectionTimeout(ServerSocket_T S) {
        assert(S);
        return S->connectionTimeout;
}

void ServerSocket_setConnectionTimeout(ServerSocket_T S, int timeout) {
        assert(S);
        S->connectionTimeout = timeout;
}

int ServerSocket_isSecure(ServerSocket_T S) {
        assert(S);
        return S->isSecure;
}

void ServerSocket_setSecure(ServerSocket_T S, int secure) {
        assert(S);
        S->isSecure = secure;
}
