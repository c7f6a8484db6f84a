// A servlet module that dereferences NULL: the error log names it and the request, a
// supervised server comes back at once, and a module that keeps crashing is disabled
// while the rest of the site goes on answering.
#include <gtest/gtest.h>

#include <fstream>

#include <vesk/CrashGuard.h>

#include "support/KernelSupport.hpp"
#include "support/ServerSupport.hpp"

namespace {

using namespace e2e;

// A home whose /app maps /boom to the crashing module, and /bang to a copy of it.
struct CrashHome : Home {
        CrashHome() {
                installModule(*this / "webapps/app/WEB-INF/classes", "crash", "crash");
                installModule(*this / "webapps/app/WEB-INF/classes", "crash", "crash2");
                write("webapps/app/WEB-INF/web.xml",
                      "<web-app>\n"
                      "<servlet-mapping><servlet-name>crash</servlet-name>"
                      "<url-pattern>/boom</url-pattern></servlet-mapping>\n"
                      "<servlet-mapping><servlet-name>crash2</servlet-name>"
                      "<url-pattern>/bang</url-pattern></servlet-mapping>\n"
                      "<servlet-mapping><servlet-name>hello</servlet-name>"
                      "<url-pattern>/x/*</url-pattern></servlet-mapping>\n"
                      "</web-app>\n");
        }
};

// The sanitizer's options of this process, with the fatal signals left to the program.
std::string asanOptions() {
        const char* own = getenv("ASAN_OPTIONS");
        return std::string(own && *own ? own : "") + (own && *own ? ":" : "") + "handle_segv=0";
}

// The launcher in the foreground on home with the extra arguments; output in
// logs/launcher.out. Stopped by SIGTERM when it goes.
class Launcher {
public:
        Launcher(const Home& home, std::vector<std::string> extra) : home_(home) {
                std::string out = home / "logs/launcher.out";
                posix_spawn_file_actions_t actions;
                posix_spawn_file_actions_init(&actions);
                posix_spawn_file_actions_addopen(&actions, 1, out.c_str(),
                                                 O_WRONLY | O_CREAT | O_TRUNC, 0644);
                posix_spawn_file_actions_adddup2(&actions, 1, 2);
                std::vector<std::string> args = {VESK_LAUNCHER, "-H", home.path()};
                args.insert(args.end(), extra.begin(), extra.end());
                args.push_back("-f");
                args.push_back("start");
                std::vector<char*> argv;
                for (std::string& a : args)
                        argv.push_back(a.data());
                argv.push_back(nullptr);
                // A sanitizer would take the fault for its own report: the server's guard
                // is what is tested, so the sanitizer leaves SIGSEGV to it.
                std::vector<std::string> variables = {"ASAN_OPTIONS=" + asanOptions()};
                std::vector<char*> env = {variables[0].data()};
                for (char** e = environ; *e; e++)
                        if (strncmp(*e, "ASAN_OPTIONS=", 13) != 0)
                                env.push_back(*e);
                env.push_back(nullptr);
                posix_spawn(&pid_, VESK_LAUNCHER, &actions, nullptr, argv.data(), env.data());
                posix_spawn_file_actions_destroy(&actions);
        }
        ~Launcher() {
                if (pid_ > 0)
                        stop();
        }

        // The launcher's wait status once it has ended, -1 while it runs.
        int ended() {
                int status;
                if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
                        pid_ = -1;
                        status_ = status;
                }
                return pid_ < 0 ? status_ : -1;
        }

        int stop() {
                kill(pid_, SIGTERM);
                waitpid(pid_, &status_, 0);
                pid_ = -1;
                return status_;
        }

        pid_t pid() const { return pid_; }

private:
        const Home& home_;
        pid_t pid_ = -1;
        int status_ = -1;
};

// The pid the pid file names, or 0.
int pidIn(const Home& home) {
        std::ifstream in(home / "logs/Vesk.pid");
        int pid = 0;
        in >> pid;
        return pid;
}

bool serves(const Home& home) {
        return roundTrip(home.port, "GET /index.html HTTP/1.0\r\n\r\n").status == 200;
}

