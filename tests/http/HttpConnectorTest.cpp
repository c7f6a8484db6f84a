#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <string>
#include <thread>

#include <vesk/Container.h>
#include <vesk/Context.h>
#include <vesk/Engine.h>
#include <vesk/Exception.h>
#include <vesk/Host.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/Logger.h>
#include <vesk/OutputStream.h>
#include <vesk/Reactor.h>
#include <vesk/Wrapper.h>

#include "support/HttpSupport.hpp"
#include "support/Support.hpp"
#include "support/TempDir.hpp"
#include "support/TlsSupport.hpp"

namespace {

using namespace std::chrono_literals;

/* ------------------------------------------------------------- Servlets */

void print(HttpResponse_T res, const std::string& text) {
        OutputStream_write(HttpResponse_getOutputStream(res), text.data(),
                           static_cast<int>(text.size()));
}

int hello(HttpRequest_T, HttpResponse_T res) {
        print(res, "hello");
        return 0;
}

// What the request looked like after the connector's overrides.
int where(HttpRequest_T req, HttpResponse_T res) {
        print(res, std::string(HttpRequest_getScheme(req)) + "://" +
                       HttpRequest_getServerName(req) + ":" +
                       std::to_string(HttpRequest_getServerPort(req)));
        return 0;
}

std::atomic<int> bodyFilesSeen{-1};

int countBodyFiles() {
        int n = 0;
        if (DIR* d = opendir(Container_WorkDir)) {
                while (struct dirent* e = readdir(d))
                        n += strstr(e->d_name, "postdata") != nullptr;
                closedir(d);
        }
        return n;
}

// Echoes the form parameter "data" and notes the temporary body files present meanwhile.
int echo(HttpRequest_T req, HttpResponse_T res) {
        bodyFilesSeen = countBodyFiles();
        const char* data = HttpRequest_getParameter(req, "data");
        print(res, data ? data : "(none)");
        return 0;
}

// More than the stream buffer, so the head goes out before the length is known.
int big(HttpRequest_T, HttpResponse_T res) {
        std::string line(99, 'b');
        line += '\n';
        for (int i = 0; i < 300; i++)
                print(res, line);
        return 0;
}

std::atomic<bool> floodEnded{false};

// Writes until the client is gone, at most 64 MB.
int flood(HttpRequest_T, HttpResponse_T res) {
        std::string block(65536, 'f');
        OutputStream_T out = HttpResponse_getOutputStream(res);
        for (int i = 0; i < 1024 && !OutputStream_isClosed(out); i++)
                print(res, block);
        floodEnded = true;
        return 0;
}

/* --------------------------------------------------------------- Client */

std::string get(const std::string& path, const std::string& extra = "") {
        return "GET " + path + " HTTP/1.1\r\nHost: localhost\r\n" + extra + "\r\n";
}

std::string post(const std::string& path, const std::string& body, const std::string& extra = "") {
        return "POST " + path +
               " HTTP/1.1\r\nHost: localhost\r\nContent-Type: "
               "application/x-www-form-urlencoded\r\nContent-Length: " +
               std::to_string(body.size()) + "\r\n" + extra + "\r\n" + body;
}

/* --------------------------------------------------------------- Server */

// A real Engine with one host and a root application, a connector on a port the system
// picks, and the Reactor running on its own thread. Work for the Reactor thread goes
// through a pipe that the Reactor watches, so no test touches its state from outside.
class HttpConnectorTest : public testing::Test {
protected:
        TempDir dir;
        Engine_T engine = nullptr;
        Host_T host = nullptr;
        Context_T context = nullptr;
        HttpConnector_T connector = nullptr;
        int port = 0;
        std::string accessLog;
        const char* savedWorkDir = Container_WorkDir;
        int control[2] = {-1, -1};
        std::thread reactor;

