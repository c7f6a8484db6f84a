/*
 * Net: every socket system call of the server, as stateless wrappers.
 *
 * Descriptors are non-blocking; a timeout in milliseconds says how long poll may
 * wait. EINTR is retried everywhere. Nothing here raises for a failed system call:
 * results and errno report it. The one exception is IOException "Invalid IP-version
 * '%d'" for a version other than 4 or 6. Text results go into the caller's buffer.
 */
#ifndef VESK_NET_INCLUDED
#define VESK_NET_INCLUDED

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct ServerSocket_S* ServerSocket_T;
typedef struct Socket_S* Socket_T;
typedef struct InetAddress_S* InetAddress_T;

/* 4, 6 or -1 from the address family of addr. */
VESK_API int Net_getIPVersion(const struct sockaddr* addr);
/* The port of addr in host order, or -1 for a family other than IPv4 and IPv6. */
VESK_API int Net_getPort(const struct sockaddr* addr);
/* The numeric port text of addr in buf; the getnameinfo result code. */
VESK_API int Net_getRemotePort(const struct sockaddr* addr, socklen_t len, char* buf, int size);
/* The numeric address text of addr in buf; the getnameinfo result code. */
VESK_API int Net_getAddrInfo(const struct sockaddr* addr, socklen_t len, char* buf, int size);
/* The host name of addr by reverse lookup in buf; the getnameinfo result code. */
VESK_API int Net_getNameInfo(const struct sockaddr* addr, socklen_t len, char* buf, int size);
/* Number of addresses of host of IP version 4 or 6; 0 if the host does not resolve. */
VESK_API int Net_vresolve(const char* host, int version);
/* Number of TCP addresses of host of any family; 0 if the host does not resolve. */
VESK_API int Net_resolve(const char* host);
/* Numeric text of host's first address of that version in result and result; on failure
   the resolver's error text in result and NULL. */
VESK_API char* Net_getAddressOfHost(const char* host, int version, char* result, int size);
/* gethostname into buf; a negative size gives -1 with errno EINVAL. */
VESK_API int Net_getHostName(char* buf, int size);
/* True when fd can be written within timeout ms. */
VESK_API int Net_canWrite(int fd, int timeout);
/* True when fd can be read within timeout ms. */
VESK_API int Net_canRead(int fd, int timeout);
/* SO_LINGER on with 2 seconds; true on success. */
VESK_API int Net_setLingerClose(int fd);
/* TCP_NODELAY set to value; true on success. */
VESK_API int Net_setNoDelay(int fd, int value);
/* TCP_NODELAY off, then TCP_CORK on; true on success. */
VESK_API int Net_cork(int fd);
/* TCP_CORK off, then TCP_NODELAY on; true on success. */
VESK_API int Net_uncork(int fd);
/* Clears O_NONBLOCK; true on success. */
VESK_API int Net_setBlocking(int fd);
/* Sets O_NONBLOCK; true on success. */
VESK_API int Net_setNonBlocking(int fd);
/* Closes fd so that the peer sees a reset; true on success. */
VESK_API int Net_abort(int fd);
/* Closes fd; true on success. */
VESK_API int Net_close(int fd);
/* shutdown(fd, how); true on success. */
VESK_API int Net_shutdown(int fd, int how);
/* True when fd is a socket. */
VESK_API int Net_isSocket(int fd);
/* Numeric text of fd's local address in buf; the getnameinfo result, or -1. */
VESK_API int Net_getLocalAddrInfo(int fd, char* buf, int size);
/* The local port of fd, or -1. */
VESK_API int Net_getLocalPort(int fd);
/* Host name of fd's local address in buf, falling back to gethostname; 0 on success. */
VESK_API int Net_getLocalNameInfo(int fd, char* buf, int size);
/* Makes the listening socket of S; the descriptor, -1 on a socket error, -2 if the bind
   address does not resolve. */
VESK_API int Net_createServerSocket(ServerSocket_T S);
/* Reads at most size bytes, waiting up to timeout ms (0: no wait, below 0: no limit).
   0 is end of file, or with errno EAGAIN nothing there in time; -1 an error. */
VESK_API ssize_t Net_read(int fd, void* buf, size_t size, int timeout);
/* Writes at most size bytes, waiting up to timeout ms; 0 with EAGAIN when nothing fit. */
VESK_API ssize_t Net_write(int fd, const void* buf, size_t size, int timeout);
/* Gathered write of count buffers; waits only for a timeout above 0. */
VESK_API ssize_t Net_writev(int fd, const struct iovec* iov, int count, int timeout);
/* Sends the file at path from the file cache, waiting as needed; bytes sent or -1. */
VESK_API ssize_t Net_sendfileb(const char* path, int fd);
/* One write without waiting of count bytes of the cached file at path from *offset,
   which advances; the write's result. The third argument is not used. */
VESK_API ssize_t Net_sendfile(const char* path, int fd, int ignored, off_t* offset, size_t count);
/* Shuts the writing side and closes with a 2 second linger; true on success. */
VESK_API int Net_lingerClose(int fd);
/* The next pending connection of S, or NULL when none is pending or it failed. */
VESK_API InetAddress_T Net_accept(ServerSocket_T S);
/* Connects S to its host and port and attaches the InetAddress; the descriptor, -1 on
   failure with errno, -2 if the host does not resolve. */
VESK_API int Net_createSocket(Socket_T S);

VESK_END_DECLS

#endif
