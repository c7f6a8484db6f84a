#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <thread>

#include <vesk/InetAddress.h>
#include <vesk/Net.h>
#include <vesk/OutputStream.h>
#include <vesk/ServerSocket.h>
#include <vesk/Socket.h>

#include "support/StreamSupport.hpp"
#include "support/Support.hpp"

namespace {

bool hasIPv6Loopback() {
        int fd = socket(AF_INET6, SOCK_STREAM, 0);
        if (fd < 0)
                return false;
        struct sockaddr_in6 a = {};
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_loopback;
        bool ok = bind(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof a) == 0;
        close(fd);
        return ok;
}

void onSignal(int) {}

}  // namespace

class NetVersions : public testing::TestWithParam<int> {};

TEST_P(NetVersions, AcceptedConnectionKnowsBothEnds) {
        int version = GetParam();
        if (version == 6 && !hasIPv6Loopback())
                GTEST_SKIP() << "no ::1 here";
        Loopback L(version);
        const char* loopback = version == 4 ? "127.0.0.1" : "::1";
        int port = ServerSocket_getPort(L.server);
        EXPECT_STREQ(ServerSocket_getBindAddress(L.server), loopback);
        // Nothing else is pending: an accept that would block is the normal end.
        EXPECT_FALSE(ServerSocket_hasConnection(L.server));
        EXPECT_EQ(ServerSocket_accept(L.server), nullptr);

        InetAddress_T I = L.peer;
        EXPECT_EQ(InetAddress_getVersion(I), version);
        EXPECT_STREQ(InetAddress_getLocalHostAddress(I), loopback);
        EXPECT_STREQ(InetAddress_getRemoteHostName(I), loopback);  // lookups are off
        EXPECT_EQ(InetAddress_getLocalHostPort(I), port);
        EXPECT_EQ(InetAddress_getRemoteHostPort(I), Net_getLocalPort(L.client));
        EXPECT_TRUE(fcntl(InetAddress_getSocket(I), F_GETFL) & O_NONBLOCK);
        EXPECT_TRUE(fcntl(InetAddress_getSocket(I), F_GETFD) & FD_CLOEXEC);

        // A new request starts with nothing cached, and the same text comes back.
        const char* before = InetAddress_getRemoteHostAddress(I);
        std::string text = before;
        InetAddress_release(I);
        EXPECT_EQ(InetAddress_getRemoteHostAddress(I), text);
}

TEST_P(NetVersions, ClientSocketTalksToTheServer) {
        int version = GetParam();
        if (version == 6 && !hasIPv6Loopback())
                GTEST_SKIP() << "no ::1 here";
        ServerSocket_T server = ServerSocket_new(0, version == 4 ? "127.0.0.1" : "::1", version);
        int port = ServerSocket_getPort(server);
        Socket_T S = Socket_new(version == 4 ? "127.0.0.1" : "::1", port, 0);
        EXPECT_EQ(InetAddress_getRemoteHostPort(Socket_getInetAddress(S)), port);
        ASSERT_TRUE(Net_canRead(ServerSocket_getSocket(server), 2000));
        InetAddress_T accepted = ServerSocket_accept(server);
        ASSERT_TRUE(accepted);

        OutputStream_T out = Socket_getOutputStream(S);
        OutputStream_print(out, "ping %d\n", 1);
        EXPECT_EQ(OutputStream_flush(out), 7);
        InputStream_T in = InetAddress_getInputStream(accepted);
        char line[32];
        EXPECT_STREQ(InputStream_readLine(in, line, sizeof line), "ping 1\n");
        OutputStream_T back = InetAddress_getOutputStream(accepted);
        OutputStream_print(back, "%s", "pong\n");
        OutputStream_flush(back);
        EXPECT_TRUE(Socket_canRead(S, 2000));
        EXPECT_STREQ(InputStream_readLine(Socket_getInputStream(S), line, sizeof line), "pong\n");
        EXPECT_FALSE(Socket_isClosed(S));

        // Unflushed output goes out when the socket is freed.
        OutputStream_print(out, "%s", "bye\n");
        Socket_free(&S);
        EXPECT_STREQ(InputStream_readLine(in, line, sizeof line), "bye\n");
        EXPECT_EQ(InputStream_read(in), -1);
        EXPECT_TRUE(Inputstream_peerClosed(in));
        InetAddress_free(&accepted);
        ServerSocket_free(&server);
}