        void SetUp() override {
                Container_WorkDir = dir.path().c_str();
                bodyFilesSeen = -1;
                floodEnded = false;
                engine = Engine_new();
                host = Host_new();
                Host_setName(host, "localhost");
                Host_setAppBase(host, dir.path().c_str());
                accessLog = dir / "access.log";
                Host_setAccessLogger(host, Logger_new(accessLog.c_str()));
                context = Context_new();
                Context_setDocBase(context, dir.path().c_str());
                Host_setDefaultContext(host, context);
                Engine_addHost(engine, host);
                Engine_setDefaultHost(engine, host);
                servlet("hello", "/hello", hello, hello);
                servlet("where", "/where", where, nullptr);
                servlet("echo", "/echo", nullptr, echo);
                servlet("big", "/big", big, nullptr);
                servlet("flood", "/flood", flood, nullptr);
                connector = HttpConnector_new();
                HttpConnector_setPort(connector, 0);
                HttpConnector_setBindAddress(connector, "127.0.0.1");
                HttpConnector_setEngine(connector, engine);
                HttpConnector_setConnectionTimeout(connector, 2);
                HttpConnector_setProcessorThreads(connector, 4);
                // Nothing in these tests waits out 15 idle seconds.
                HttpConnector_setKeepAliveTimeout(connector, 1);
        }

        void TearDown() override {
                stop();
                HttpConnector_free(&connector);
                Engine_free(&engine);
                Reactor_free();
                Container_WorkDir = savedWorkDir;
                EXPECT_TRUE(stackEmpty());
        }

        void servlet(const char* name, const char* pattern, Wrapper_Service doGet,
                     Wrapper_Service doPost) {
                Wrapper_T w = Context_createServlet(context, name, pattern);
                if (doGet)
                        Wrapper_setDoGet(w, doGet);
                if (doPost)
                        Wrapper_setDoPost(w, doPost);
        }

        static void runControl(EventHandler_T handler, int) {
                std::function<void()>* work;
                int fd = EventHandler_getHandle(handler);
                if (read(fd, &work, sizeof work) == sizeof work)
                        (*work)();
        }

        void start() {
                HttpConnector_start(connector);
                port = HttpConnector_getPort(connector);
                ASSERT_GT(port, 0);
                ASSERT_EQ(pipe2(control, O_CLOEXEC), 0);
                Reactor_T R = Reactor_getInstance();
                EventHandler_T h = Reactor_createHandler(R, control[0]);
                EventHandler_setPersistent(h, 1);
                EventHandler_setHandler(h, runControl);
                Reactor_registerHandler(R, h, Reactor_Read);
                reactor = std::thread([R] { Reactor_start(R); });
        }

        // Runs f on the Reactor thread and returns when it has run.
        void onReactor(std::function<void()> f) {
                std::promise<void> done;
                std::function<void()> work = [&] {
                        f();
                        done.set_value();
                };
                std::function<void()>* p = &work;
                ASSERT_EQ(write(control[1], &p, sizeof p), static_cast<ssize_t>(sizeof p));
                done.get_future().wait();
        }

        int connections() {
                int n = -1;
                onReactor([&] { n = HttpConnector_getConnections(connector); });
                return n;
        }

        // Waits until the connector holds n connections; false after 20 s.
        bool awaitConnections(int n) {
                return eventually([&] { return connections() == n; });
        }

        void stop() {
                if (!reactor.joinable())
                        return;
                EXPECT_TRUE(awaitConnections(0)) << "connections left open";
                onReactor([this] {
                        HttpConnector_stop(connector);
                        Reactor_stop(Reactor_getInstance());
                });
                reactor.join();
                close(control[0]);
                close(control[1]);
        }

        std::string accessLines() {
                onReactor([this] { Logger_flush(Host_getAccessLogger(host)); });
                std::ifstream in(accessLog);
                std::stringstream s;
                s << in.rdbuf();
                return s.str();
        }

