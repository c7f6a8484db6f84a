// Hostile input against the whole server: one connection per vector, raw bytes in, and the
// exact status (or a close without any answer) out, on a lenient and on a strict connector.
// After each vector a well-formed request must still be served, so no vector may disturb the
// server itself.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ServerSupport.hpp"

namespace {

using namespace e2e;

constexpr int kClosed = 0;  // the connection ends without an answer

struct Vector {
        const char* name;
        std::string bytes;
        int lenient;  // status on a default connector, or kClosed
        int strict;   // status with strict="true", or kClosed
};

// What the server answers to bytes on a fresh connection: the status of the first response,
// or kClosed when it closes (or resets) without one.
int answer(int port, const std::string& bytes) {
        int s = dial(port);
        if (s < 0)
                return -1;
        send(s, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        Reply r = parse(readResponse(s));
        close(s);
        return r.status;
}

std::string ok(const std::string& extraHeaders = "") {
        return "GET /index.html HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" +
               extraHeaders + "\r\n";
}

std::string post(const std::string& headers, const std::string& body) {
        return "POST /app/upload HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" + headers +
               "\r\n" + body;
}

const std::vector<Vector>& vectors() {
        static const std::vector<Vector> all = {
            // The request line.
            {"well-formed", ok(), 200, 200},
            {"lower-case keywords", "get /index.html http/1.0\r\n\r\n", 200, 200},
            {"leading blank lines", "\r\n\r\n" + ok(), 200, 200},
            {"binary before the method",
             std::string("\x16\x03\x01\x02\x00\x01\x00", 7) + "\r\n\r\n", 400, 400},
            {"NUL in the method", std::string("GE\0T / HTTP/1.1\r\nHost: a\r\n\r\n", 28), 501, 501},
            {"unknown method", "BREW / HTTP/1.1\r\nHost: localhost\r\n\r\n", 501, 501},
            {"tab after the method", "GET\t/ HTTP/1.1\r\nHost: localhost\r\n\r\n", 501, 501},
            {"no target", "GET  HTTP/1.1\r\nHost: localhost\r\n\r\n", 400, 400},
            {"relative target", "GET index.html HTTP/1.1\r\nHost: localhost\r\n\r\n", 400, 400},
            {"asterisk on GET", "GET * HTTP/1.1\r\nHost: localhost\r\n\r\n", 400, 400},
            {"absolute target without path", "GET http://localhost HTTP/1.1\r\nHost: a\r\n\r\n",
             400, 400},
            {"HTTP/2.0", "GET / HTTP/2.0\r\nHost: localhost\r\n\r\n", 505, 505},
            {"HTTP/1.1 with a tail", "GET / HTTP/1.1x\r\nHost: localhost\r\n\r\n", 505, 505},
            {"no protocol", "GET /\r\nHost: localhost\r\n\r\n", 400, 400},
            {"byte above 0x7E in the path", "GET /\xC3\xA9 HTTP/1.1\r\nHost: localhost\r\n\r\n",
             400, 400},
            {"CR alone in the request line", "GET /\rX HTTP/1.1\r\nHost: localhost\r\n\r\n", 400,
             400},
            {"query name without value", "GET /?a&b=1 HTTP/1.1\r\nHost: localhost\r\n\r\n", 400,
             400},
            {"head larger than the buffer", "GET /" + std::string(5000, 'a') + " HTTP/1.1\r\n\r\n",
             400, 400},
            {"only white space", std::string(64, ' '), kClosed, kClosed},
            // Paths that climb, hide or smuggle.
            {"dot segments", "GET /../conf/server.xml HTTP/1.0\r\n\r\n", 404, 404},
            {"encoded dot segments", "GET /%2e%2e/%2E%2E/conf/server.xml HTTP/1.0\r\n\r\n", 404,
             404},
            {"encoded slash", "GET /..%2fconf%2fserver.xml HTTP/1.0\r\n\r\n", 404, 404},
            {"encoded NUL", "GET /index.html%00.txt HTTP/1.0\r\n\r\n", 404, 404},
            {"WEB-INF", "GET /WEB-INF/web.xml HTTP/1.0\r\n\r\n", 404, 404},
            {"WEB-INF in another case", "GET /app/wEb-iNf/web.xml HTTP/1.0\r\n\r\n", 404, 404},
            {"encoded WEB-INF", "GET /app/%57EB-INF/web.xml HTTP/1.0\r\n\r\n", 404, 404},
            {"CR LF encoded in the path", "GET /a%0d%0aSet-Cookie:%20x=1 HTTP/1.0\r\n\r\n", 404,
             404},
            // Header lines.
            {"header without colon", ok("Nonsense\r\n"), 400, 400},
            {"control byte in a value", ok("X-A: a\x01z\r\n"), 400, 400},
            {"NUL in a value", ok(std::string("X-A: a\0z\r\n", 10)), 400, 400},
            {"blank before the colon", ok("X-A : 1\r\n"), 200, 400},
            {"folded generic header", ok("X-A: 1\r\n  more\r\n"), 200, 400},
            {"HTTP/1.1 without Host", "GET /index.html HTTP/1.1\r\n\r\n", 400, 400},
            {"empty Host", "GET / HTTP/1.1\r\nHost:\r\n\r\n", 400, 400},
            {"Host with a bad port", "GET / HTTP/1.1\r\nHost: a:b\r\n\r\n", 400, 400},
            {"two Host headers",
             "GET /index.html HTTP/1.1\r\nHost: localhost\r\nHost: other\r\nConnection: close\r\n"
             "\r\n",
             200, 400},
            {"Host with bytes no host name has",
             "GET /index.html HTTP/1.1\r\nHost: local/host\r\nConnection: close\r\n\r\n", 200, 400},
            {"bad Connection value", ok("Connection: \x01\r\n"), 400, 400},
            {"cookie with a control byte", ok("Cookie: a=\x02\r\n"), 400, 400},
            {"bad cookie version", ok("Cookie: $Version=x; a=1\r\n"), 400, 400},
            // Framing.
            {"POST without Content-Length", post("", ""), 400, 400},
            {"negative Content-Length", post("Content-Length: -1\r\n", ""), 400, 400},
            {"well-formed form", post("Content-Length: 6\r\n", "data=x"), 200, 200},
            {"Content-Length with a tail", post("Content-Length: 2abc\r\n", "ab"), 200, 400},
            {"Content-Length with a sign", post("Content-Length: +2\r\n", "ab"), 200, 400},
            {"Content-Length past any number",
             post("Content-Length: 99999999999999999999999\r\n", ""), 413, 400},
            {"two Content-Length headers", post("Content-Length: 2\r\nContent-Length: 2\r\n", "ab"),
             200, 400},
            {"Content-Length over the limit", post("Content-Length: 99999999999\r\n", ""), 413,
             413},
            {"Content-Length with Transfer-Encoding",
             post("Content-Length: 2\r\nTransfer-Encoding: chunked\r\n", "0\r\n\r\n"), 200, 400},
            // Leniently, a chunk line is read up to its first hexadecimal digit.
            {"chunk size that is no number",
             post("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n",
                  "zz\r\nhello\r\n0\r\n\r\n"),
             200, 400},
            {"Transfer-Encoding other than chunked",
             post("Content-Length: 2\r\nTransfer-Encoding: gzip, chunked\r\n", "ab"), kClosed, 400},
            {"chunked without Content-Length", post("Transfer-Encoding: chunked\r\n", "0\r\n\r\n"),
             400, 400},
            {"PUT with Content-Range",
             "PUT /app/echo HTTP/1.1\r\nHost: localhost\r\nContent-Length: 1\r\n"
             "Content-Range: bytes 0-0/1\r\n\r\nx",
             400, 400},
            {"body on GET", ok("Content-Length: 5\r\n") + "hello", 200, 200},
            {"body on GET over the limit", ok("Content-Length: 2000000\r\n"), 413, 413},
            {"unknown expectation", ok("Expect: magic\r\n"), 417, 417},
            // Encodings.
            // A body that cannot be inflated ends the connection while it is read.
            {"gzip body that is not gzip",
             post("Content-Length: 6\r\nContent-Encoding: gzip\r\n", "data=x"), kClosed, kClosed},
            {"percent sign without digits", "GET /%zz HTTP/1.0\r\n\r\n", 404, 404},
            // A '%' without two bytes behind it ends the path.
            {"lone percent sign", "GET /index.html% HTTP/1.0\r\n\r\n", 200, 200},
            {"overlong dots", "GET /%c0%ae%c0%ae/conf/server.xml HTTP/1.0\r\n\r\n", 404, 404},
            {"query escapes without digits", "GET /index.html?a=%zz%2 HTTP/1.0\r\n\r\n", 200, 200},
            {"header name with high bytes", ok("X-\xff\xfe: 1\r\n"), 200, 200},
        };
        return all;
}

class HostileInput : public testing::TestWithParam<bool> {};

TEST_P(HostileInput, EveryVectorGetsItsAnswerAndTheServerStaysWell) {
        bool strict = GetParam();
        Home home;
        home.write("webapps/ROOT/WEB-INF/secret.txt", "secret");
        installModule(home / "webapps/app/WEB-INF/classes", "upload", "upload");
        home.serverXml(std::string("connectionTimeout=\"2\" contentLengthLimit=\"1048576\"") +
                       (strict ? " strict=\"true\"" : ""));
        Server server(home, true);
        ASSERT_TRUE(server.ready()) << server.failure();
        for (const Vector& v : vectors()) {
                int want = strict ? v.strict : v.lenient;
                EXPECT_EQ(answer(home.port, v.bytes), want) << v.name;
                ASSERT_EQ(answer(home.port, ok()), 200) << "after " << v.name;
        }
        std::string log = readFile(home / "logs/error.log");
        EXPECT_EQ(log.find("secret"), std::string::npos);
        EXPECT_EQ(server.stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Server, HostileInput, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                                 return info.param ? "Strict" : "Lenient";
                         });

}  // namespace
