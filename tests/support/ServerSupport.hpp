// The whole server over loopback for end-to-end tests: a home written for each test, served
// by the launcher in a child process or by Build on a thread of this process, and spoken to
// in raw HTTP bytes.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <future>
#include <sstream>
#include <vector>

#include <vesk/Build.h>
#include <vesk/Exception.h>
#include <vesk/Reactor.h>

#include "support/Gzip.hpp"
#include "support/KernelSupport.hpp"

extern char** environ;

namespace e2e {

using namespace std::chrono_literals;

// Names the two ways a suite runs: the launcher in a child process, or Build on a thread here.
inline std::string way(const testing::TestParamInfo<bool>& info) {
        return info.param ? "InProcess" : "Launcher";
}

// Text that differs on every line: gzip shrinks it, but not to nothing, and takes a while.
inline std::string varyingText(size_t size, const std::string& tag) {
        std::string s;
        for (unsigned i = 0; s.size() < size; i++)
                s += tag + std::to_string(i * 2654435761u) + "\n";
        s.resize(size);
        return s;
}

// The lines of text, without their newlines.
inline std::vector<std::string> lines(const std::string& text) {
        std::vector<std::string> all;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);)
                all.push_back(line);
        return all;
}

inline bool exists(const std::string& path) {
        return access(path.c_str(), F_OK) == 0;
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

        // Stops as a terminal signal would (the launcher by sig); its exit status, or 0.
        int stop(int sig = SIGTERM) {
                int status = 0;
                if (inProcess_ && thread_.joinable()) {
                        stopAsked_ = true;
                        thread_.join();
                } else if (!inProcess_ && pid_ > 0) {
                        kill(pid_, sig);
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