        // One request on a new connection; the whole answer up to the server's close.
        std::string exchange(const std::string& request) {
                int fd = dial(port);
                EXPECT_TRUE(sendAll(fd, request));
                std::string answer = readAll(fd);
                close(fd);
                return answer;
        }
};

std::string errorPage(int status, const std::string& message) {
        std::string reason = HttpResponse_status(status);
        return "<html>\r\n<head><title>" + std::to_string(status) + " " + reason +
               "</title></head>\r\n<body bgcolor=\"white\">\r\n<h2>" + reason + "</h2>" + message +
               "\r\n<hr>Vesk/2.0\r\n</body>\r\n</html>\r\n";
}

// The head and page of an answer from the connector's own error path.
void expectErrorPage(const std::string& answer, int status, const std::string& message) {
        std::string status_line =
            "HTTP/1.1 " + std::to_string(status) + " " + HttpResponse_status(status) + "\r\n";
        EXPECT_EQ(answer.rfind(status_line, 0), 0u) << answer;
        EXPECT_NE(answer.find("\r\nConnection: close\r\nServer: Vesk/2.0\r\nContent-Type: "
                              "text/html\r\n\r\n"),
                  std::string::npos)
            << answer;
        size_t body = answer.find("\r\n\r\n");
        ASSERT_NE(body, std::string::npos);
        EXPECT_EQ(answer.substr(body + 4), errorPage(status, message));
}

}  // namespace

/* ------------------------------------------------------------- Settings */

TEST(HttpConnectorSettings, UnitsAndChecks) {
        HttpConnector_T H = HttpConnector_new();
        HttpConnector_setSecure(H, 1);
        EXPECT_STREQ(HttpConnector_getScheme(H), "https");
        HttpConnector_setBindAddress(H, "*");
        EXPECT_EQ(HttpConnector_getBindAddress(H), nullptr);
        HttpConnector_setConnectionTimeout(H, 2147483647);  // no overflow into the negative
        EXPECT_GT(HttpConnector_getConnectionTimeout(H), 2000000);
        HttpConnector_free(&H);
        Reactor_free();
}

TEST(HttpConnectorSettings, PortInUseRaisesAndFreesCleanly) {
        HttpConnector_T first = HttpConnector_new();
        HttpConnector_setPort(first, 0);
        HttpConnector_setBindAddress(first, "127.0.0.1");
        HttpConnector_start(first);
        HttpConnector_T second = HttpConnector_new();
        HttpConnector_setPort(second, HttpConnector_getPort(first));
        HttpConnector_setBindAddress(second, "127.0.0.1");
        EXPECT_EQ(raised([&] { HttpConnector_start(second); }).rfind("IOException: ", 0), 0u);
        HttpConnector_free(&second);
        HttpConnector_stop(first);
        HttpConnector_free(&first);
        Reactor_free();
}

/* ------------------------------------------------------- Requests served */

TEST_F(HttpConnectorTest, ServesKeepsAliveAndWritesTheAccessLog) {
        start();
        int fd = dial(port);
        ASSERT_TRUE(sendAll(fd, get("/hello", "Referer: http://x/\r\nUser-Agent: tester\r\n")));
        Reply r = parse(readResponse(fd));
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body, "hello");
        EXPECT_EQ(r.header("Connection"), "keep-alive") << r.head;
        ASSERT_TRUE(sendAll(fd, get("/hello")));
        EXPECT_EQ(parse(readResponse(fd)).body, "hello");
        close(fd);
        std::istringstream log(accessLines());
        std::string first, second, rest;
        std::getline(log, first);
        std::getline(log, second);
        EXPECT_FALSE(std::getline(log, rest));
        // "[22/Nov/2026:06:16:24 +0000]": the date as strftime writes it, then the request.
        ASSERT_EQ(first.rfind("127.0.0.1 - - [", 0), 0u) << first;
        std::string date = first.substr(15, 26);
        EXPECT_EQ(date.substr(2, 1) + date.substr(6, 1) + date.substr(11, 1) + date.substr(20, 1),
                  "//: ")
            << date;
        EXPECT_EQ(first.substr(41), "] \"GET /hello HTTP/1.1\" 200 5 \"http://x/\" \"tester\"");
        ASSERT_GT(second.size(), 42u);
        EXPECT_EQ(second.substr(41), "] \"GET /hello HTTP/1.1\" 200 5 \"-\" \"-\"");
}

