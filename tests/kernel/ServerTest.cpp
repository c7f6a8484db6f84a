// The whole server over loopback: a home written for each test, served by the launcher in
// a child process or by Build on a thread of this process, and spoken to in plain HTTP.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <vesk/Build.h>
#include <vesk/Exception.h>
#include <vesk/Reactor.h>

#include "../Gzip.hpp"
#include "KernelSupport.hpp"

extern char** environ;

namespace {

using namespace std::chrono_literals;

bool eventually(const std::function<bool()>& done) {
        for (auto end = std::chrono::steady_clock::now() + 20s;
             std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(10ms))
                if (done())
                        return true;
        return false;
}

bool exists(const std::string& path) {
        return access(path.c_str(), F_OK) == 0;
}

sockaddr_in loopback(int port) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return a;
}

// A port that nothing listens on now.
int freePort() {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = loopback(0);
        socklen_t n = sizeof a;
        bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &n);
        close(s);
        return ntohs(a.sin_port);
}

// A connected socket, or -1; a small receive buffer makes the server wait for the reader.
int dial(int port, int receiveBuffer = 0) {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        timeval limit = {20, 0};
        setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        if (receiveBuffer)
                setsockopt(s, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_in a = loopback(port);
        if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
                close(s);
                return -1;
        }
        return s;
}

std::string readAll(int s, size_t most = std::string::npos) {
        std::string got;
        char buffer[65536];
        while (got.size() < most) {
                ssize_t n = read(s, buffer, std::min(sizeof buffer, most - got.size()));
                if (n <= 0)
                        break;
                got.append(buffer, static_cast<size_t>(n));
        }
        return got;
}

struct Reply {
        int status = 0;
        std::string head, body;

        // The value of the header name (its case as the server writes it), or "".
        std::string header(const std::string& name) const {
                size_t at = head.find("\r\n" + name + ": ");
                if (at == std::string::npos)
                        return "";
                at += name.size() + 4;
                return head.substr(at, head.find("\r\n", at) - at);
        }
};

Reply parse(const std::string& raw) {
        Reply r;
        size_t end = raw.find("\r\n\r\n");
        if (raw.size() < 12 || end == std::string::npos)
                return r;
        r.status = std::stoi(raw.substr(9, 3));
        r.head = raw.substr(0, end + 2);
        r.body = raw.substr(end + 4);
        if (r.header("Transfer-Encoding") == "chunked") {
                std::string plain;
                for (size_t at = 0; at < r.body.size();) {
                        size_t line = r.body.find("\r\n", at);
                        size_t n = std::stoul(r.body.substr(at, line - at), nullptr, 16);
                        if (n == 0)
                                break;
                        plain += r.body.substr(line + 2, n);
                        at = line + 2 + n + 2;
                }
                r.body = plain;
        }
        return r;
}

std::string request(const std::string& uri, const std::string& headers = "",
                    const std::string& host = "localhost", const std::string& method = "GET") {
        return method + " " + uri + " HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n" +
               headers + "\r\n";
}