INSTANTIATE_TEST_SUITE_P(Net, NetVersions, testing::Values(4, 6));

TEST(Net, FailuresRaiseOnlyWhereTheyShould) {
        EXPECT_EQ(assertion([] { ServerSocket_new(0, nullptr, 5); }),
                  "ipVersion == 4 || ipVersion == 6");
        EXPECT_EQ(raised([] { Net_vresolve("127.0.0.1", 5); }),
                  "IOException: Invalid IP-version '5'");
        char result[128];
        EXPECT_EQ(raised([&] { Net_getAddressOfHost("127.0.0.1", 7, result, sizeof result); }),
                  "IOException: Invalid IP-version '7'");

        ServerSocket_T taken = ServerSocket_new(0, "127.0.0.1", 4);
        int port = ServerSocket_getPort(taken);
        EXPECT_EQ(raised([&] { ServerSocket_new(port, "127.0.0.1", 4); }),
                  "IOException: Creating a serversocket at port " + std::to_string(port) +
                      " -- Address already in use");
        ServerSocket_close(taken);
        EXPECT_TRUE(ServerSocket_isClosed(taken));
        EXPECT_EQ(ServerSocket_accept(taken), nullptr);
        // Nothing listens there now.
        EXPECT_EQ(raised([&] { Socket_new("127.0.0.1", port, 0); }),
                  "IOException: Connection refused");
        ServerSocket_free(&taken);
}

TEST(Net, HostFunctions) {
        char result[128];
        EXPECT_STREQ(Socket_ip4("127.0.0.1", result, sizeof result), "127.0.0.1");
        EXPECT_EQ(Socket_vresolve("127.0.0.1", 6), 0);
        // No IPv6 address for an IPv4 literal: the family error text.
        EXPECT_EQ(Socket_ip6("127.0.0.1", result, sizeof result), nullptr);
        EXPECT_STRNE(result, "");
        EXPECT_EQ(Socket_resolve("no-such-host.invalid"), 0);
        EXPECT_EQ(Socket_ip4("no-such-host.invalid", result, sizeof result), nullptr);
        EXPECT_STRNE(result, "");
        EXPECT_EQ(Socket_localhost(result, sizeof result), result);
        EXPECT_STRNE(result, "");
        errno = 0;
        EXPECT_EQ(Net_getHostName(result, -1), -1);
        EXPECT_EQ(errno, EINVAL);
        struct sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_port = htons(8080);
        EXPECT_EQ(Net_getPort(reinterpret_cast<struct sockaddr*>(&a)), 8080);
        a.sin_family = AF_UNIX;
        EXPECT_EQ(Net_getIPVersion(reinterpret_cast<struct sockaddr*>(&a)), -1);
}

TEST(Net, ReadAndWriteTellNoDataFromEnd) {
        Loopback L;
        char b[16];
        // Size 0 never touches the descriptor, not even a bad one.
        errno = 0;
        EXPECT_EQ(Net_read(-1, b, 0, 0), 0);
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(Net_read(-1, b, sizeof b, 0), -1);
        EXPECT_EQ(Net_read(L.fd(), b, sizeof b, 0), 0);
        EXPECT_EQ(errno, EAGAIN);
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Net_read(L.fd(), b, sizeof b, 50), 0);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(40));
        EXPECT_FALSE(Net_canRead(L.fd(), 0));

        // Fill the socket: a write that cannot wait then gives 0, not -1.
        std::string big(1 << 20, 'x');
        ssize_t n;
        while ((n = Net_write(L.fd(), big.data(), big.size(), 0)) > 0)
                ;
        EXPECT_EQ(n, 0);
        EXPECT_EQ(errno, EAGAIN);
        struct iovec v = {big.data(), big.size()};
        EXPECT_EQ(Net_writev(L.fd(), &v, 1, -1), 0);  // writev waits only for a timeout above 0
        EXPECT_EQ(Net_writev(L.fd(), &v, 0, 100), 0);
        EXPECT_FALSE(Net_canWrite(L.fd(), 0));
}