TEST_F(HttpConnectorTest, KeepAliveSettingsBoundEachConnection) {
        HttpConnector_setKeepAliveRequests(connector, 3);
        HttpConnector_setKeepAliveTimeout(connector, 2);
        start();
        int fd = dial(port);
        for (int i = 1; i <= 3; i++) {
                ASSERT_TRUE(sendAll(fd, get("/hello")));
                Reply r = parse(readResponse(fd));
                ASSERT_EQ(r.body, "hello") << "request " << i;
                EXPECT_EQ(r.header(i < 3 ? "Keep-Alive" : "Connection"),
                          i < 3 ? "timeout=2, max=" + std::to_string(3 - i) : "close")
                    << r.head;
        }
        EXPECT_EQ(readAll(fd), "");
        close(fd);
}

TEST_F(HttpConnectorTest, ChunkedResponseWhenTheBodyOutgrowsTheBuffer) {
        start();
        int fd = dial(port);
        ASSERT_TRUE(sendAll(fd, get("/big")));
        Reply r = parse(readResponse(fd));
        EXPECT_EQ(r.header("Transfer-Encoding"), "chunked") << r.head;
        EXPECT_EQ(r.body.size(), 30000u);
        EXPECT_EQ(r.body.find_first_not_of("b\n"), std::string::npos);
        // The connection is still good for the next request.
        ASSERT_TRUE(sendAll(fd, get("/hello")));
        EXPECT_EQ(parse(readResponse(fd)).body, "hello");
        close(fd);
        // Only body bytes are counted, without head or chunk framing.
        EXPECT_NE(accessLines().find("\"GET /big HTTP/1.1\" 200 30000 "), std::string::npos);
}

TEST_F(HttpConnectorTest, ProxySettingsOverrideWhatTheClientSent) {
        HttpConnector_setProxyScheme(connector, "https");
        HttpConnector_setProxyName(connector, "www.example.com");
        HttpConnector_setProxyPort(connector, 443);
        start();
        std::string answer = exchange(get("/where", "Connection: close\r\n"));
        EXPECT_NE(answer.find("\r\n\r\nhttps://www.example.com:443"), std::string::npos) << answer;
}

/* ------------------------------------------------------------ Bodies */

TEST_F(HttpConnectorTest, BodyInManySmallWritesOutlastsTheReadTimeout) {
        HttpConnector_setConnectionTimeout(connector, 1);
        start();
        std::string body = "data=" + std::string(295, 'x');
        std::string request = post("/echo", body);
        int fd = dial(port);
        ASSERT_TRUE(sendAll(fd, request.substr(0, request.size() - body.size())));
        // Thirty pieces over 1.5 s: each wait for more gets the full second again.
        for (size_t i = 0; i < body.size(); i += 10) {
                std::this_thread::sleep_for(50ms);
                ASSERT_TRUE(sendAll(fd, body.substr(i, 10)));
        }
        Reply r = parse(readResponse(fd));
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body, std::string(295, 'x'));
        EXPECT_EQ(bodyFilesSeen, 0);
        close(fd);
}

TEST_F(HttpConnectorTest, BodyOverTheBufferLimitGoesThroughATemporaryFile) {
        HttpConnector_setContentLengthBufferLimit(connector, 1024);
        start();
        std::string data(20000, 'y');
        int fd = dial(port);
        ASSERT_TRUE(sendAll(fd, post("/echo", "data=" + data)));
        Reply r = parse(readResponse(fd));
        EXPECT_EQ(r.body, data);
        EXPECT_EQ(bodyFilesSeen, 1);
        close(fd);
        onReactor([] {});  // the request has ended once the Reactor is past its last write
        EXPECT_EQ(countBodyFiles(), 0);
}