// Sends one request with Connection: close and reads the answer to the end.
Reply roundTrip(int port, const std::string& text) {
        int s = dial(port);
        if (s < 0)
                return {};
        if (send(s, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
                close(s);
                return {};
        }
        Reply r = parse(readAll(s));
        close(s);
        return r;
}

// A home with two hosts: "localhost" (also 127.0.0.1) with ROOT and the application /app,
// and 127.0.0.2 (also 127.0.0.3), which has only /site and so no root application. Host
// names must resolve, and addresses do so on every machine.
struct Home : TempDir {
        int port = freePort();

        Home() {
                for (const char* dir :
                     {"conf", "logs", "webapps", "webapps/ROOT", "webapps/ROOT/WEB-INF",
                      "webapps/app", "webapps/app/WEB-INF", "webapps/app/WEB-INF/classes", "other",
                      "other/site"})
                        mkdir((*this / dir).c_str(), 0755);
                write("conf/server.xml",
                      "<Server>\n<License owner=\"Tests\">x</License>\n<Service>\n"
                      "<Connector port=\"" +
                          std::to_string(port) +
                          "\" address=\"127.0.0.1\" processors=\"4\"/>\n"
                          "<Engine defaultHost=\"localhost\">\n"
                          "<Errorlogger directory=\"logs\" fileName=\"error.log\"/>\n"
                          "<Host name=\"localhost\" appBase=\"webapps\" alias=\"127.0.0.1\">\n"
                          "<Context path=\"\" docBase=\"ROOT\"/>\n"
                          "<Context path=\"/app\" docBase=\"app\" reloadable=\"true\"/>\n"
                          "</Host>\n"
                          "<Host name=\"127.0.0.2\" appBase=\"other\" alias=\"127.0.0.3\">\n"
                          "<Context path=\"/site\" docBase=\"site\"/>\n"
                          "</Host>\n</Engine>\n</Service>\n</Server>\n");
                write("conf/web.xml",
                      "<web-app>\n"
                      "<mime-mapping><extension>html</extension><mime-type>text/html</mime-type>"
                      "</mime-mapping>\n"
                      "<mime-mapping><extension>txt</extension><mime-type>text/plain</mime-type>"
                      "</mime-mapping>\n"
                      "<welcome-file-list><welcome-file>index.html</welcome-file>"
                      "</welcome-file-list>\n</web-app>\n");
                write("webapps/ROOT/index.html", "root index");
                write("webapps/ROOT/WEB-INF/web.xml", "<web-app/>\n<!-- secret -->\n");
                write("webapps/app/index.html", "app index");
                write("webapps/app/WEB-INF/web.xml",
                      "<web-app>\n"
                      "<servlet-mapping><servlet-name>echo</servlet-name>"
                      "<url-pattern>/x/y</url-pattern></servlet-mapping>\n"
                      "<servlet-mapping><servlet-name>hello</servlet-name>"
                      "<url-pattern>/x/*</url-pattern></servlet-mapping>\n"
                      "<servlet-mapping><servlet-name>relay</servlet-name>"
                      "<url-pattern>*.do</url-pattern></servlet-mapping>\n"
                      "</web-app>\n");
                for (const char* module : {"hello", "echo", "relay", "slow", "failinit", "broken"})
                        installModule(*this / "webapps/app/WEB-INF/classes", module, module);
                write("other/site/index.html", "other site");
        }
};

// A server on a home, in a child process started by the launcher or on a thread here.
class Server {
public:
        Server(const Home& home, bool inProcess) : home_(home), inProcess_(inProcess) {
                if (inProcess_) {
                        thread_ = std::thread([this] { serve(); });
                } else {
                        std::string out = home / "logs/launcher.out";
                        posix_spawn_file_actions_t actions;
                        posix_spawn_file_actions_init(&actions);
                        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(),
                                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
                        posix_spawn_file_actions_adddup2(&actions, 1, 2);
                        std::vector<std::string> args = {VESK_LAUNCHER, "-H", home.path(), "-f",
                                                         "start"};
                        std::vector<char*> argv;
                        for (std::string& a : args)
                                argv.push_back(a.data());
                        argv.push_back(nullptr);
                        posix_spawn(&pid_, VESK_LAUNCHER, &actions, nullptr, argv.data(), environ);
                        posix_spawn_file_actions_destroy(&actions);
                }
                // The pid file is written just before the connectors start.
                ready_ = eventually([&] {
                        int s = dial(home.port);
                        if (s >= 0)
                                close(s);
                        return s >= 0 || (inProcess_ ? finished_.load() : exited());
                });
        }
        ~Server() { stop(); }

        // Whether the launcher's process has ended; it is reaped then.
        bool exited() {
                int status;
                if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_)
                        pid_ = -1;
                return pid_ < 0;
        }

        bool ready() const { return ready_; }
        std::string failure() const { return failure_; }

        // Stops as a terminal signal would; the launcher's exit status, or 0.
        int stop() {
                int status = 0;
                if (inProcess_ && thread_.joinable()) {
                        stopAsked_ = true;
                        thread_.join();
                } else if (!inProcess_ && pid_ > 0) {
                        kill(pid_, SIGTERM);
                        waitpid(pid_, &status, 0);
                        pid_ = -1;
                }
                return status;
        }

private:
        static void poll(Timer_T timer) {
                Server* self = static_cast<Server*>(Timer_getData(timer));
                if (self->stopAsked_) {
                        Reactor_cancelTimer(Reactor_getInstance(), self->timer_);
                        Build_stop(self->B_);
                }
        }

        void serve() {
                TRY
                        B_ = Build_parse(home_.path().c_str(), (home_ / "conf/server.xml").c_str());
                        Timer_T timer = Reactor_createTimer(Reactor_getInstance());
                        Timer_setData(timer, this);
                        Timer_setHandler(timer, poll);
                        timer_ = Reactor_scheduleTimer(Reactor_getInstance(), timer, 10, 10);
                        Build_start(B_);
                ELSE
                        failure_ = Exception_frame.message;
                END_TRY;
                if (B_)
                        Build_free(&B_);
                finished_ = true;
        }

        const Home& home_;
        bool inProcess_;
        bool ready_ = false;
        pid_t pid_ = -1;
        std::thread thread_;
        Build_T B_ = nullptr;
        int timer_ = -1;
        std::atomic<bool> stopAsked_{false}, finished_{false};
        std::string failure_;
};