TEST(Net, ReadSeesTheEndOfTheStream) {
        Loopback L;
        L.closeClient();
        ASSERT_TRUE(Net_canRead(L.fd(), 2000));
        char b[16];
        errno = 0;
        EXPECT_EQ(Net_read(L.fd(), b, sizeof b, 0), 0);
        EXPECT_EQ(errno, 0);  // the end of the stream, not "no data"
}

TEST(Net, InterruptedWaitsGoOn) {
        Loopback L;
        struct sigaction sa = {}, old;
        sa.sa_handler = onSignal;  // no SA_RESTART: poll and read see EINTR
        sigaction(SIGUSR1, &sa, &old);
        pthread_t reader = pthread_self();
        std::thread other([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                pthread_kill(reader, SIGUSR1);
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                ::send(L.client, "late", 4, 0);
        });
        char b[8] = {};
        EXPECT_EQ(Net_read(L.fd(), b, sizeof b - 1, 2000), 4);
        EXPECT_STREQ(b, "late");
        other.join();
        sigaction(SIGUSR1, &old, nullptr);
}

TEST(Net, KeepAliveBudgetAndBlockingMode) {
        Loopback L;
        InetAddress_T I = L.peer;
        EXPECT_EQ(InetAddress_getKeepAlive(I), 100);
        EXPECT_EQ(InetAddress_setKeepAlive(I, 1), 99);
        EXPECT_EQ(InetAddress_setKeepAlive(I, 7), 98);  // a flag, not a count
        EXPECT_EQ(InetAddress_setKeepAlive(I, 0), 0);
        EXPECT_EQ(InetAddress_setKeepAlive(I, 1), 0);

        EXPECT_TRUE(InetAddress_isBlocking(I));
        InputStream_T in = InetAddress_getInputStream(I);
        EXPECT_EQ(InputStream_getTimeout(in), 3000);
        InetAddress_setNonBlocking(I);
        EXPECT_EQ(InputStream_getTimeout(in), 0);
        OutputStream_T out = InetAddress_getOutputStream(I);
        EXPECT_EQ(OutputStream_getTimeout(out), 0);
        InetAddress_setBlocking(I);
        EXPECT_EQ(OutputStream_getTimeout(out), 3000);
}

TEST(Net, SendingAFileNeedsTheCache) {
        EXPECT_EQ(Net_sendfileb("/no/such/file", 1), -1);
        char path[] = "/tmp/vesk-empty-XXXXXX";
        int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(Net_sendfileb(path, 1), 0);
        close(fd);
        unlink(path);
}

TEST(Net, AbortResetsThePeer) {
        Loopback L;
        InetAddress_abort(&L.peer);
        EXPECT_EQ(L.peer, nullptr);
        ASSERT_TRUE(Net_canRead(L.client, 2000));
        char b[4];
        EXPECT_EQ(recv(L.client, b, sizeof b, 0), -1);
        EXPECT_EQ(errno, ECONNRESET);
}

TEST(Net, HalfCloseSendsTheEndAndKeepsReading) {
        Loopback L;
        L.send("unread");
        OutputStream_T out = InetAddress_getOutputStream(L.peer);
        OutputStream_print(out, "answer");
        OutputStream_flush(out);
        InetAddress_halfClose(L.peer);
        // The answer and the end arrive, not a reset, and the server can still read.
        EXPECT_EQ(L.receive(), "answer");
        L.send("more");
        std::string got;
        char b[16];
        for (ssize_t n; got.size() < 10 && Net_canRead(L.fd(), 2000) &&
                        (n = recv(L.fd(), b, sizeof b, 0)) > 0;)
                got.append(b, static_cast<size_t>(n));
        EXPECT_EQ(got, "unreadmore");
}