TEST_F(HttpConnectorTest, BodyOverTheLimitGets413AndClientLeavingMidBodyIsDropped) {
        HttpConnector_setContentLengthLimit(connector, 100);
        start();
        expectErrorPage(exchange(post("/echo", "data=" + std::string(200, 'x'))), 413, "");
        // Half a body, then the client goes: no answer, the store is removed.
        onReactor([this] { HttpConnector_setContentLengthBufferLimit(connector, 10); });
        int fd = dial(port);
        std::string request = post("/echo", "data=" + std::string(90, 'x'));
        ASSERT_TRUE(sendAll(fd, request.substr(0, request.size() - 40)));
        EXPECT_TRUE(awaitConnections(1));
        close(fd);
        EXPECT_TRUE(awaitConnections(0));
        EXPECT_EQ(countBodyFiles(), 0);
}

/* ---------------------------------------------------- Errors and timeouts */

TEST_F(HttpConnectorTest, SilentNewConnectionGets408) {
        HttpConnector_setConnectionTimeout(connector, 1);
        // Silence is answered before the first request, whatever the connection's count.
        HttpConnector_setKeepAliveRequests(connector, 3);
        start();
        int fd = dial(port);
        auto begun = std::chrono::steady_clock::now();
        std::string answer = readAll(fd);
        EXPECT_GE(std::chrono::steady_clock::now() - begun, 900ms);
        expectErrorPage(answer, 408, "");
        close(fd);
}

TEST_F(HttpConnectorTest, IdleKeptAliveConnectionIsClosedWithoutAnAnswer) {
        start();
        int fd = dial(port);
        ASSERT_TRUE(sendAll(fd, get("/hello")));
        EXPECT_EQ(parse(readResponse(fd)).body, "hello");
        EXPECT_EQ(readAll(fd), "");
        close(fd);
}

TEST_F(HttpConnectorTest, HalfAHeadWithOneSecondOfBudgetIsDropped) {
        HttpConnector_setConnectionTimeout(connector, 1);
        start();
        int fd = dial(port);
        ASSERT_TRUE(sendAll(fd, "GET /hello HTTP/1.1\r\nHost: loc"));
        // 1000 ms less 1000 for the incomplete read: closed at once, no answer.
        auto begun = std::chrono::steady_clock::now();
        EXPECT_EQ(readAll(fd), "");
        EXPECT_LT(std::chrono::steady_clock::now() - begun, 900ms);
        close(fd);
}

TEST_F(HttpConnectorTest, HeadWithoutEndFillingTheBufferGets400) {
        start();
        // Exactly the buffer: the server reads all of it, so its close is orderly and the
        // page is not lost to a reset.
        std::string head = "GET /" + std::string(4096 - 5, 'a');
        expectErrorPage(exchange(head), 400, "Request too large");
}

TEST_F(HttpConnectorTest, ParserAndMappingFailuresAnswerWithTheirPages) {
        Host_T other = Host_new();
        Host_setName(other, "nothing.here");
        Engine_addHost(engine, other);
        start();
        expectErrorPage(exchange("GET /hello HTTP/1.1\r\n\r\n"), 400, "Host required");
        expectErrorPage(exchange("GET /hello HTTP/1.1\r\nHost: nothing.here\r\n\r\n"), 404,
                        "No Context found");
        EXPECT_EQ(accessLines(), "");  // answers of the connector itself are not logged
}

