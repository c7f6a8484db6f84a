#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <vesk/Container.h>
#include <vesk/OS.h>
#include <vesk/System.h>
#include <vesk/assert.h>

#include "support/Support.hpp"

extern char** environ;

namespace {

// A home directory with logs/, conf/server.xml and webapps/ROOT, removed at the end.
struct Home {
        std::string path;
        Home() {
                char tmpl[] = "/tmp/vesk-home-XXXXXX";
                path = mkdtemp(tmpl);
                mkdir((path + "/logs").c_str(), 0755);
                mkdir((path + "/conf").c_str(), 0755);
                mkdir((path + "/webapps").c_str(), 0755);
                mkdir((path + "/webapps/ROOT").c_str(), 0755);
                // A server with one host and no connector: it starts, listens nowhere and
                // stops on a signal.
                std::ofstream(path + "/conf/server.xml")
                    << "<Server><License owner=\"test\"/><Service>"
                       "<Engine defaultHost=\"localhost\">"
                       "<Host name=\"localhost\" appBase=\"webapps\"/>"
                       "</Engine></Service></Server>\n";
        }
        ~Home() { system(("rm -rf '" + path + "'").c_str()); }
        std::string pidFile() const { return path + "/logs/Vesk.pid"; }
        void writePid(const std::string& text) const { std::ofstream(pidFile()) << text; }
};

bool exists(const std::string& path) {
        return access(path.c_str(), F_OK) == 0;
}

// Runs the launcher with args; returns its pid. Output goes to `out`.
pid_t launch(std::vector<std::string> args, const std::string& out) {
        std::vector<char*> argv{const_cast<char*>(VESK_LAUNCHER)};
        for (auto& a : args)
                argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        pid_t pid;
        EXPECT_EQ(posix_spawn(&pid, VESK_LAUNCHER, &actions, nullptr, argv.data(), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        return pid;
}

int waitExit(pid_t pid) {
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string slurp(const std::string& path) {
        std::ifstream in(path);
        return std::string(std::istreambuf_iterator<char>(in), {});
}

// Runs the launcher to completion; returns exit status and output.
std::pair<int, std::string> run(std::vector<std::string> args, const Home& home) {
        std::string out = home.path + "/out.txt";
        int status = waitExit(launch(std::move(args), out));
        return {status, slurp(out)};
}

// True once the server ignores SIGHUP and catches SIGTERM: its signal set-up is done.
bool signalsReady(pid_t pid) {
        std::ifstream in("/proc/" + std::to_string(pid) + "/status");
        unsigned long long ignored = 0, caught = 0;
        for (std::string line; std::getline(in, line);) {
                if (line.rfind("SigIgn:", 0) == 0)
                        ignored = std::stoull(line.substr(7), nullptr, 16);
                else if (line.rfind("SigCgt:", 0) == 0)
                        caught = std::stoull(line.substr(7), nullptr, 16);
        }
        return (ignored >> (SIGHUP - 1) & 1) && (caught >> (SIGTERM - 1) & 1);
}

template <typename F>
bool eventually(F&& f) {
        for (int i = 0; i < 500; i++) {
                if (f())
                        return true;
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
}

}  // namespace

TEST(Container, SettersCheckTheirPaths) {
        Home home;
        Container_T C = Container_new();
        EXPECT_EQ(Container_getHome(C), nullptr);
        EXPECT_STREQ(Container_getWorkDir(C), "/tmp");
        EXPECT_EQ(assertion([&] { Container_setHome(C, "/no/such/home"); }),
                  "Container Home '/no/such/home' does not exist");
        std::string file = home.path + "/conf/server.xml";
        EXPECT_EQ(assertion([&] { Container_setHome(C, file.c_str()); }),
                  "Container Home '" + file + "' is not a directory");
        Container_setHome(C, (home.path + "///").c_str());
        EXPECT_EQ(Container_getHome(C), home.path);
        EXPECT_STREQ(Container_Home, home.path.c_str());

        EXPECT_EQ(assertion([&] { Container_setControlFile(C, home.path.c_str()); }),
                  "The control file '" + home.path + "' is not a regular file");
        EXPECT_EQ(assertion([&] { Container_setControlFile(C, "/no/file"); }),
                  "The control file '/no/file' does not exist");
        EXPECT_EQ(assertion([&] { Container_setWorkDir(C, file.c_str()); }),
                  "Temporary working directory '" + file + "' is not a directory");
        Container_setWorkDir(C, (home.path + "/").c_str());
        EXPECT_STREQ(Container_WorkDir, home.path.c_str());
        EXPECT_TRUE(Container_isDaemon(C));
        Container_free(&C);
}

TEST(Container, HomeChecksComeInOrder) {
        Home home;
        Container_T C = Container_new();
        EXPECT_EQ(assertion([&] { Container_isRunning(C); }), "Container Home not set");
        system(("rmdir '" + home.path + "/logs'").c_str());
        Container_setHome(C, home.path.c_str());
        EXPECT_EQ(
            assertion([&] { Container_isRunning(C); }),
            "The directory 'logs' does not exist in the Vesk home directory '" + home.path + "'");
        mkdir((home.path + "/logs").c_str(), 0755);
        unlink((home.path + "/conf/server.xml").c_str());
        Container_setDaemon(C, 0);
        EXPECT_EQ(assertion([&] { Container_bootstrap(C); }),
                  "The control file '" + home.path + "/conf/server.xml' does not exist");
        Container_free(&C);
}

TEST(Container, PidFileStatesDecideWhetherAServerRuns) {
        Home home;
        Container_T C = Container_new();
        Container_setHome(C, home.path.c_str());
        EXPECT_EQ(Container_isRunning(C), 0);  // no pid file
        EXPECT_STREQ(Container_getPidFile(C), home.pidFile().c_str());
        home.writePid(std::to_string(getpid()) + "\n");
        EXPECT_EQ(Container_isRunning(C), getpid());
        home.writePid(std::to_string(getppid()) + "\n");
        EXPECT_EQ(Container_isRunning(C), getppid());
        home.writePid("999999999\n");
        EXPECT_EQ(Container_isRunning(C), 0);  // stale
        home.writePid("garbage\n");
        EXPECT_EQ(assertion([&] {
                          Container_isRunning(C);
                  }).rfind("Failed to read pid from '" + home.pidFile() + "' -- ", 0),
                  0u);
        EXPECT_EQ(assertion([&] { Container_stop(C); }).rfind("Failed to read pid from", 0), 0u);
        home.writePid("-1\n");
        EXPECT_EQ(assertion([&] { Container_isRunning(C); }),
                  "Pidfile '" + home.pidFile() + "' does not contain a valid pid number");
        Container_free(&C);
}

TEST(ContainerDeathTest, LowDescriptorLimitFailsInContainerNew) {
        auto lowLimit = [] {
                struct rlimit rl = {100, 100};
                setrlimit(RLIMIT_NOFILE, &rl);
                Container_new();
        };
        EXPECT_EXIT(lowLimit(), testing::ExitedWithCode(1),
                    "AssertException: \\(nfiles - SPARE_DESCRIPTORS\\) > 0");
}

// In a child process, which it changes for good: the identity, the supplementary groups
// and the refusals.
TEST(System, ChangeIdentityDropsRootForUserAndGroup) {
        if (getuid() != 0)
                GTEST_SKIP() << "needs root";
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
                int code = 0;
                if (System_changeIdentity("no-such-user-here", "nogroup") != 0)
                        code |= 1;
                if (System_changeIdentity("nobody", "no-such-group-here") != 0)
                        code |= 2;
                if (System_changeIdentity("nobody", "nogroup") != 1)
                        code |= 4;
                gid_t groups[8];
                int n = getgroups(8, groups);
                if (getuid() != 65534 || geteuid() != 65534 || getgid() != 65534 || n != 1 ||
                    groups[0] != 65534)
                        code |= 8;
                // No longer root: nothing more can be changed.
                if (System_changeIdentity("root", "root") != 0)
                        code |= 16;
                _exit(code);
        }
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Launcher, StartStatusStopAndSignals) {
        Home home;
        // A stale pid file does not prevent a start.
        home.writePid("999999999\n");
        pid_t server = launch({"-H", home.path, "-f", "start"}, home.path + "/server.txt");
        ASSERT_TRUE(eventually([&] {
                return slurp(home.pidFile()) == std::to_string(server) + "\n" &&
                       signalsReady(server);
        })) << slurp(home.path + "/server.txt");

        auto [status, out] = run({"-H", home.path, "status"}, home);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(out, "Vesk is running with pid " + std::to_string(server) + "\n");

        // A pid file of a live process prevents a second start, which leaves it alone.
        auto [again, warning] = run({"-H", home.path, "-f", "start"}, home);
        EXPECT_EQ(again, 0);
        EXPECT_EQ(warning, "Vesk is already running with pid " + std::to_string(server) + "\n");

        auto [stopped, said] = run({"-H", home.path, "stop"}, home);
        EXPECT_EQ(stopped, 0) << said;
        EXPECT_EQ(waitExit(server), 0);
        EXPECT_FALSE(exists(home.pidFile()));

        auto [notRunning, text] = run({"-H", home.path, "status"}, home);
        EXPECT_EQ(notRunning, 3);
        EXPECT_EQ(text, "Vesk is not running\n");

        for (int sig : {SIGTERM, SIGINT, SIGQUIT}) {
                pid_t pid = launch({"-H", home.path, "-f", "start"}, home.path + "/server.txt");
                ASSERT_TRUE(
                    eventually([&] { return exists(home.pidFile()) && signalsReady(pid); }));
                kill(pid, SIGHUP);   // ignored
                kill(pid, SIGPIPE);  // ignored
                kill(pid, sig);
                EXPECT_EQ(waitExit(pid), 0) << "signal " << sig;
                EXPECT_FALSE(exists(home.pidFile()));
        }
}

TEST(Launcher, ReportsABadHomeOnOneLine) {
        Home home;
        auto [status, out] = run({"-H", "/no/such/home", "status"}, home);
        EXPECT_EQ(status, 1);
        EXPECT_EQ(out, "vesk: Container Home '/no/such/home' does not exist\n");
        auto [usage, text] = run({"-H", home.path, "restart"}, home);
        EXPECT_EQ(usage, 2);
        EXPECT_EQ(text.rfind("vesk: unknown argument 'restart'\n", 0), 0u);
        auto [version, v] = run({"--version"}, home);
        EXPECT_EQ(version, 0);
        EXPECT_EQ(v, "Vesk 2.0\n");
}
