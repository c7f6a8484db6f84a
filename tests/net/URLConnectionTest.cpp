#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <vesk/InetAddress.h>
#include <vesk/InputStream.h>
#include <vesk/OutputStream.h>
#include <vesk/SSL.h>
#include <vesk/ServerSocket.h>
#include <vesk/URL.h>
#include <vesk/URLConnection.h>
#include <vesk/assert.h>

#include "support/Support.hpp"
#include "support/TempDir.hpp"
#include "support/TlsSupport.hpp"
#include "ssl/SSLTransport.hpp"

namespace {

// Answers one connection on 127.0.0.1 with a canned reply and keeps the request it got.
class TinyServer {
public:
        explicit TinyServer(std::string reply) : reply_(std::move(reply)) {
                fd_ = socket(AF_INET, SOCK_STREAM, 0);
                struct sockaddr_in a = {};
                a.sin_family = AF_INET;
                a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                socklen_t len = sizeof a;
                bind(fd_, reinterpret_cast<struct sockaddr*>(&a), len);
                listen(fd_, 4);
                getsockname(fd_, reinterpret_cast<struct sockaddr*>(&a), &len);
                port = ntohs(a.sin_port);
                thread_ = std::thread([this] { serve(); });
        }
        ~TinyServer() {
                shutdown(fd_, SHUT_RDWR);
                if (thread_.joinable())
                        thread_.join();
                close(fd_);
        }
        TinyServer(const TinyServer&) = delete;
        TinyServer& operator=(const TinyServer&) = delete;

        // The request as received; call after the client has its answer.
        std::string request() {
                if (thread_.joinable())
                        thread_.join();
                return request_;
        }

        int port = 0;

private:
        void serve() {
                int c = accept(fd_, nullptr, nullptr);
                if (c < 0)
                        return;
                char buf[4096];
                size_t body = std::string::npos;
                for (ssize_t n; (n = recv(c, buf, sizeof buf, 0)) > 0;) {
                        request_.append(buf, static_cast<size_t>(n));
                        size_t end = request_.find("\r\n\r\n");
                        if (end == std::string::npos)
                                continue;
                        if (body == std::string::npos) {
                                size_t cl = request_.find("Content-Length: ");
                                body = end + 4 +
                                       (cl == std::string::npos ? 0
                                                                : atoi(request_.c_str() + cl + 16));
                        }
                        if (request_.size() >= body)
                                break;
                }
                send(c, reply_.data(), reply_.size(), MSG_NOSIGNAL);
                close(c);
        }