class EndToEnd : public testing::TestWithParam<bool> {
protected:
        Reply get(const std::string& uri, const std::string& headers = "",
                  const std::string& host = "localhost", const std::string& method = "GET") {
                return roundTrip(home.port, request(uri, headers, host, method));
        }
        Home home;
};

TEST_P(EndToEnd, MapsHostsApplicationsAndServlets) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");

        struct Case {
                std::string uri, host;
                int status;
                std::string body;
        };
        const std::vector<Case> cases = {
            // Exact beats prefix beats extension beats the default servlet.
            {"/app/x/y", "localhost", 200, "echo one"},
            {"/app/x/z", "localhost", 200, "hello GET servlet=/x info=/z"},
            {"/app/x/y.do", "localhost", 200, "hello GET servlet=/x info=/y.do"},
            {"/app/a.do", "localhost", 200, "relay servlet=/a.do"},
            {"/app/", "localhost", 200, "app index"},
            // Every module answers below its own name.
            {"/app/hello", "localhost", 200, "hello GET servlet=/hello info=null"},
            {"/app/relay?go=forward&to=/hello", "localhost", 200,
             "hello GET servlet=/hello info=null"},
            {"/app/relay?go=include&to=/hello", "localhost", 200,
             "[hello GET servlet=/hello info=null]"},
            // Names and aliases pick the host; an unknown name gets the default host.
            {"/site/", "127.0.0.3", 200, "other site"},
            {"/site/index.html", "127.0.0.2:8080", 200, "other site"},
            {"/", "unknown.test", 200, "root index"},
            {"/", "127.0.0.1", 200, "root index"},
        };
        for (const Case& c : cases) {
                Reply r = get(c.uri, "", c.host);
                EXPECT_EQ(r.status, c.status) << c.uri << " " << c.host << "\n" << r.head;
                EXPECT_EQ(r.body, c.body) << c.uri << " " << c.host;
        }

        // A host without a root application has no Context for "/"; an application that
        // has no such file answers with its own 404.
        Reply none = get("/", "", "127.0.0.2");
        EXPECT_EQ(none.status, 404);
        EXPECT_TRUE(contains(none.body, "No Context found")) << none.body;
        Reply missing = get("/app/missing.html");
        EXPECT_EQ(missing.status, 404);
        EXPECT_FALSE(contains(missing.body, "No Context found")) << missing.body;
        Reply elsewhere = get("/site/index.html", "", "localhost");
        EXPECT_EQ(elsewhere.status, 404);

        // Modules that did not load or whose init raised are not there.
        EXPECT_EQ(get("/app/broken").status, 404);
        EXPECT_EQ(get("/app/failinit").status, 404);

        // A method the servlet lacks is 405, and the connection closes.
        Reply post = get("/app/echo", "Content-Length: 0\r\n", "localhost", "POST");
        EXPECT_EQ(post.status, 405);
        EXPECT_EQ(post.header("Connection"), "close");

        // A changed module in a reloadable application is picked up by the next request.
        installModule(home / "webapps/app/WEB-INF/classes", "echo_two", "echo", time(nullptr) + 10);
        EXPECT_EQ(get("/app/echo").body, "echo two");

        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
        EXPECT_TRUE(contains(readFile(home / "logs/error.log"),
                             "when calling servlet 'failinit' init method -- init of failinit "
                             "failed"));
}

