// Where one request ends and the next begins: the interim answer to a client that waits
// before it sends its body, bodies on methods that take none, and answers that must reach
// a client still sending. Raw bytes over loopback, since a client library hides each fault.
#include <gtest/gtest.h>

#include <errno.h>
#include <poll.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/ServerSupport.hpp"

namespace {

using namespace e2e;

const std::string kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
constexpr long kLimit = 1 << 20;
const std::string kForm = "Content-Type: application/x-www-form-urlencoded\r\n";
const std::string kSmuggled = "GET /app/upload?tag=smuggled HTTP/1.1\r\nHost: localhost\r\n\r\n";

std::string head(const std::string& method, const std::string& uri, const std::string& headers = "",
                 const std::string& protocol = "HTTP/1.1") {
        return method + " " + uri + " " + protocol + "\r\nHost: localhost\r\n" + headers + "\r\n";
}

std::string length(size_t n) {
        return "Content-Length: " + std::to_string(n) + "\r\n";
}

// Lets what was sent go out as a packet of its own before more follows: the server may
// answer meanwhile, and nothing is read here.
void pause(int s) {
        pollfd p = {s, POLLIN, 0};
        poll(&p, 1, 100);
}

// One server per test, whose application answers every method at /app/upload with what
// reached it, and whose connector refuses bodies above 1 MiB.
class RequestFraming : public testing::TestWithParam<bool> {
protected:
        RequestFraming() {
                installModule(home / "webapps/app/WEB-INF/classes", "upload", "upload");
                home.serverXml("contentLengthLimit=\"" + std::to_string(kLimit) + "\"");
        }
        Home home;
};

/* ------------------------------------------------------- The interim answer */

TEST_P(RequestFraming, ClientWaitingBeforeItsBodyIsAskedForIt) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        // The head alone: the server asks for the body, and then answers the request.
        ASSERT_TRUE(sendAll(s, head("POST", "/app/upload?tag=one",
                                    kForm + length(10) + "Expect: 100-continue\r\n")));
        EXPECT_EQ(readAll(s, kContinue.size()), kContinue);
        ASSERT_TRUE(sendAll(s, "data=hello"));
        Reply r = parse(readResponse(s));
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body, "POST tag=one length=10 data=hello");
        // A body sent along with its head is not waited for, so nothing comes before the
        // answer.
        ASSERT_TRUE(sendAll(s, head("POST", "/app/upload?tag=two",
                                    kForm + length(10) + "Expect: 100-Continue\r\n") +
                                   "data=again"));
        std::string raw = readResponse(s);
        EXPECT_EQ(raw.rfind("HTTP/1.1 200 ", 0), 0u) << raw;
        EXPECT_EQ(parse(raw).body, "POST tag=two length=10 data=again");
        // A body on a GET is read as well (to be dropped), so it is asked for too.
        ASSERT_TRUE(sendAll(
            s, head("GET", "/app/upload?tag=three", length(5) + "Expect: 100-continue\r\n")));
        EXPECT_EQ(readAll(s, kContinue.size()), kContinue);
        ASSERT_TRUE(sendAll(s, "hello"));
        EXPECT_EQ(parse(readResponse(s)).body, "GET tag=three length=5 data=null");
        // HTTP/1.0 knows no interim answers: the body is simply awaited.
        ASSERT_TRUE(sendAll(s, head("POST", "/app/upload?tag=four",
                                    kForm + length(9) + "Expect: 100-continue\r\n", "HTTP/1.0")));
        pause(s);
        ASSERT_TRUE(sendAll(s, "data=last"));
        raw = readAll(s);
        EXPECT_EQ(raw.rfind("HTTP/1.1 200 ", 0), 0u) << raw;
        EXPECT_EQ(parse(raw).body, "POST tag=four length=9 data=last");
        close(s);
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(RequestFraming, RefusedBodyGetsTheFinalAnswerInsteadOfTheInterimOne) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        const std::string expect = "Expect: 100-continue\r\n";
        struct Case {
                std::string request;
                int status;
        } cases[] = {
            {head("POST", "/app/upload", kForm + length(kLimit + 1) + expect), 413},
            {head("POST", "/app/upload", "Bad Header: x\r\n" + length(10) + expect), 400},
            {"POST / HTTP/1.1\r\nHost: 127.0.0.2\r\n" + length(10) + expect + "\r\n", 404},
            // Only 100-continue can be met; any other expectation is refused at once.
            {head("POST", "/app/upload", kForm + length(10) + "Expect: 200-ok\r\n"), 417},
            {head("GET", "/app/upload", "Expect: x\r\n"), 417},
        };
        for (const Case& c : cases) {
                int s = dial(home.port);
                ASSERT_GE(s, 0);
                ASSERT_TRUE(sendAll(s, c.request));
                std::string raw = readAll(s);
                EXPECT_EQ(parse(raw).status, c.status) << c.request << raw;
                EXPECT_FALSE(contains(raw, "100 Continue")) << c.request << raw;
                close(s);
        }
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