        int fd_ = -1;
        std::string reply_;
        std::string request_;
        std::thread thread_;
};

std::string readAll(InputStream_T in) {
        std::string got;
        for (int c; (c = InputStream_read(in)) >= 0;)
                got += static_cast<char>(c);
        return got;
}

std::string fetch(const std::string& url) {
        URL_T u = URL_new(url.c_str());
        std::string got;
        std::string error = raised([&] { got = readAll(URL_getInputStream(u)); });
        URL_free(&u);
        return error.empty() ? got : error;
}

class URLConnectionTest : public testing::Test {
protected:
        static void SetUpTestSuite() { signal(SIGPIPE, SIG_IGN); }
};

TEST_F(URLConnectionTest, FileUrlsReadTheFile) {
        TempDir dir;
        std::string path = dir.write("a file.txt", "line one\nline two\n");
        URL_T u = URL_create("FILE://%s", (dir / "a%20file.txt").c_str());
        ASSERT_TRUE(u);
        EXPECT_EQ(readAll(URL_getInputStream(u)), "line one\nline two\n");
        URL_free(&u);
        std::string missing = dir / "missing";
        EXPECT_EQ(fetch("file://" + missing), "IOException: Cannot open the file '" + missing +
                                                  "' for reading -- No such file or directory");
        EXPECT_EQ(fetch("file://host"), "IOException: The URL does not contain a file path");
}

TEST_F(URLConnectionTest, ProtocolsAndMethods) {
        EXPECT_EQ(fetch("ftp://host/x"),
                  "IOException: Cannot create URLConnection -- Protocol 'ftp' not supported");
        EXPECT_EQ(fetch("httpx://host/x"), "IOException: URL: Protocol not supported");
        EXPECT_EQ(fetch("http:///x"), "IOException: Host not specified in the URL");
        URL_T u = URL_new("http://host/");
        URLConnection_T c = URL_getConnection(u);
        URLConnection_setMethod(c, "post");
        EXPECT_STREQ(URLConnection_getMethod(c), "POST");
        EXPECT_EQ(assertion([&] { URLConnection_setMethod(c, "PUT"); }), "Method not supported");
        URLConnection_addHeader(c, "X-Count", "%d", 1);
        URLConnection_addHeader(c, "x-count", "%d", 2);
        EXPECT_STREQ(URLConnection_getHeader(c, "X-COUNT"), "2");
        EXPECT_EQ(URLConnection_getHeader(c, "Other"), nullptr);
        EXPECT_NE(assertion([&] { URLConnection_addHeader(c, "X", "a\r\nEvil: 1"); }), "");
        URL_free(&u);
}

TEST_F(URLConnectionTest, GetSendsTheRequestAndReadsTheBody) {
        TinyServer server("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
        URL_T u = URL_create("http://u:p@127.0.0.1:%d/a%%20b?x=1&y=a%%20b", server.port);
        URLConnection_T c = URL_getConnection(u);
        URLConnection_addHeader(c, "X-Test", "%d", 42);
        EXPECT_EQ(readAll(URL_getInputStream(u)), "hello");
        EXPECT_EQ(server.request(),
                  "GET /a%20b?x=1&y=a%20b HTTP/1.1\r\nAuthorization: Basic dTpw\r\n"
                  "X-Test: 42\r\nHost: 127.0.0.1:" +
                      std::to_string(server.port) + "\r\nConnection: close\r\n\r\n");
        URL_free(&u);
}

TEST_F(URLConnectionTest, PostSendsTheQueryAsBody) {
        TinyServer server(
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: "
            "chunked\r\n\r\n5\r\nhello\r\n1\r\n!\r\n0\r\n\r\n");
        URL_T u = URL_create("http://127.0.0.1:%d/form?a=1&b=2", server.port);
        URLConnection_T c = URL_getConnection(u);
        URLConnection_setMethod(c, "POST");
        URLConnection_addHeader(c, "Connection", "keep-alive");
        // The stream hands out the CR that ends each chunk as its last byte.
        EXPECT_EQ(readAll(URL_getInputStream(u)), "hello\r!\r");
        EXPECT_EQ(server.request(),
                  "POST /form HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                  "Content-Length: 7\r\nConnection: keep-alive\r\nHost: 127.0.0.1:" +
                      std::to_string(server.port) + "\r\n\r\na=1&b=2");
        URL_free(&u);
}

TEST_F(URLConnectionTest, AnswersOtherThanOkRaise) {
        struct Case {
                const char* reply;
                const char* error;
        };
        for (Case c :
             {Case{"HTTP/1.1 404 Not Found\r\n\r\n", "IOException: 404 Not Found"},
              Case{"HTTP/1.0 401 Unauthorized\r\n\r\n",
                   "IOException: Invalid username or password"},
              Case{"SSH-2.0-server\r\n", "IOException: 127.0.0.1 did not return a HTTP response"},
              Case{"HTTP/1.1\r\n\r\n", "IOException: Cannot read HTTP status from 127.0.0.1"},
              Case{"", "IOException: No response from 127.0.0.1"}}) {
                SCOPED_TRACE(c.reply);
                TinyServer server(c.reply);
                EXPECT_EQ(fetch("http://127.0.0.1:" + std::to_string(server.port) + "/"), c.error);
        }
        std::string user(200, 'u');
        std::string password(100, 'p');
        TinyServer server("HTTP/1.1 200 OK\r\n\r\n");
        EXPECT_EQ(fetch("http://" + user + ":" + password +
                        "@127.0.0.1:" + std::to_string(server.port) + "/"),
                  "IOException: Authentication failed: Username and password too long");
}

TEST_F(URLConnectionTest, HttpsReadsThroughTlsAndNamesTheHost) {
        TempDir dir;
        std::string pem = makeCertificate(dir);
        SSL_T context = SSLNew(pem.c_str(), "ALL:!aNULL");
        // The name sent in the handshake (SNI) picks the certificate where hosts share an
        // address; an address is never sent as a name.
        for (auto [host, name] : {std::pair{"127.0.0.1", ""}, std::pair{"localhost", "localhost"}}) {
                SCOPED_TRACE(host);
                ServerSocket_T listener = ServerSocket_new(0, "127.0.0.1", 4);
                std::string request, error, sent;
                std::thread t([&] {
                        TRY
                                if (!Net_canRead(ServerSocket_getSocket(listener), 3000))
                                    THROW(IOException, "no connection");
                                InetAddress_T inet = ServerSocket_accept(listener);
                                SSLAccept(context, inet);
                                InputStream_T in = InetAddress_getInputStream(inet);
                                char line[256];
                                while (InputStream_readLine(in, line, sizeof line) &&
                                       strcmp(line, "\r\n") != 0)
                                        request += line;
                                const char* got =
                                    SSL_get_servername(SSLTransport_native(InetAddress_getSSL(inet)),
                                                       TLSEXT_NAMETYPE_host_name);
                                sent = got ? got : "";
                                OutputStream_T out = InetAddress_getOutputStream(inet);
                                OutputStream_print(out, "HTTP/1.1 200 OK\r\n\r\nsecret");
                                OutputStream_flush(out);
                                InetAddress_free(&inet);
                        ELSE
                                error = Exception_frame.message;
                        END_TRY;
                });
                EXPECT_EQ(fetch(std::string("https://") + host + ":" +
                                std::to_string(ServerSocket_getPort(listener)) + "/x"),
                          "secret");
                t.join();
                EXPECT_EQ(error, "");
                EXPECT_EQ(request.rfind("GET /x HTTP/1.1\r\n", 0), 0u) << request;
                EXPECT_EQ(sent, name);
                ServerSocket_free(&listener);
        }
        SSLFree(&context);
}

}  // namespace
