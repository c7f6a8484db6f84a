// The launcher as a user runs it: "start" makes a daemon and returns only once the server
// serves, or with the reason it could not; "stop" returns once the process is gone.
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
        std::string out = home / "logs/launcher.out";
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

}  // namespace
