#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/FileCache.h>
#include <vesk/InetAddress.h>
#include <vesk/Net.h>
#include <vesk/ServerSocket.h>
#include <vesk/Socket.h>

#include "util/Holder.hpp"

namespace {

constexpr int kTCP = 6;
constexpr int kBacklog = 1024;
constexpr int kConnectTimeout = 3000;
constexpr int kSendTimeout = 3000;

using AddrInfo = vesk::Holder<struct addrinfo*, freeaddrinfo>;
// A socket on its way to being set up, closed should a step fail.
using Descriptor = vesk::Descriptor<Net_close>;

// getaddrinfo, whose list result then owns; the status of the look-up.
int lookUp(const char* host, const char* service, const struct addrinfo* hints, AddrInfo& result) {
        struct addrinfo* list = nullptr;
        int status = getaddrinfo(host, service, hints, &list);
        result.reset(list);
        return status;
}

int familyOf(int version) {
        if (version == 4)
                return AF_INET;
        if (version == 6)
                return AF_INET6;
        THROW(IOException, "Invalid IP-version '%d'", version);
        return AF_UNSPEC;
}

// Closes once: Linux releases the descriptor even when close reports EINTR (or EAGAIN while
// lingering), and a second close could hit a descriptor another thread has just been given.
int closeRetrying(int fd, bool alsoAgain) {
        return close(fd) == 0 || errno == EINTR || (alsoAgain && errno == EAGAIN);
}

int setFlag(int fd, int level, int option, int value) {
        return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

int setCloseOnExec(int fd) {
        int flags = fcntl(fd, F_GETFD);
        return flags != -1 && fcntl(fd, F_SETFD, flags | FD_CLOEXEC) != -1;
}

int setNonBlockingIoctl(int fd) {
        int on = 1;
        return ioctl(fd, FIONBIO, &on) != -1;
}

int pollFor(int fd, short events, int timeout) {
        struct pollfd p = {fd, events, 0};
        int r;
        do
                r = poll(&p, 1, timeout);
        while (r == -1 && errno == EINTR);
        return r;
}

// Sockets get MSG_NOSIGNAL so that a peer that went away gives EPIPE and never kills the
// process; other descriptors (files, pipes) fall back to the plain call.
ssize_t writeOnce(int fd, const void* buf, size_t size) {
        ssize_t n;
        do
                n = send(fd, buf, size, MSG_NOSIGNAL);
        while (n == -1 && errno == EINTR);
        if (n == -1 && errno == ENOTSOCK) {
                do
                        n = write(fd, buf, size);
                while (n == -1 && errno == EINTR);
        }
        return n;
}

ssize_t readOnce(int fd, void* buf, size_t size) {
        ssize_t n;
        do
                n = read(fd, buf, size);
        while (n == -1 && errno == EINTR);
        return n;
}

ssize_t writevOnce(int fd, const struct iovec* iov, int count) {
        struct msghdr msg = {};
        msg.msg_iov = const_cast<struct iovec*>(iov);
        msg.msg_iovlen = static_cast<size_t>(count);
        ssize_t n;
        do
                n = sendmsg(fd, &msg, MSG_NOSIGNAL);
        while (n == -1 && errno == EINTR);
        if (n == -1 && errno == ENOTSOCK) {
                do
                        n = writev(fd, iov, count);
                while (n == -1 && errno == EINTR);
        }
        return n;
}

// The shape shared by read, write and writev: try, and on EAGAIN wait once and try again.
template <typename Call>
ssize_t transfer(int fd, short event, int timeout, bool waits, Call call) {
        ssize_t n = call();
        if (n != -1 || errno != EAGAIN)
                return n;
        if (!waits)
                return 0;
        int r = pollFor(fd, event, timeout);
        if (r < 1)
                return 0;
        return call();
}

}  // namespace

int Net_getIPVersion(const struct sockaddr* addr) {
        if (!addr)
                return -1;
        return addr->sa_family == AF_INET ? 4 : addr->sa_family == AF_INET6 ? 6 : -1;
}

int Net_getPort(const struct sockaddr* addr) {
        if (!addr)
                return -1;
        if (addr->sa_family == AF_INET)
                return ntohs(reinterpret_cast<const struct sockaddr_in*>(addr)->sin_port);
        if (addr->sa_family == AF_INET6)
                return ntohs(reinterpret_cast<const struct sockaddr_in6*>(addr)->sin6_port);
        return -1;
}

int Net_getRemotePort(const struct sockaddr* addr, socklen_t len, char* buf, int size) {
        return getnameinfo(addr, len, nullptr, 0, buf, static_cast<socklen_t>(size),
                           NI_NUMERICSERV);
}

int Net_getAddrInfo(const struct sockaddr* addr, socklen_t len, char* buf, int size) {
        return getnameinfo(addr, len, buf, static_cast<socklen_t>(size), nullptr, 0,
                           NI_NUMERICHOST);
}

int Net_getNameInfo(const struct sockaddr* addr, socklen_t len, char* buf, int size) {
        return getnameinfo(addr, len, buf, static_cast<socklen_t>(size), nullptr, 0, 0);
}

int Net_vresolve(const char* host, int version) {
        struct addrinfo hints = {};
        hints.ai_protocol = kTCP;
        hints.ai_family = familyOf(version);
        AddrInfo result;
        if (lookUp(host, nullptr, &hints, result) != 0)
                return 0;
        int count = 0;
        for (struct addrinfo* r = result.get(); r; r = r->ai_next)
                if (version == 4 ? r->ai_family == AF_INET : r->ai_family != AF_INET)
                        count++;
        return count;
}

int Net_resolve(const char* host) {
        AddrInfo result;
        if (lookUp(host, nullptr, nullptr, result) != 0)
                return 0;
        int count = 0;
        for (struct addrinfo* r = result.get(); r; r = r->ai_next)
                if (r->ai_protocol == kTCP)
                        count++;
        return count;
}

char* Net_getAddressOfHost(const char* host, int version, char* result, int size) {
        if (result && size > 0)
                result[0] = 0;
        struct addrinfo hints = {};
        hints.ai_family = familyOf(version);
        AddrInfo list;
        int status = lookUp(host, nullptr, &hints, list);
        if (status == 0) {
                struct addrinfo* found = nullptr;
                for (struct addrinfo* r = list.get(); r && !found; r = r->ai_next)
                        if (version == 4 ? r->ai_family == AF_INET : r->ai_family != AF_INET)
                                found = r;
                status = found ? Net_getAddrInfo(found->ai_addr, found->ai_addrlen, result, size)
                               : EAI_FAMILY;
                if (status == 0)
                        return result;
        }
        if (result && size > 0)
                snprintf(result, static_cast<size_t>(size), "%s", gai_strerror(status));
        return nullptr;
}

int Net_getHostName(char* buf, int size) {
        if (size < 0) {
                errno = EINVAL;
                return -1;
        }
        return gethostname(buf, static_cast<size_t>(size));
}

int Net_canWrite(int fd, int timeout) {
        return pollFor(fd, POLLOUT, timeout) > 0;
}

int Net_canRead(int fd, int timeout) {
        return pollFor(fd, POLLIN, timeout) > 0;
}

int Net_setLingerClose(int fd) {
        struct linger l = {1, 2};
        return setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l) == 0;
}

