#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <vesk/Container.h>
#include <vesk/InetAddress.h>
#include <vesk/InputStream.h>
#include <vesk/OutputStream.h>
#include <vesk/SSL.h>
#include <vesk/ServerSocket.h>
#include <vesk/Socket.h>
#include <vesk/assert.h>

#include "support/StreamSupport.hpp"
#include "support/Support.hpp"
#include "support/TempDir.hpp"
#include "support/TlsSupport.hpp"
#include "ssl/SSLTransport.hpp"

namespace {

constexpr char kCiphers[] = "ALL:!DES:!3DES:!RC4:!aNULL:!LOW:!EXP:!IDEA:!MD5:@STRENGTH";

class SSLTest : public testing::Test {
protected:
        static void SetUpTestSuite() {
                // The server ignores SIGPIPE; a test that closes early must not die of it.
                signal(SIGPIPE, SIG_IGN);
                SSLStart();
                dir = new TempDir;
                pem = new std::string(makeCertificate(*dir));
        }
        static void TearDownTestSuite() {
                delete pem;
                delete dir;
        }
        void SetUp() override { server = SSLNew(pem->c_str(), kCiphers); }
        void TearDown() override { SSLFree(&server); }

        static TempDir* dir;
        static std::string* pem;
        SSL_T server = nullptr;
};

TempDir* SSLTest::dir;
std::string* SSLTest::pem;

std::string readLine(InputStream_T in) {
        char line[512];
        return InputStream_readLine(in, line, sizeof line) ? line : "";
}

TEST_F(SSLTest, HandshakeFinishesInsideTheFirstRead) {
        Loopback lb;
        SSL_T ssl = SSLAccept(server, lb.peer);
        EXPECT_EQ(InetAddress_getSSL(lb.peer), ssl);
        EXPECT_FALSE(SSL_is_init_finished(SSLTransport_native(ssl)));
        // Without waiting, an idle connection reads nothing and says so by EAGAIN.
        InetAddress_setNonBlocking(lb.peer);
        char buf[16];
        errno = 0;
        EXPECT_EQ(SSLRead(ssl, buf, sizeof buf), 0);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(SSLRead(ssl, buf, 0), 0);
        char* head;
        EXPECT_EQ(InputStream_hasRequest(InetAddress_getInputStream(lb.peer), &head), 0);
        InetAddress_setBlocking(lb.peer);

        std::string reply;
        std::thread t([&] {
                RawTlsClient c(lb.client);
                if (c.connect() && c.send("ping\n"))
                        reply = c.receive(5);
                c.close();
        });
        InputStream_T in = InetAddress_getInputStream(lb.peer);
        EXPECT_EQ(readLine(in), "ping\n");
        EXPECT_TRUE(SSL_is_init_finished(SSLTransport_native(ssl)));
        OutputStream_T out = InetAddress_getOutputStream(lb.peer);
        OutputStream_print(out, "pong\n");
        EXPECT_EQ(OutputStream_flush(out), 5);
        t.join();
        EXPECT_EQ(reply, "pong\n");
        // The client's close_notify is a clean end: 0, and the stream is not broken.
        EXPECT_EQ(InputStream_read(in), -1);
        EXPECT_FALSE(InputStream_isClosed(in));
        EXPECT_TRUE(Inputstream_peerClosed(in));
}

TEST_F(SSLTest, ProtocolsOlderThanTls12AreRefused) {
        struct Case {
                int version;
                bool accepted;
        };
        for (Case c : {Case{TLS1_1_VERSION, false}, Case{TLS1_VERSION, false},
                       Case{TLS1_2_VERSION, true}, Case{TLS1_3_VERSION, true}}) {
                SCOPED_TRACE(c.version);
                Loopback lb;
                SSL_T ssl = SSLAccept(server, lb.peer);
                bool connected = false;
                std::thread t([&] {
                        RawTlsClient client(lb.client, c.version, c.version);
                        connected = client.connect() && client.send("x");
                });
                InputStream_T in = InetAddress_getInputStream(lb.peer);
                int byte = InputStream_read(in);
                t.join();
                EXPECT_EQ(connected, c.accepted);
                if (c.accepted) {
                        EXPECT_EQ(byte, 'x');
                        EXPECT_EQ(SSL_version(SSLTransport_native(ssl)), c.version);
                } else {
                        // A refusal is a failure of the stream, not a quiet end.
                        EXPECT_EQ(byte, -1);
                        EXPECT_TRUE(InputStream_isClosed(in));
                }
        }
}

TEST_F(SSLTest, FailuresAreLoggedOnlyInDebugModeAndCleanClosesNever) {
        int debug = Container_Debug;
        for (int on : {0, 1}) {
                Container_Debug = on;
                Loopback lb;
                SSL_T ssl = SSLAccept(server, lb.peer);
                lb.send("GET / HTTP/1.0\r\n\r\n");
                char buf[64];
                testing::internal::CaptureStderr();
                EXPECT_EQ(SSLRead(ssl, buf, sizeof buf), -1);
                std::string log = testing::internal::GetCapturedStderr();
                if (on)
                        EXPECT_EQ(log.rfind("SSL read error [127.0.0.1] ", 0), 0u) << log;
                else
                        EXPECT_EQ(log, "");
        }
        Loopback lb;
        SSL_T ssl = SSLAccept(server, lb.peer);
        std::thread t([&] {
                RawTlsClient c(lb.client);
                if (c.connect())
                        c.close();
        });
        char buf[64];
        testing::internal::CaptureStderr();
        EXPECT_EQ(SSLRead(ssl, buf, sizeof buf), 0);
        EXPECT_NE(errno, EAGAIN);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        t.join();
        Container_Debug = debug;
}

TEST_F(SSLTest, ClientTurnsTicketsOffOnlyForJabberPorts) {
        for (int port : {5222, 5223, 443}) {
                SCOPED_TRACE(port);
                Loopback lb;
                struct sockaddr_storage addr;
                socklen_t len = sizeof addr;
                ASSERT_EQ(getpeername(lb.client, reinterpret_cast<struct sockaddr*>(&addr), &len),
                          0);
                // Connection sockets never block, so the handshake only starts here.
                Net_setNonBlocking(lb.client);
                InetAddress_T inet =
                    InetAddress_new(port, dup(lb.client), reinterpret_cast<struct sockaddr*>(&addr),
                                    static_cast<int>(len), 1);
                SSL_T ssl = SSLConnect(inet, nullptr);
                EXPECT_EQ(InetAddress_getSSL(inet), ssl);
                uint64_t options = SSL_get_options(SSLTransport_native(ssl));
                EXPECT_EQ((options & SSL_OP_NO_TICKET) != 0, port != 443);
                EXPECT_EQ(SSL_get_min_proto_version(SSLTransport_native(ssl)), TLS1_2_VERSION);
                InetAddress_free(&inet);
        }
}

TEST_F(SSLTest, ClientNamesTheServerButNeverAnAddress) {
        for (auto [host, sent] : {std::pair<const char*, const char*>{"Example.org.", "Example.org"},
                                  {"127.0.0.1", nullptr}, {"::1", nullptr}, {"[::1]", nullptr},
                                  {"", nullptr}, {nullptr, nullptr}}) {
                Loopback lb;
                Net_setNonBlocking(lb.client);
                struct sockaddr_storage addr;
                socklen_t len = sizeof addr;
                getpeername(lb.client, reinterpret_cast<struct sockaddr*>(&addr), &len);
                InetAddress_T inet =
                    InetAddress_new(443, dup(lb.client), reinterpret_cast<struct sockaddr*>(&addr),
                                    static_cast<int>(len), 1);
                SSL_T ssl = SSLConnect(inet, host);
                const char* name =
                    SSL_get_servername(SSLTransport_native(ssl), TLSEXT_NAMETYPE_host_name);
                EXPECT_STREQ(name, sent) << (host ? host : "NULL");
                InetAddress_free(&inet);
        }
}

TEST_F(SSLTest, ServerContextRefusesBadConfiguration) {
        EXPECT_EQ(raised([] { SSLNew(pem->c_str(), "NO-SUCH-CIPHER"); }),
                  "IOException: Error setting cipher list 'NO-SUCH-CIPHER' (no valid ciphers)");
        std::string missing = *dir / "missing.pem";
        EXPECT_EQ(raised([&] {
                          SSLNew(missing.c_str(), kCiphers);
                  }).rfind("AssertException: Error loading CA file '" + missing + "' -- ", 0),
                  0u);
        std::string certOnly = makeCertificate(*dir, "cert.pem", false);
        EXPECT_EQ(raised([&] { SSLNew(certOnly.c_str(), kCiphers); })
                      .rfind("AssertException: Error loading private key from file '" + certOnly +
                                 "' -- ",
                             0),
                  0u);
}

TEST_F(SSLTest, FailedHandshakeRaisesAndLeavesTheConnectionPlain) {
        Loopback lb;
        // A client that speaks plain HTTP before the server starts TLS.
        lb.send("GET / HTTP/1.0\r\n\r\n");
        EXPECT_EQ(raised([&] { SSLAccept(server, lb.peer); }).rfind("IOException: ", 0), 0u);
        EXPECT_FALSE(InetAddress_isSecure(lb.peer));
}

}  // namespace
