// HTTPS as an operator deploys it: the launcher on a home with two hosts, each with its own
// certificate on its own loopback address, spoken to by curl, openssl s_client and raw TLS
// clients where a program would hide what the server does.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <openssl/err.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "support/ServerSupport.hpp"
#include "support/TlsSupport.hpp"

using namespace e2e;

namespace {

bool contains(const std::string& s, const std::string& part) {
        return s.find(part) != std::string::npos;
}

std::string readFile(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        std::stringstream all;
        all << in.rdbuf();
        return all.str();
}

// What a shell command printed on standard output and standard error.
std::string run(const std::string& command) {
        std::string out;
        if (FILE* p = popen((command + " 2>&1").c_str(), "r")) {
                char buffer[4096];
                for (size_t n; (n = fread(buffer, 1, sizeof buffer, p)) > 0;)
                        out.append(buffer, n);
                pclose(p);
        }
        return out;
}

// Bytes that no compression or pattern can pass off as right when one is shifted or lost.
std::string noise(size_t size) {
        std::string s(size, 0);
        unsigned seed = 7;
        for (char& c : s) {
                seed = seed * 1103515245u + 12345u;
                c = static_cast<char>(seed >> 16);
        }
        return s;
}

// A TCP connection from the given loopback address to another one, or -1.
int dialFrom(const char* address, int port) {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        timeval limit = {20, 0};
        setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in a = loopback(port);
        inet_pton(AF_INET, address, &a.sin_addr);
        if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
                close(s);
                return -1;
        }
        return s;
}

// The test home behind HTTPS: "localhost" answers on 127.0.0.1 with one certificate,
// 127.0.0.2 on its own address with another, and a third secure listener on 127.0.0.3
// has no host at all. A plain listener on 127.0.0.1 shows what a proxy in front would
// send. The application /app maps /transport to the servlet that tells how its request
// came.
struct TlsHome : Home {
        int plainPort = freePort();

        TlsHome() {
                makeCertificate(*this, "conf/localhost.pem", true, "localhost",
                                "DNS:localhost,IP:127.0.0.1");
                makeCertificate(*this, "conf/other.pem", true, "other.test", "IP:127.0.0.2");
                installModule(*this / "webapps/app/WEB-INF/classes", "transport", "transport");
                write("webapps/app/WEB-INF/web.xml",
                      "<web-app>\n<servlet-mapping><servlet-name>transport</servlet-name>"
                      "<url-pattern>/transport</url-pattern></servlet-mapping>\n</web-app>\n");
                write("webapps/ROOT/big.bin", noise(10 << 20));
                secureXml();
        }

        // Rewrites conf/server.xml; every secure listener gets the extra attributes.
        void secureXml(const std::string& attributes = "") const {
                std::string connectors;
                for (const char* address : {"127.0.0.1", "127.0.0.2", "127.0.0.3"})
                        connectors += "<Connector address=\"" + std::string(address) +
                                      "\" port=\"" + std::to_string(port) +
                                      "\" secure=\"true\" processors=\"4\" " + attributes + "/>\n";
                write("conf/server.xml",
                      "<Server>\n<License owner=\"Tests\">x</License>\n<Service>\n" + connectors +
                          "<Connector address=\"127.0.0.1\" port=\"" + std::to_string(plainPort) +
                          "\" processors=\"4\"/>\n" + R"(<Engine defaultHost="localhost">
<Errorlogger directory="logs" fileName="error.log"/>
<Host name="localhost" appBase="webapps" alias="127.0.0.1" certificate="conf/localhost.pem"
      address="127.0.0.1">
<Accesslogger directory="logs" fileName="access.log"/>
<Context path="" docBase="ROOT"/>
<Context path="/app" docBase="app"/>
</Host>
<Host name="127.0.0.2" appBase="other" certificate="conf/other.pem" address="127.0.0.2">
<Context path="/site" docBase="site"/>
</Host>
</Engine>
</Service>
</Server>
)");
        }

        // curl against https://NAME:port with the certificate of the host trusted, and the
        // name pinned to its address, so that a wrong certificate fails the command. The
        // server closes each connection behind its answer, so that none is left open when
        // the test stops it.
        std::string curl(const std::string& options, const std::string& url,
                         const std::string& trusted = "conf/localhost.pem") const {
                return run(
                    "curl -sS --noproxy '*' -H 'Connection: close' --max-time 60 --resolve "
                    "localhost:" +
                    std::to_string(port) + ":127.0.0.1 --cacert " + (*this / trusted) + " " +
                    options + " '" + url + "'");
        }