int Net_setNoDelay(int fd, int value) {
        return setFlag(fd, IPPROTO_TCP, TCP_NODELAY, value);
}

int Net_cork(int fd) {
        return setFlag(fd, IPPROTO_TCP, TCP_NODELAY, 0) && setFlag(fd, IPPROTO_TCP, TCP_CORK, 1);
}

int Net_uncork(int fd) {
        return setFlag(fd, IPPROTO_TCP, TCP_CORK, 0) && setFlag(fd, IPPROTO_TCP, TCP_NODELAY, 1);
}

int Net_setBlocking(int fd) {
        int flags = fcntl(fd, F_GETFL);
        return flags != -1 && fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != -1;
}

int Net_setNonBlocking(int fd) {
        int flags = fcntl(fd, F_GETFL);
        return flags != -1 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) != -1;
}

int Net_abort(int fd) {
        struct linger l = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
        return closeRetrying(fd, false);
}

int Net_close(int fd) {
        return closeRetrying(fd, false);
}

int Net_shutdown(int fd, int how) {
        return shutdown(fd, how) == 0;
}

int Net_isSocket(int fd) {
        struct stat st;
        return fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
}

int Net_getLocalAddrInfo(int fd, char* buf, int size) {
        struct sockaddr_storage addr;
        socklen_t len = sizeof addr;
        if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len) != 0)
                return -1;
        return Net_getAddrInfo(reinterpret_cast<struct sockaddr*>(&addr), len, buf, size);
}