// Requests a crashing servlet; the server ends without an answer.
std::string crash(const Home& home, const std::string& uri = "/app/boom?id=7") {
        int s = dial(home.port);
        std::string request = "GET " + uri + " HTTP/1.0\r\n\r\n";
        if (s < 0 || write(s, request.data(), request.size()) < 0)
                return "no connection";
        std::string got = readAll(s);
        close(s);
        return got;
}

TEST(CrashContainment, TheErrorLogNamesTheModuleAndTheRequestAndTheServerEndsByTheSignal) {
        CrashHome home;
        Launcher server(home, {});
        ASSERT_TRUE(eventually([&] { return serves(home); }));
        EXPECT_EQ(crash(home), "");
        ASSERT_TRUE(eventually([&] { return server.ended() != -1; }));
        int status = server.ended();
        ASSERT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(WTERMSIG(status), SIGSEGV);
        std::string log = readFile(home / "logs/error.log");
        std::string module = home / "webapps/app/WEB-INF/classes/crash.clazz";
        EXPECT_NE(log.find("Fatal signal SIGSEGV in servlet module '" + module +
                           "' of context '/app' serving GET /app/boom?id=7\n"),
                  std::string::npos)
            << log;
        // Stamped as every other line of the log.
        size_t fatal = log.find(" Fatal signal");
        ASSERT_GE(fatal, 20u) << log;
        std::string stamp = log.substr(fatal - 19, 19);  // "YYYY-MM-DD HH:MM:SS"
        EXPECT_EQ(log[fatal - 20], '\n') << log;
        for (size_t i = 0; i < stamp.size(); i++)
                EXPECT_TRUE(i == 4 || i == 7 ? stamp[i] == '-'
                            : i == 10        ? stamp[i] == ' '
                            : i == 13 || i == 16 ? stamp[i] == ':'
                                                 : isdigit(static_cast<unsigned char>(stamp[i])))
                    << stamp;
        // The backtrace follows the line, from inside the handler.
        EXPECT_NE(log.find("crash.clazz(doGet"), std::string::npos) << log;
        EXPECT_NE(readFile(home / "logs/crashes").find(" " + module + "\n"), std::string::npos);
}

TEST(CrashContainment, ASupervisedServerComesBackAndDisablesAModuleThatCrashedThreeTimes) {
        CrashHome home;
        Launcher supervisor(home, {"-S"});
        ASSERT_TRUE(eventually([&] { return serves(home); }));
        for (int i = 1; i <= 3; i++) {
                int before = pidIn(home);
                ASSERT_GT(before, 0);
                EXPECT_EQ(crash(home), "") << "crash " << i;
                // The pid file never names the dead server: it goes, and the next one writes
                // its own.
                ASSERT_TRUE(eventually([&] {
                        int now = pidIn(home);
                        return now != before && now > 0 && serves(home);
                }));
                EXPECT_EQ(supervisor.ended(), -1);
                EXPECT_EQ(kill(pidIn(home), 0), 0);
        }
        Reply refused = roundTrip(home.port, "GET /app/boom HTTP/1.0\r\n\r\n");
        EXPECT_EQ(refused.status, 503);
        EXPECT_NE(refused.head.find("\r\nRetry-After: 60\r\n"), std::string::npos) << refused.head;
        EXPECT_EQ(roundTrip(home.port, "GET /app/x/1 HTTP/1.0\r\n\r\n").status, 200);
        EXPECT_TRUE(serves(home));
        std::string log = readFile(home / "logs/error.log");
        EXPECT_NE(log.find("Servlet module '" + (home / "webapps/app/WEB-INF/classes/crash.clazz") +
                           "' crashed 3 times within 10 minutes"),
                  std::string::npos)
            << log;
        // A stop reaches the server through the supervisor, which then ends too.
        int status = supervisor.stop();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_FALSE(exists(home / "logs/Vesk.pid"));
}

// How often text stands in s.
int count(const std::string& s, const std::string& text) {
        int n = 0;
        for (size_t at = s.find(text); at != std::string::npos; at = s.find(text, at + 1))
                n++;
        return n;
}