TEST_P(EndToEnd, ServesFilesAndPagesAndNothingOutside) {
        std::string text;
        for (int i = 0; i < 2000; i++)
                text += "line " + std::to_string(i) + " of a text that compresses well\n";
        home.write("webapps/ROOT/big.txt", text);
        home.write("webapps/ROOT/page.csp", "<p><?cs var:html_escape(Request.Param.name) ?></p>");
        home.write("webapps/ROOT/bad.csp", "<?cs if:x ?> never closed");
        symlink((home / "conf/server.xml").c_str(), (home / "webapps/ROOT/link.txt").c_str());
        std::string large(16 << 20, 'a');
        home.write("webapps/ROOT/large.txt", large);
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");

        Reply file = get("/big.txt");
        EXPECT_EQ(file.status, 200);
        EXPECT_TRUE(file.body == text);
        EXPECT_EQ(file.header("Content-Type"), "text/plain");
        EXPECT_EQ(file.header("Content-Length"), std::to_string(text.size()));
        std::string etag = file.header("ETag"), modified = file.header("Last-Modified");
        ASSERT_FALSE(etag.empty());
        ASSERT_FALSE(modified.empty());
        for (const std::string& condition :
             {"If-None-Match: " + etag, "If-Modified-Since: " + modified}) {
                Reply r = get("/big.txt", condition + "\r\n");
                EXPECT_EQ(r.status, 304) << condition;
                EXPECT_EQ(r.body, "") << condition;
        }
        Reply gzip = get("/big.txt", "Accept-Encoding: gzip\r\n");
        EXPECT_EQ(gzip.status, 200);
        EXPECT_EQ(gzip.header("Content-Encoding"), "gzip");
        EXPECT_EQ(file.header("Vary"), "Accept-Encoding");
        EXPECT_EQ(gzip.header("Vary"), "Accept-Encoding");
        EXPECT_LT(gzip.body.size(), text.size() / 4);
        EXPECT_TRUE(gunzip(gzip.body) == text);

        // Nothing outside the application, under WEB-INF, or behind a link.
        for (const char* uri :
             {"/../conf/server.xml", "/%2e%2e/conf/server.xml", "/a/%2E%2E/%2e%2e/conf/server.xml",
              "/..%2fconf/server.xml", "/WEB-INF/web.xml", "/web-inf/web.xml", "/Web-Inf/web.xml",
              "/%57EB-INF/web.xml", "/WEB-INF/", "/link.txt", "/./link.txt"}) {
                Reply r = get(uri);
                EXPECT_NE(r.status, 200) << uri;
                EXPECT_FALSE(contains(r.body, "License") || contains(r.body, "secret"))
                    << uri << "\n"
                    << r.body;
        }

        Reply page = get("/page.csp?name=%3Cb%3E%26");
        EXPECT_EQ(page.status, 200);
        EXPECT_EQ(page.body, "<p>&lt;b&gt;&amp;</p>");
        Reply bad = get("/bad.csp");
        EXPECT_EQ(bad.status, 500);
        EXPECT_EQ(bad.body.rfind("ServerPage error:", 0), 0u) << bad.body;

        // A reader still holding the old file gets it whole after the file was replaced.
        // The request that notices the change marks the old mapping; it goes with its
        // last holder, and from then on the new file is served.
        int slow = dial(home.port, 4096);
        ASSERT_GE(slow, 0);
        std::string head = request("/large.txt");
        ASSERT_EQ(send(slow, head.data(), head.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(head.size()));
        std::string start = readAll(slow, 4096);
        std::string replaced(16 << 20, 'b');
        home.write("webapps/ROOT/large.new", replaced);
        struct utimbuf later = {time(nullptr) + 10, time(nullptr) + 10};
        utime((home / "webapps/ROOT/large.new").c_str(), &later);
        rename((home / "webapps/ROOT/large.new").c_str(),
               (home / "webapps/ROOT/large.txt").c_str());
        EXPECT_EQ(get("/large.txt").status, 200);
        Reply old = parse(start + readAll(slow));
        close(slow);
        EXPECT_EQ(old.body.size(), large.size());
        EXPECT_TRUE(old.body == large);
        EXPECT_TRUE(get("/large.txt").body == replaced);
        // Under the sanitizers a leak or fault in the server shows in its exit status.
        EXPECT_EQ(server.stop(), 0) << readFile(home / "logs/launcher.out");
}

TEST_P(EndToEnd, StopLetsRequestsInFlightFinish) {
        Server server(home, GetParam());
        ASSERT_TRUE(server.ready()) << server.failure() << readFile(home / "logs/launcher.out");
        std::future<Reply> inFlight =
            std::async(std::launch::async, [&] { return get("/app/slow?ms=1500"); });
        ASSERT_TRUE(eventually([&] { return exists(home / "webapps/app/slow.started"); }));
        std::future<int> stopped = std::async(std::launch::async, [&] { return server.stop(); });
        // New connections are refused at once, while the request is answered in full.
        EXPECT_TRUE(eventually([&] {
                int s = dial(home.port);
                if (s >= 0)
                        close(s);
                return s < 0;
        }));
        Reply r = inFlight.get();
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body, "slept 1500");
        EXPECT_EQ(stopped.get(), 0);
        EXPECT_TRUE(exists(home / "webapps/app/slow.destroyed"));
        EXPECT_FALSE(exists(home / "logs/Vesk.pid"));
}

INSTANTIATE_TEST_SUITE_P(Server, EndToEnd, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& info) {
                                 return info.param ? "InProcess" : "Launcher";
                         });

}  // namespace