int Net_getLocalPort(int fd) {
        struct sockaddr_storage addr;
        socklen_t len = sizeof addr;
        if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len) != 0)
                return -1;
        return Net_getPort(reinterpret_cast<struct sockaddr*>(&addr));
}

int Net_getLocalNameInfo(int fd, char* buf, int size) {
        struct sockaddr_storage addr;
        socklen_t len = sizeof addr;
        if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len) != 0)
                return -1;
        if (Net_getNameInfo(reinterpret_cast<struct sockaddr*>(&addr), len, buf, size) == 0)
                return 0;
        return Net_getHostName(buf, size);
}

int Net_createServerSocket(ServerSocket_T S) {
        int version = ServerSocket_getIPVersion(S);
        char port[16];
        snprintf(port, sizeof port, "%d", ServerSocket_getPort(S));
        struct addrinfo hints = {};
        hints.ai_flags = AI_PASSIVE;
        hints.ai_socktype = SOCK_STREAM;
        hints.ai_protocol = kTCP;
        hints.ai_family = familyOf(version);
        AddrInfo result;
        int status = lookUp(ServerSocket_getBindAddress(S), port, &hints, result);
        if (status != 0) {
                Error_debug("Error: creating server socket -- %s\n", gai_strerror(status));
                errno = EHOSTUNREACH;
                return -2;
        }
        struct addrinfo* r = result.get();
        Descriptor owner(socket(r->ai_family, r->ai_socktype, r->ai_protocol));
        int fd = owner.get();
        if (!owner)
                return -1;
        if (version == 6 && !setFlag(fd, IPPROTO_IPV6, IPV6_V6ONLY, 1))
                Error_debug("Warning: IPV6_V6ONLY failed -- %s\n", strerror(errno));
        if (!setFlag(fd, SOL_SOCKET, SO_REUSEADDR, 1) ||
            !setFlag(fd, SOL_SOCKET, SO_KEEPALIVE, 1) || !setCloseOnExec(fd) ||
            !Net_setNonBlocking(fd) || bind(fd, r->ai_addr, r->ai_addrlen) != 0 ||
            listen(fd, kBacklog) != 0)
                return -1;
        ServerSocket_setAddrSize(S, static_cast<int>(r->ai_addrlen));
        return owner.release();
}

ssize_t Net_read(int fd, void* buf, size_t size, int timeout) {
        if (size == 0)
                return 0;
        return transfer(fd, POLLIN, timeout, timeout != 0, [&] { return readOnce(fd, buf, size); });
}

ssize_t Net_write(int fd, const void* buf, size_t size, int timeout) {
        if (size == 0)
                return 0;
        return transfer(fd, POLLOUT, timeout, timeout != 0,
                        [&] { return writeOnce(fd, buf, size); });
}

ssize_t Net_writev(int fd, const struct iovec* iov, int count, int timeout) {
        if (count < 1)
                return 0;
        return transfer(fd, POLLOUT, timeout, timeout > 0,
                        [&] { return writevOnce(fd, iov, count); });
}

namespace {

// The kernel meets the missing pages of a file that shrank under its mapping as a bad
// address; such a mapping leaves the cache, so that the next send maps the file anew.
void discardIfTruncated(ssize_t n, FileMap_T map) {
        if (n < 0 && errno == EFAULT)
                FileCache_discard(FileCache_getInstance(), map);
}

}  // namespace