TEST(CrashContainment, ASupervisorGivesUpOnAServerThatCrashedFiveTimesWithinAMinute) {
        CrashHome home;
        Launcher supervisor(home, {"-S"});
        ASSERT_TRUE(eventually([&] { return serves(home); }));
        // Two modules, since the third crash of one disables it.
        const char* uris[] = {"/app/boom", "/app/boom", "/app/boom", "/app/bang", "/app/bang"};
        for (int i = 0; i < 4; i++) {
                int before = pidIn(home);
                EXPECT_EQ(crash(home, uris[i]), "") << uris[i] << " " << i;
                ASSERT_TRUE(eventually([&] {
                        int now = pidIn(home);
                        return now != before && now > 0 && serves(home);
                })) << i;
        }
        int last = pidIn(home);
        EXPECT_EQ(crash(home, uris[4]), "");
        ASSERT_TRUE(eventually([&] { return supervisor.ended() != -1; }));
        int status = supervisor.ended();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
        // Nothing is left running, nor a pid file naming the dead server.
        EXPECT_FALSE(exists(home / "logs/Vesk.pid"));
        EXPECT_NE(kill(last, 0), 0);
        int s = dial(home.port);
        EXPECT_LT(s, 0);
        if (s >= 0)
                close(s);
        std::string journal = readFile(home / "logs/supervisor.log");
        EXPECT_EQ(count(journal, "signal 11 (Segmentation fault) -- starting it again\n"), 4)
            << journal;
        std::string givingUp = "(pid " + std::to_string(last) +
                               ") ended on signal 11 (Segmentation fault), the 5th time within 60 "
                               "seconds -- not starting it again\n";
        EXPECT_EQ(count(journal, givingUp), 1) << journal;
        // Stamped as the error log's lines are, and said on standard error too.
        ASSERT_GE(journal.size(), 20u);
        EXPECT_TRUE(journal[4] == '-' && journal[10] == ' ' && journal[19] == ' ') << journal;
        EXPECT_EQ(count(readFile(home / "logs/launcher.out"), givingUp), 1);
}

TEST(CrashContainment, AChangedModuleOrAnUnsupervisedStartEndsTheDisabling) {
        CrashHome home;
        std::string module = home / "webapps/app/WEB-INF/classes/crash.clazz";
        time_t now = time(nullptr);
        std::string record;
        for (int i = 3; i > 0; i--)
                record += std::to_string(now - i) + " " + module + "\n";
        home.write("logs/crashes", record);
        EXPECT_TRUE(CrashGuard_tooMany((home / "logs/crashes").c_str(), module.c_str(), now - 10, now));
        // Crashes from before the module last changed, or older than the window, do not count.
        EXPECT_FALSE(CrashGuard_tooMany((home / "logs/crashes").c_str(), module.c_str(), now - 2, now));
        EXPECT_FALSE(CrashGuard_tooMany((home / "logs/crashes").c_str(), module.c_str(), 0,
                                        now + CrashGuard_Window));
        EXPECT_FALSE(CrashGuard_tooMany((home / "logs/crashes").c_str(), "/other.clazz", 0, now));
        installModule(home / "webapps/app/WEB-INF/classes", "crash", "crash", now - 100);
        {
                Launcher supervisor(home, {"-S"});
                ASSERT_TRUE(eventually([&] { return serves(home); }));
                EXPECT_EQ(roundTrip(home.port, "GET /app/boom HTTP/1.0\r\n\r\n").status, 503);
                // A new build of the module is served again.
                installModule(home / "webapps/app/WEB-INF/classes", "hello", "crash", now + 5);
                EXPECT_EQ(roundTrip(home.port, "GET /app/boom HTTP/1.0\r\n\r\n").status, 200);
        }
        installModule(home / "webapps/app/WEB-INF/classes", "crash", "crash", now - 100);
        home.write("logs/crashes", record);
        Launcher unsupervised(home, {});
        ASSERT_TRUE(eventually([&] { return serves(home); }));
        EXPECT_FALSE(exists(home / "logs/crashes"));
}

}  // namespace
