// A kept-alive connection stays watched by the event loop while a processor thread answers
// its request: what the client sees and what the logs say must be as on a fresh
// connection, and a client that sends or closes meanwhile must neither spin the loop nor
// lose its answer.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <sstream>

#include "support/ServerSupport.hpp"

namespace {

using namespace e2e;

std::string kept(const std::string& uri, const std::string& headers = "") {
        return "GET " + uri + " HTTP/1.1\r\nHost: localhost\r\n" + headers + "\r\n";
}

int countLines(const std::string& text, const std::string& part) {
        int n = 0;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);)
                n += contains(line, part);
        return n;
}

class KeptConnection : public testing::TestWithParam<bool> {
protected:
        Home home;
};

TEST_P(KeptConnection, EachRequestIsAnsweredAndLoggedAsOnItsOwnConnection) {
        home.write("webapps/ROOT/kept.txt", "kept file\n");
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        // Files and servlets in turn on one connection, with a conditional request between.
        Reply first = parse((sendAll(s, kept("/kept.txt")), readResponse(s)));
        ASSERT_EQ(first.status, 200) << first.head;
        std::string etag = first.header("ETag");
        for (int i = 0; i < 4; i++) {
                Reply file = parse((sendAll(s, kept("/kept.txt")), readResponse(s)));
                EXPECT_EQ(file.status, 200) << i;
                EXPECT_EQ(file.body, "kept file\n") << i;
                EXPECT_EQ(file.header("ETag"), etag) << i;
                EXPECT_EQ(file.header("Content-Length"), "10") << i;
                Reply servlet = parse((sendAll(s, kept("/app/hello")), readResponse(s)));
                EXPECT_EQ(servlet.status, 200) << i;
                EXPECT_TRUE(contains(servlet.body, "hello GET")) << servlet.body;
                Reply unchanged =
                    parse((sendAll(s, kept("/kept.txt", "If-None-Match: " + etag + "\r\n")),
                           readResponse(s)));
                EXPECT_EQ(unchanged.status, 304) << i;
                EXPECT_TRUE(unchanged.body.empty());
        }
        // The last one closes: the server answers it and then closes too.
        Reply last = parse((sendAll(s, kept("/kept.txt", "Connection: close\r\n")), readAll(s)));
        close(s);
        EXPECT_EQ(last.status, 200);
        EXPECT_EQ(last.body, "kept file\n");
        // One access line per request, each with its own status; the stop flushes the log.
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
        std::string access = readFile(home / "logs/access.log");
        EXPECT_EQ(countLines(access, "\"GET /kept.txt HTTP/1.1\" 200 10 "), 6) << access;
        EXPECT_EQ(countLines(access, "\"GET /kept.txt HTTP/1.1\" 304 "), 4) << access;
        EXPECT_EQ(countLines(access, "\"GET /app/hello HTTP/1.1\" 200 "), 4) << access;
}

TEST_P(KeptConnection, ClientThatHalfClosesDuringProcessingStillGetsItsAnswer) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        ASSERT_TRUE(sendAll(s, kept("/app/slow?ms=400")));
        ASSERT_TRUE(eventually([&] { return exists(home / "webapps/app/slow.started"); }));
        // The end of the client's sending reaches the loop while the request is processed.
        shutdown(s, SHUT_WR);
        Reply r = parse(readAll(s));
        close(s);
        EXPECT_EQ(r.status, 200) << r.head;
        EXPECT_EQ(r.body, "slept 400");
        // The loop was not left spinning over that readiness, and serves the next client.
        Reply next = roundTrip(home.port, request("/app/hello"));
        EXPECT_EQ(next.status, 200);
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(KeptConnection, ClientThatLeavesDuringProcessingIsClosedAndOthersAreServed) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        for (int i = 0; i < 3; i++) {
                int s = dial(home.port);
                ASSERT_GE(s, 0);
                ASSERT_TRUE(sendAll(s, kept("/app/slow?ms=200")));
                ASSERT_TRUE(eventually([&] { return exists(home / "webapps/app/slow.started"); }));
                close(s);
                remove((home / "webapps/app/slow.started").c_str());
        }
        // Every connection comes to an end: the server's own count of open ones falls to
        // what the stop finds, and a new client is answered meanwhile.
        for (int i = 0; i < 3; i++)
                EXPECT_EQ(roundTrip(home.port, request("/app/hello")).status, 200);
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

INSTANTIATE_TEST_SUITE_P(Server, KeptConnection, testing::Bool(), way);

}  // namespace
