// The whole server over loopback for end-to-end tests: a home written for each test, served
// by the launcher in a child process or by Build on a thread of this process, and spoken to
// in raw HTTP bytes.
#pragma once

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

#include "support/Gzip.hpp"
#include "support/KernelSupport.hpp"

extern char** environ;

namespace e2e {

using namespace std::chrono_literals;

inline bool eventually(const std::function<bool()>& done) {
        for (auto end = std::chrono::steady_clock::now() + 20s;
             std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(10ms))
                if (done())
                        return true;
        return false;
}

inline bool exists(const std::string& path) {
        return access(path.c_str(), F_OK) == 0;
}

inline sockaddr_in loopback(int port) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return a;
}

// A port that nothing listens on now.
inline int freePort() {
        int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = loopback(0);
        socklen_t n = sizeof a;
        bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
        getsockname(s, reinterpret_cast<sockaddr*>(&a), &n);
        close(s);
        return ntohs(a.sin_port);
}

// A connected socket, or -1; a small receive buffer makes the server wait for the reader.
inline int dial(int port, int receiveBuffer = 0) {
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

inline std::string readAll(int s, size_t most = std::string::npos) {
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

inline Reply parse(const std::string& raw) {
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

inline std::string request(const std::string& uri, const std::string& headers = "",
                    const std::string& host = "localhost", const std::string& method = "GET") {
        return method + " " + uri + " HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n" +
               headers + "\r\n";
}

// Sends one request with Connection: close and reads the answer to the end.
inline Reply roundTrip(int port, const std::string& text) {
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

// Reads exactly one response from a kept-alive connection: the head, then a body framed by
// Content-Length or chunks (none for HEAD, 1xx, 204 and 304), or everything up to the close.
inline std::string readResponse(int s, bool head = false) {
        std::string got;
        char c;
        while (got.find("\r\n\r\n") == std::string::npos && read(s, &c, 1) == 1)
                got += c;
        Reply r = parse(got);
        if (head || r.status < 200 || r.status == 204 || r.status == 304)
                return got;
        std::string length = r.header("Content-Length");
        if (!length.empty())
                return got + readAll(s, std::stoul(length));
        if (r.header("Transfer-Encoding") != "chunked")
                return got + readAll(s);
        for (;;) {
                std::string line;
                while (line.find("\r\n") == std::string::npos && read(s, &c, 1) == 1)
                        line += c;
                got += line;
                if (line.size() < 3)
                        return got;
                size_t n = std::stoul(line, nullptr, 16);
                got += readAll(s, n + 2);
                if (n == 0)
                        return got;
        }
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
                serverXml();
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

        // Writes conf/server.xml: the connector gets the extra attributes, and the host
        // "localhost" (access log logs/access.log) the contexts given instead of ROOT at ""
        // and app at "/app".
        void serverXml(const std::string& connectorAttributes = "",
                       const std::string& localhostContexts =
                           "<Context path=\"\" docBase=\"ROOT\"/>\n"
                           "<Context path=\"/app\" docBase=\"app\" reloadable=\"true\"/>\n") const {
                write("conf/server.xml",
                      "<Server>\n<License owner=\"Tests\">x</License>\n<Service>\n"
                      "<Connector port=\"" +
                          std::to_string(port) + "\" address=\"127.0.0.1\" processors=\"4\" " +
                          connectorAttributes +
                          "/>\n"
                          "<Engine defaultHost=\"localhost\">\n"
                          "<Errorlogger directory=\"logs\" fileName=\"error.log\"/>\n"
                          "<Host name=\"localhost\" appBase=\"webapps\" alias=\"127.0.0.1\">\n"
                          "<Accesslogger directory=\"logs\" fileName=\"access.log\"/>\n" +
                          localhostContexts +
                          "</Host>\n"
                          "<Host name=\"127.0.0.2\" appBase=\"other\" alias=\"127.0.0.3\">\n"
                          "<Context path=\"/site\" docBase=\"site\"/>\n"
                          "</Host>\n</Engine>\n</Service>\n</Server>\n");
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

}  // namespace e2e