        std::string url(const std::string& path, const std::string& host = "localhost") const {
                return "https://" + host + ":" + std::to_string(port) + path;
        }

        std::string errorLog() const { return readFile(*this / "logs/error.log"); }
};

class TlsDeploy : public testing::Test {
protected:
        void SetUp() override {
                if (access("/usr/bin/curl", X_OK) != 0 || access("/usr/bin/openssl", X_OK) != 0)
                        GTEST_SKIP() << "curl and openssl are needed here";
        }

        // The launcher on the home; the test fails unless it started.
        void start() {
                server = std::make_unique<Server>(home, false);
                ASSERT_TRUE(server->ready()) << readFile(home / "logs/launcher.out");
        }

        // The server stops cleanly and, under the sanitizers, leak-free.
        void TearDown() override {
                if (server) {
                        EXPECT_EQ(server->stop(), 0) << readFile(home / "logs/launcher.out");
                }
        }

        TlsHome home;
        std::unique_ptr<Server> server;
};

/* ------------------------------------------------------------- Pages and hosts */

TEST_F(TlsDeploy, PageOverHttpsIsSecureAndForwardedProtoOnlyNamesTheScheme) {
        start();
        EXPECT_EQ(home.curl("", home.url("/")), "root index");
        EXPECT_EQ(home.curl("", home.url("/app/transport")), "secure=1 scheme=https");
        // The header renames the scheme on every connector, for links behind a proxy; it
        // never makes a plain connection secure.
        EXPECT_EQ(home.curl("-H 'X-Forwarded-Proto: http'", home.url("/app/transport")),
                  "secure=1 scheme=http");
        std::string plain = "http://127.0.0.1:" + std::to_string(home.plainPort) + "/app/transport";
        std::string curl = "curl -sS --noproxy '*' -H 'Connection: close' ";
        EXPECT_EQ(run(curl + "'" + plain + "'"), "secure=0 scheme=http");
        EXPECT_EQ(run(curl + "-H 'X-Forwarded-Proto: https' '" + plain + "'"),
                  "secure=0 scheme=https");
}

TEST_F(TlsDeploy, EachAddressPresentsTheCertificateOfItsOwnHost) {
        start();
        std::string port = std::to_string(home.port);
        // The name the client asks for changes nothing: the address picks the host.
        auto scan = [&](const std::string& address, const std::string& name) {
                return run(
                    "printf 'GET / HTTP/1.1\\r\\nHost: localhost\\r\\nConnection: "
                    "close\\r\\n\\r\\n' | openssl s_client -ign_eof -connect " +
                    address + ":" + port + " -servername " + name);
        };
        std::string first = scan("127.0.0.1", "other.test");
        EXPECT_TRUE(contains(first, "CN = localhost")) << first;
        EXPECT_FALSE(contains(first, "other.test\n")) << first;
        std::string second = scan("127.0.0.2", "localhost");
        EXPECT_TRUE(contains(second, "CN = other.test")) << second;
        EXPECT_FALSE(contains(second, "CN = localhost")) << second;
        // Each verifies against its own certificate only, and serves its own host.
        EXPECT_EQ(home.curl("", home.url("/site/", "127.0.0.2"), "conf/other.pem"), "other site");
        EXPECT_TRUE(contains(home.curl("", home.url("/site/", "127.0.0.2")), "curl: (60)"));
        EXPECT_EQ(home.curl("", home.url("/")), "root index");
        int s = dialFrom("127.0.0.2", home.port);
        ASSERT_GE(s, 0);
        RawTlsClient tls(s);
        ASSERT_TRUE(tls.connect());
        EXPECT_EQ(tls.peerName(), "other.test");
        tls.close();
        readAll(s);  // until the server has closed too
        close(s);
}