TEST_F(HttpConnectorTest, ClientLeavingMidResponseDoesNotDisturbOthers) {
        start();
        int leaving = dial(port, 4096);
        ASSERT_TRUE(sendAll(leaving, get("/flood")));
        ASSERT_EQ(readAll(leaving, 1024).size(), 1024u);
        // While the flood is stuck on a full socket, another client is served.
        int other = dial(port);
        ASSERT_TRUE(sendAll(other, get("/hello")));
        EXPECT_EQ(parse(readResponse(other)).body, "hello");
        struct linger reset = {1, 0};
        setsockopt(leaving, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        close(leaving);
        EXPECT_TRUE(eventually([] { return floodEnded.load(); }));
        ASSERT_TRUE(sendAll(other, get("/hello")));
        EXPECT_EQ(parse(readResponse(other)).body, "hello");
        close(other);
        EXPECT_TRUE(awaitConnections(0));
        EXPECT_EQ(accessLines().find("/flood"), std::string::npos);
}

TEST_F(HttpConnectorTest, PipelinedSecondRequestIsDropped) {
        start();
        int fd = dial(port);
        ASSERT_TRUE(sendAll(fd, get("/hello") + get("/hello")));
        EXPECT_EQ(parse(readResponse(fd)).body, "hello");
        EXPECT_EQ(readAll(fd), "");
        close(fd);
}

TEST_F(HttpConnectorTest, SecurePortTakesItsIdentityFromTheHostOfTheAddress) {
        Host_T secure = Host_new();
        Host_setName(secure, "secure.localhost");
        Host_setAddress(secure, "127.0.0.1");
        Host_setCertificate(secure, makeCertificate(dir).c_str());
        Engine_addHost(engine, secure);
        Host_start(secure);
        HttpConnector_setSecure(connector, 1);
        start();
        int fd = dial(port);
        {
                RawTlsClient tls(fd);
                ASSERT_TRUE(tls.connect());
                // The handshake's end reaches the server on its own, and the request
                // later: with a budget of two seconds, the handshake must not spend it.
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                ASSERT_TRUE(tls.send(get("/where", "Connection: close\r\n")));
                std::string answer = tls.receive(1 << 20);
                std::string expected = "https://localhost:" + std::to_string(port);
                EXPECT_EQ(answer.substr(answer.size() - expected.size()), expected) << answer;
        }
        close(fd);
        // A client that does not speak TLS is reset without an answer.
        EXPECT_EQ(exchange(get("/hello")), "");
}

// A TLS listener whose identity is that of a host bound to 127.0.0.1.
void makeSecure(HttpConnector_T connector, Engine_T engine, const TempDir& dir) {
        Host_T secure = Host_new();
        Host_setName(secure, "secure.localhost");
        Host_setAddress(secure, "127.0.0.1");
        Host_setCertificate(secure, makeCertificate(dir).c_str());
        Engine_addHost(engine, secure);
        Host_start(secure);
        HttpConnector_setSecure(connector, 1);
}

TEST_F(HttpConnectorTest, RefusedUploadOverTlsIsAnsweredBeforeTheClose) {
        makeSecure(connector, engine, dir);
        HttpConnector_setContentLengthLimit(connector, 1 << 20);
        start();
        // A reset must fail the test, not end the process.
        struct IgnoreBrokenPipe {
                struct sigaction saved;
                IgnoreBrokenPipe() {
                        struct sigaction ignore = {};
                        ignore.sa_handler = SIG_IGN;
                        sigaction(SIGPIPE, &ignore, &saved);
                }
                ~IgnoreBrokenPipe() { sigaction(SIGPIPE, &saved, nullptr); }
        } ignoring;
        int fd = dial(port);
        {
                RawTlsClient tls(fd);
                ASSERT_TRUE(tls.connect());
                // All of the refused body goes out before the answer is read: the server
                // must read it away instead of resetting the connection under the answer.
                EXPECT_TRUE(tls.send(post("/echo", "data=" + std::string(4 << 20, 'u'))));
                expectErrorPage(tls.receive(1 << 20), 413, "");
        }
        close(fd);
}
