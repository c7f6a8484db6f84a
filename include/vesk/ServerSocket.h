/*
 * ServerSocket: a non-blocking listening socket on one port, one IP version (4 or 6)
 * and an optional bind address (NULL: every interface).
 *
 * ServerSocket_new raises IOException when the socket cannot be made, and
 * ServerSocket_free(&S) closes it if still open and clears the caller's pointer. A
 * NULL object fails the check "S".
 */
#ifndef VESK_SERVERSOCKET_INCLUDED
#define VESK_SERVERSOCKET_INCLUDED

#include <vesk/Export.h>
#include <vesk/Net.h>

VESK_BEGIN_DECLS

/* A socket listening on port (0: one the system picks, read back by getPort). */
VESK_API ServerSocket_T ServerSocket_new(int port, const char* bindAddress, int ipVersion);
/* Closes if open and frees S; clears *S. */
VESK_API void ServerSocket_free(ServerSocket_T* S);
/* Closes the listening descriptor; the object stays closed. */
VESK_API void ServerSocket_close(ServerSocket_T S);
/* True once closed. */
VESK_API int ServerSocket_isClosed(ServerSocket_T S);
/* The next pending connection, or NULL when none is pending or S is closed. */
VESK_API InetAddress_T ServerSocket_accept(ServerSocket_T S);
/* True when a connection is pending now. */
VESK_API int ServerSocket_hasConnection(ServerSocket_T S);
/* The listening descriptor. */
VESK_API int ServerSocket_getSocket(ServerSocket_T S);
/* The port listened on. */
VESK_API int ServerSocket_getPort(ServerSocket_T S);
/* 4 or 6. */
VESK_API int ServerSocket_getIPVersion(ServerSocket_T S);
/* Size of the bound address, used as the size of accepted peer addresses. */
VESK_API int ServerSocket_getAddrSize(ServerSocket_T S);
/* Sets the size of the bound address. */
VESK_API void ServerSocket_setAddrSize(ServerSocket_T S, int addrSize);
/* The bind address, S's own text, or NULL. */
VESK_API const char* ServerSocket_getBindAddress(ServerSocket_T S);
/* A stored timeout in milliseconds, 3000 at creation. */
VESK_API int ServerSocket_getConnectionTimeout(ServerSocket_T S);
/* Stores the timeout. */
VESK_API void ServerSocket_setConnectionTimeout(ServerSocket_T S, int timeout);
/* True for a port that speaks TLS. */
VESK_API int ServerSocket_isSecure(ServerSocket_T S);
/* Marks the port as speaking TLS. */
VESK_API void ServerSocket_setSecure(ServerSocket_T S, int secure);

VESK_END_DECLS

#endif
