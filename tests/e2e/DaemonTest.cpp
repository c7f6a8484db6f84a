// The launcher as a user runs it: "start" makes a daemon and returns only once the server
// serves, or with the reason it could not; "stop" returns once the process is gone; a server
// in the foreground ends on the terminal's signals.
#include <gtest/gtest.h>

#include <fstream>

#include "support/ServerSupport.hpp"

namespace {

using namespace e2e;

struct Outcome {
        int status = -1;
        std::string output;
};

// Runs the launcher on home with args and waits for it; its standard output and error.
Outcome launch(const Home& home, const std::vector<std::string>& args) {
        std::string out = home / "logs/command.out";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        std::vector<std::string> all = {VESK_LAUNCHER, "-H", home.path()};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& a : all)
                argv.push_back(a.data());
        argv.push_back(nullptr);
        pid_t pid = -1;
        Outcome run;
        if (posix_spawn(&pid, VESK_LAUNCHER, &actions, nullptr, argv.data(), environ) == 0) {
                int status = 0;
                while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
                        ;
                run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        posix_spawn_file_actions_destroy(&actions);
        run.output = readFile(out);
        return run;
}

// Whether the process has ended: no longer there, or a zombie that only waits for the
// process that adopted it to reap it.
bool gone(int pid) {
        if (kill(pid, 0) != 0)
                return errno == ESRCH;
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string line;
        std::getline(stat, line);
        size_t close = line.rfind(')');
        return close != std::string::npos && line.size() > close + 2 && line[close + 2] == 'Z';
}

// True once the server ignores SIGHUP and catches SIGTERM: its signal set-up is done.
bool signalsReady(int pid) {
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

class Daemon : public testing::Test {
protected:
        ~Daemon() override {
                // A daemon that a failed assertion left behind is ended here.
                std::string pid = readFile(pidFile());
                if (!pid.empty() && std::stoi(pid) > 0 && kill(std::stoi(pid), SIGTERM) == 0)
                        eventually([&] { return gone(std::stoi(pid)); });
        }

        std::string pidFile() const { return home / "logs/Vesk.pid"; }

        void expectNotRunning() {
                EXPECT_FALSE(exists(pidFile())) << readFile(pidFile());
                Outcome status = launch(home, {"status"});
                EXPECT_EQ(status.status, 3);
                EXPECT_EQ(status.output, "Vesk is not running\n");
        }

        Home home;
};

TEST_F(Daemon, StartReturnsWhenServingAndStopWhenGone) {
        Outcome start = launch(home, {"start"});
        ASSERT_EQ(start.status, 0) << start.output << readFile(home / "logs/error.log");
        // Serving the moment start returns: nothing to wait for.
        Reply r = roundTrip(home.port, request("/"));
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.body, "root index");
        std::string written = readFile(pidFile());
        ASSERT_FALSE(written.empty());
        int pid = std::stoi(written);
        Outcome status = launch(home, {"status"});
        EXPECT_EQ(status.status, 0);
        EXPECT_EQ(status.output, "Vesk is running with pid " + std::to_string(pid) + "\n");

        Outcome stop = launch(home, {"stop"});
        EXPECT_EQ(stop.status, 0) << stop.output;
        EXPECT_TRUE(gone(pid));
        expectNotRunning();
        Outcome again = launch(home, {"stop"});
        EXPECT_EQ(again.status, 0);
        EXPECT_EQ(again.output, "Vesk is not running\n");
}

TEST_F(Daemon, BadApplicationDescriptorFailsTheStart) {
        home.write("webapps/app/WEB-INF/web.xml", "<web-app>\n<servlet-mapping>\n");
        Outcome start = launch(home, {"start"});
        EXPECT_NE(start.status, 0);
        EXPECT_EQ(start.output.rfind("vesk: ", 0), 0u) << start.output;
        EXPECT_TRUE(contains(start.output, home / "webapps/app/WEB-INF/web.xml")) << start.output;
        expectNotRunning();
}

TEST_F(Daemon, PortInUseFailsTheStart) {
        int blocker = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = loopback(home.port);
        ASSERT_EQ(bind(blocker, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        ASSERT_EQ(listen(blocker, 4), 0);
        Outcome start = launch(home, {"start"});
        close(blocker);
        EXPECT_NE(start.status, 0);
        EXPECT_EQ(start.output.rfind("vesk: ", 0), 0u) << start.output;
        EXPECT_TRUE(contains(start.output, std::to_string(home.port))) << start.output;
        expectNotRunning();
}

TEST_F(Daemon, ForegroundServerEndsOnTheTerminalsSignalsOnly) {
        // A stale pid file does not prevent a start.
        home.write("logs/Vesk.pid", "999999999\n");
        for (int sig : {SIGTERM, SIGINT, SIGQUIT}) {
                Server server(home, false);
                ASSERT_TRUE(server.ready()) << readFile(home / "logs/launcher.out");
                std::string pid = readFile(pidFile());
                ASSERT_FALSE(pid.empty());
                ASSERT_TRUE(eventually([&] { return signalsReady(std::stoi(pid)); }));
                if (sig == SIGTERM) {
                        Outcome status = launch(home, {"status"});
                        EXPECT_EQ(status.status, 0);
                        EXPECT_EQ(status.output, "Vesk is running with pid " + pid);
                        // A second start leaves the running server alone.
                        Outcome again = launch(home, {"-f", "start"});
                        EXPECT_EQ(again.status, 0);
                        EXPECT_EQ(again.output, "Vesk is already running with pid " + pid);
                }
                kill(std::stoi(pid), SIGHUP);
                kill(std::stoi(pid), SIGPIPE);
                EXPECT_EQ(server.stop(sig), 0) << "signal " << sig << readFile(home / "logs/launcher.out");
                EXPECT_FALSE(exists(pidFile()));
        }
}

TEST_F(Daemon, BadArgumentsAreReportedOnOneLine) {
        Outcome bad = launch(home, {"-H", "/no/such/home", "status"});
        EXPECT_EQ(bad.status, 1);
        EXPECT_EQ(bad.output, "vesk: Container Home '/no/such/home' does not exist\n");
        Outcome usage = launch(home, {"restart"});
        EXPECT_EQ(usage.status, 2);
        EXPECT_EQ(usage.output.rfind("vesk: unknown argument 'restart'\n", 0), 0u);
        Outcome version = launch(home, {"--version"});
        EXPECT_EQ(version.status, 0);
        EXPECT_EQ(version.output, "Vesk 2.0\n");
}

}  // namespace