ssize_t Net_sendfileb(const char* path, int fd) {
        long long size = File_size(path);
        if (size < 1)
                return static_cast<ssize_t>(size);
        FileMap_T map = FileCache_get(FileCache_getInstance(), 0, path);
        if (!map)
                return -1;
        auto address = static_cast<const char*>(FileMap_getAddress(map));
        long long length = FileMap_getSize(map);
        long long sent = 0;
        while (sent < length) {
                ssize_t n =
                    Net_write(fd, address + sent, static_cast<size_t>(length - sent), kSendTimeout);
                if (n < 1) {
                        discardIfTruncated(n, map);
                        break;
                }
                sent += n;
        }
        FileCache_return(FileCache_getInstance(), map);
        return sent < length ? -1 : static_cast<ssize_t>(sent);
}

ssize_t Net_sendfile(const char* path, int fd, int ignored, off_t* offset, size_t count) {
        (void)ignored;
        FileMap_T map = FileCache_get(FileCache_getInstance(), 0, path);
        if (!map)
                return -1;
        // A range past the end of the mapping is cut to what the mapping holds.
        off_t size = FileMap_getSize(map);
        if (*offset < 0 || *offset > size) {
                FileCache_return(FileCache_getInstance(), map);
                errno = EINVAL;
                return -1;
        }
        if (static_cast<off_t>(count) > size - *offset)
                count = static_cast<size_t>(size - *offset);
        ssize_t n =
            Net_write(fd, static_cast<const char*>(FileMap_getAddress(map)) + *offset, count, 0);
        if (n > 0)
                *offset += n;
        discardIfTruncated(n, map);
        FileCache_return(FileCache_getInstance(), map);
        return n;
}

int Net_lingerClose(int fd) {
        Net_setLingerClose(fd);
        if (shutdown(fd, SHUT_WR) != 0)
                return closeRetrying(fd, false);
        // A lingering close on a non-blocking socket can report EAGAIN while it waits.
        return closeRetrying(fd, true);
}

InetAddress_T Net_accept(ServerSocket_T S) {
        struct sockaddr_storage addr;
        socklen_t len = static_cast<socklen_t>(ServerSocket_getAddrSize(S));
        if (len == 0 || len > sizeof addr)
                len = sizeof addr;
        Descriptor owner(
            accept(ServerSocket_getSocket(S), reinterpret_cast<struct sockaddr*>(&addr), &len));
        int fd = owner.get();
        if (!owner || !setCloseOnExec(fd) || !setNonBlockingIoctl(fd) || !Net_setNoDelay(fd, 1))
                return nullptr;
        InetAddress_T accepted =
            InetAddress_new(ServerSocket_getPort(S), fd, reinterpret_cast<struct sockaddr*>(&addr),
                            static_cast<int>(len), 0);
        owner.release();
        return accepted;
}

int Net_createSocket(Socket_T S) {
        char port[6];
        snprintf(port, sizeof port, "%d", Socket_getPort(S));
        struct addrinfo hints = {};
        hints.ai_socktype = SOCK_STREAM;
        AddrInfo result;
        if (lookUp(Socket_getHost(S), port, &hints, result) != 0) {
                errno = EHOSTUNREACH;
                return -2;
        }
        int error = EHOSTUNREACH;
        for (struct addrinfo* r = result.get(); r; r = r->ai_next) {
                Descriptor owner(socket(r->ai_family, r->ai_socktype, r->ai_protocol));
                int fd = owner.get();
                if (!owner) {
                        error = errno;
                        continue;
                }
                if (!setCloseOnExec(fd) || !setNonBlockingIoctl(fd) || !Net_setNoDelay(fd, 1))
                        return -1;
                int status = connect(fd, r->ai_addr, r->ai_addrlen);
                if (status != 0 && errno == EINPROGRESS) {
                        int ready = pollFor(fd, POLLIN | POLLOUT, kConnectTimeout);
                        if (ready == 0) {
                                errno = ETIMEDOUT;
                        } else if (ready > 0) {
                                int soError = 0;
                                socklen_t soLen = sizeof soError;
                                if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &soLen) != 0)
                                        soError = errno;
                                errno = soError;
                                status = soError == 0 ? 0 : -1;
                        }
                }
                if (status == 0) {
                        Socket_setInetAddress(S,
                                              InetAddress_new(Socket_getPort(S), fd, r->ai_addr,
                                                              static_cast<int>(r->ai_addrlen), 1));
                        return owner.release();
                }
                error = errno;
        }
        errno = error;
        return -1;
}