/* ----------------------------------------------- Bodies on methods without one */

TEST_P(RequestFraming, BodyOnAMethodWithoutOneNeverPassesForTheNextRequest) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        for (std::string method : {"GET", "HEAD", "DELETE", "OPTIONS", "TRACE"}) {
                for (bool apart : {true, false}) {
                        SCOPED_TRACE(method + (apart ? ", body after the head" : ", one packet"));
                        int s = dial(home.port);
                        ASSERT_GE(s, 0);
                        std::string h =
                            head(method, "/app/upload?tag=first", length(kSmuggled.size()));
                        if (apart) {
                                ASSERT_TRUE(sendAll(s, h));
                                pause(s);
                                ASSERT_TRUE(sendAll(s, kSmuggled));
                        } else {
                                ASSERT_TRUE(sendAll(s, h + kSmuggled));
                        }
                        Reply first = parse(readResponse(s, method == "HEAD"));
                        EXPECT_EQ(first.status, 200);
                        EXPECT_EQ(first.header("Connection"), "keep-alive") << first.head;
                        if (method != "HEAD") {
                                EXPECT_EQ(first.body, method + " tag=first length=" +
                                                          std::to_string(kSmuggled.size()) +
                                                          " data=null");
                        }
                        // The next answer on the connection is the next request's.
                        ASSERT_TRUE(sendAll(s, head("GET", "/app/upload?tag=second")));
                        EXPECT_EQ(parse(readResponse(s)).body,
                                  "GET tag=second length=-1 data=null");
                        close(s);
                }
        }
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(RequestFraming, ChunkedBodyOnAGetEndsTheConnectionBehindItsAnswer) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        ASSERT_TRUE(
            sendAll(s, head("GET", "/app/upload?tag=first", "Transfer-Encoding: chunked\r\n")));
        pause(s);
        char size[16];
        snprintf(size, sizeof size, "%zx\r\n", kSmuggled.size());
        ASSERT_TRUE(sendAll(s, size + kSmuggled + "\r\n0\r\n\r\n"));
        std::string all = readAll(s);
        Reply r = parse(all);
        EXPECT_EQ(r.status, 200) << all;
        EXPECT_EQ(r.header("Connection"), "close") << all;
        EXPECT_EQ(r.body, "GET tag=first length=-1 data=null") << all;
        close(s);
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

/* --------------------------------------------- Answers to a client still sending */

TEST_P(RequestFraming, AnswerToAnUploadStillBeingSentIsNotLostToAReset) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        const std::string upload(10 << 20, 'u');
        struct Case {
                std::string name, head;
                int status;
        } cases[] = {
            {"over the limit", head("POST", "/app/upload", kForm + length(upload.size())), 413},
            {"bad header", head("POST", "/app/upload", "Bad Header: x\r\n" + length(upload.size())),
             400},
            {"head without end", "POST /app/upload HTTP/1.1\r\nX-Pad: ", 400},
        };
        for (const Case& c : cases) {
                int s = dial(home.port);
                ASSERT_GE(s, 0);
                timeval limit = {20, 0};
                setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
                // All of it goes out before a byte of the answer is read.
                EXPECT_TRUE(sendAll(s, c.head + upload)) << c.name << ": " << strerror(errno);
                std::string raw = readAll(s);
                EXPECT_EQ(parse(raw).status, c.status) << c.name << ": " << strerror(errno);
                close(s);
        }
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(RequestFraming, StopDoesNotWaitForAClientThatKeepsSending) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        int s = dial(home.port);
        ASSERT_GE(s, 0);
        ASSERT_TRUE(sendAll(s, head("POST", "/app/upload", kForm + length(10 << 20))));
        EXPECT_EQ(parse(readAll(s)).status, 413);
        // Only the server can end this sender, well before the lingering close's own
        // 30 seconds run out.
        std::atomic<bool> endedByServer{false};
        std::thread sender([&] {
                auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
                while (std::chrono::steady_clock::now() < end) {
                        if (send(s, "u", 1, MSG_NOSIGNAL) < 0) {
                                endedByServer = true;
                                return;
                        }
                        std::this_thread::sleep_for(std::chrono::milliseconds(20));
                }
        });
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
        sender.join();
        EXPECT_TRUE(endedByServer);
        close(s);
}

INSTANTIATE_TEST_SUITE_P(Server, RequestFraming, testing::Bool(), way);

}  // namespace
