// Request heads over loopback against a connector with strict="true", which answers 400 with
// a message naming the header wherever the standard forbids what a lenient reading lets
// pass, and against a default connector, which stays lenient but never lets a folded line
// pass for a header of its own.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ServerSupport.hpp"

namespace {

using namespace e2e;

struct Case {
        std::string head;
        int status;
        std::string text;  // the error message, or the servlet's answer
};

const std::string kGet = "GET /app/params HTTP/1.1\r\nConnection: close\r\n";
const std::string kPost = "POST /app/params HTTP/1.1\r\nConnection: close\r\n";
const std::string kHost = "Host: localhost\r\n";
const std::string kServed = "params=0 parts=0 scheme=http";

class Heads : public testing::TestWithParam<bool> {
protected:
        Heads() { installModule(home / "webapps/app/WEB-INF/classes", "params", "params"); }

        void expect(const std::vector<Case>& cases) {
                for (const Case& c : cases) {
                        Reply r = roundTrip(home.port, c.head);
                        EXPECT_EQ(r.status, c.status) << c.head;
                        if (c.status == 200)
                                EXPECT_EQ(r.body, c.text) << c.head;
                        else
                                EXPECT_TRUE(contains(r.body, "</h2>" + c.text + "\r\n"))
                                    << c.head << r.body;
                }
        }
        Home home;
};

TEST_P(Heads, StrictConnectorRejectsWhatTheStandardForbids) {
        home.serverXml("strict=\"true\"");
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        expect({
            // Framing of the body: one length of digits, or chunked alone.
            {kGet + kHost + "Content-Length: 0\r\nContent-Length: 0\r\n\r\n", 400,
             "Duplicate Content-Length header"},
            {kPost + kHost + "Content-Length: 1x\r\n\r\n", 400, "Invalid Content-Length header"},
            {kPost + kHost + "Content-Length: 1, 1\r\n\r\n", 400, "Invalid Content-Length header"},
            {kPost + kHost + "Content-Length: 99999999999999999999\r\n\r\n", 400,
             "Invalid Content-Length header"},
            {kPost + kHost + "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n0\r\n\r\n",
             400, "Content-Length with Transfer-Encoding"},
            {kGet + kHost + "Transfer-Encoding: gzip, chunked\r\n\r\n", 400,
             "Unsupported Transfer-Encoding"},
            {kGet + kHost + "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n", 400,
             "Unsupported Transfer-Encoding"},
            // Line folding, after any header, and a blank line start before the first one.
            {kGet + kHost + "X-A: a\r\n b\r\n\r\n", 400, "Obsolete line folding in header"},
            {kGet + kHost + " X-Forwarded-Proto: https\r\n\r\n", 400,
             "Obsolete line folding in header"},
            {"GET /app/params HTTP/1.1\r\n Host: localhost\r\n\r\n", 400, "Invalid request header"},
            {kGet + "Host : localhost\r\n\r\n", 400, "Whitespace before colon in header"},
            {kGet + kHost + "X-A\t: 1\r\n\r\n", 400, "Whitespace before colon in header"},
            // One Host, and a host name in it.
            {kGet + kHost + kHost + "\r\n", 400, "Duplicate Host header"},
            {kGet + "Host: local host\r\n\r\n", 400, "Invalid Host header"},
            {kGet + "Host: user@localhost\r\n\r\n", 400, "Invalid Host header"},
            {kGet + "Host: a%2\r\n\r\n", 400, "Invalid Host header"},
            {kGet + "Host: localhost:80x\r\n\r\n", 400, "Invalid Host header"},
            {kGet + "Host: [g::1]\r\n\r\n", 400, "Invalid Host header"},
            // What the standard allows still passes.
            {kGet + "Host: localhost:8080\r\n\r\n", 200, kServed},
            {kGet + "Host: [::1]:8080\r\n\r\n", 200, kServed},
            {kGet + "Host: [::ffff:127.0.0.1]\r\n\r\n", 200, kServed},
            {kGet + "Host: 127.0.0.1\r\n\r\n", 200, kServed},
            {kGet + "Host: ex%41mple.test\r\n\r\n", 200, kServed},
            {kGet + "Host: \r\n\r\n", 200, kServed},
            {kPost + kHost + "Content-Length: 0\r\nX-A: a\r\n\r\n", 200, kServed},
            {kPost + kHost + "Content-Length: 007\r\n\r\nx=1&y=2", 200,
             "params=2 parts=0 scheme=http"},
        });
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(Heads, DefaultConnectorIsLenientButFoldsNoHeaderIn) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        expect({
            // A continuation after a header with a one-line value would be read as a header
            // of its own, and here switch the scheme.
            {kGet + kHost + " X-Forwarded-Proto: https\r\n\r\n", 400, "Invalid request header"},
            {kGet + "Connection: keep-alive\r\n\tX-Forwarded-Proto: https\r\n" + kHost + "\r\n",
             400, "Invalid request header"},
            {kGet + kHost + "Content-Length: 0\r\n X-Forwarded-Proto: https\r\n\r\n", 400,
             "Invalid request header"},
            {"GET /app/params HTTP/1.1\r\n X-Forwarded-Proto: https\r\n" + kHost + "\r\n", 400,
             "Invalid request header"},
            // After a generic header the line joins its value.
            {kGet + kHost + "X-A: a\r\n X-Forwarded-Proto: https\r\n\r\n", 200, kServed},
            {kGet + kHost + "X-Forwarded-Proto: https\r\n\r\n", 200,
             "params=0 parts=0 scheme=https"},
            // What only a strict connector refuses.
            {kGet + kHost + "Content-Length: 0\r\nContent-Length: 0\r\n\r\n", 200, kServed},
            {kGet + "Host : localhost\r\n\r\n", 200, kServed},
            {kGet + kHost + kHost + "\r\n", 200, kServed},
            {kGet + "Host: local host\r\n\r\n", 200, kServed},
            {kPost + kHost + "Content-Length: 3x\r\n\r\nx=1", 200, "params=1 parts=0 scheme=http"},
        });
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

INSTANTIATE_TEST_SUITE_P(Server, Heads, testing::Bool(), way);

}  // namespace