// A client that cannot be served learns why: by the TLS alert, read before an orderly close
// (a scanner that is reset instead stops its scan with a send error), or, for an address
// with no host, from the operator's error log.
TEST_F(TlsDeploy, RefusedConnectionsAreExplained) {
        start();
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        {
                RawTlsClient tls(s, TLS1_VERSION, TLS1_1_VERSION);
                ERR_clear_error();
                EXPECT_FALSE(tls.connect());
                EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()),
                          SSL_R_TLSV1_ALERT_PROTOCOL_VERSION);
                ERR_clear_error();
        }
        char c;
        EXPECT_EQ(read(s, &c, 1), 0) << strerror(errno);
        close(s);
        s = dialFrom("127.0.0.3", home.port);
        ASSERT_GE(s, 0);
        {
                RawTlsClient tls(s);
                EXPECT_FALSE(tls.connect());
        }
        close(s);
        EXPECT_TRUE(eventually([&] {
                return contains(home.errorLog(),
                                "SSL Connector: No host registered to accept secure connection "
                                "for 127.0.0.3.\nPlease set the attributes; address and "
                                "certificate for the <Host> in server.xml\nwhich should process "
                                "SSL requests directed at this interface\n");
        })) << home.errorLog();
        // The others go on serving.
        EXPECT_EQ(home.curl("", home.url("/")), "root index");
}

/* ------------------------------------------------------ Connections and bodies */

TEST_F(TlsDeploy, KeepAliveServesManyRequestsOnOneHandshake) {
        start();
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        RawTlsClient tls(s);
        ASSERT_TRUE(tls.connect());
        for (int i = 0; i < 5; i++) {
                ASSERT_TRUE(tls.send("GET /app/transport HTTP/1.1\r\nHost: localhost\r\n\r\n"));
                Reply r = parse(tls.receiveResponse());
                EXPECT_EQ(r.status, 200) << i;
                EXPECT_EQ(r.body, "secure=1 scheme=https") << i;
                EXPECT_NE(r.header("Connection"), "close") << i;
        }
        ASSERT_TRUE(tls.send("GET / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"));
        EXPECT_EQ(parse(tls.receiveResponse()).body, "root index");
        close(s);
}

TEST_F(TlsDeploy, TenMebibytesGoOutAndComeInByteExact) {
        start();
        std::string sent = readFile(home / "webapps/ROOT/big.bin");
        std::string out = home / "out.bin";
        EXPECT_EQ(home.curl("-o " + out, home.url("/big.bin")), "");
        EXPECT_TRUE(readFile(out) == sent) << "the static file came back altered";
        unlink(out.c_str());
        EXPECT_EQ(home.curl("-H 'Content-Type: text/xml' --data-binary @" +
                                (home / "webapps/ROOT/big.bin") + " -o " + out,
                            home.url("/app/transport")),
                  "");
        EXPECT_TRUE(readFile(out) == sent) << "the upload came back altered";
}

/* ------------------------------------------------------------- The handshake */

// A ClientHello that trickles in over the whole connectionTimeout is a slow link, not a
// slow request: the handshake has its own clock, and the head its whole budget after it.
TEST_F(TlsDeploy, SlowClientHelloIsServedWithinATwoSecondTimeout) {
        home.secureXml("connectionTimeout=\"2\"");
        start();
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        RawTlsClient tls(s);
        std::string hello = tls.firstFlight();
        ASSERT_GT(hello.size(), 5u);
        size_t piece = hello.size() / 5 + 1;
        for (size_t at = 0; at < hello.size(); at += piece) {
                if (at > 0)
                        std::this_thread::sleep_for(500ms);
                std::string part = hello.substr(at, piece);
                ASSERT_EQ(send(s, part.data(), part.size(), MSG_NOSIGNAL),
                          static_cast<ssize_t>(part.size()));
        }
        ASSERT_TRUE(tls.connect());
        ASSERT_TRUE(tls.send(
            "GET /app/transport HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"));
        Reply r = parse(tls.receiveResponse());
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body, "secure=1 scheme=https");
        close(s);
}

// A handshake cannot be stretched for ever by a byte now and then: it is closed long before
// its ClientHello is through, with no answer.
TEST_F(TlsDeploy, HandshakeTrickledForEverIsClosed) {
        home.secureXml("connectionTimeout=\"1\"");
        start();
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        RawTlsClient tls(s);
        std::string hello = tls.firstFlight();
        bool closed = false;
        for (size_t at = 0; at < hello.size() && !closed; at++) {
                std::this_thread::sleep_for(200ms);
                closed = send(s, &hello[at], 1, MSG_NOSIGNAL) != 1;
        }
        EXPECT_TRUE(closed);
        EXPECT_EQ(readAll(s), "");
        close(s);
}

}  // namespace
