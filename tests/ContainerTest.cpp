#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include <vesk/Container.h>
#include <vesk/System.h>
#include <vesk/assert.h>

#include "support/Support.hpp"
#include "support/TempDir.hpp"

namespace {

// A home directory with logs/ and conf/server.xml.
struct Home : TempDir {
        Home() {
                mkdir((*this / "logs").c_str(), 0755);
                mkdir((*this / "conf").c_str(), 0755);
                write("conf/server.xml", "<Server/>\n");
        }
        std::string pidFile() const { return *this / "logs/Vesk.pid"; }
        void writePid(const std::string& text) const { write("logs/Vesk.pid", text); }
};

}  // namespace

TEST(Container, SettersCheckTheirPaths) {
        Home home;
        Container_T C = Container_new();
        EXPECT_EQ(Container_getHome(C), nullptr);
        EXPECT_STREQ(Container_getWorkDir(C), "/tmp");
        EXPECT_EQ(assertion([&] { Container_setHome(C, "/no/such/home"); }),
                  "Container Home '/no/such/home' does not exist");
        std::string file = home.path() + "/conf/server.xml";
        EXPECT_EQ(assertion([&] { Container_setHome(C, file.c_str()); }),
                  "Container Home '" + file + "' is not a directory");
        Container_setHome(C, (home.path() + "///").c_str());
        EXPECT_EQ(Container_getHome(C), home.path());
        EXPECT_STREQ(Container_Home, home.path().c_str());

        EXPECT_EQ(assertion([&] { Container_setControlFile(C, home.path().c_str()); }),
                  "The control file '" + home.path() + "' is not a regular file");
        EXPECT_EQ(assertion([&] { Container_setControlFile(C, "/no/file"); }),
                  "The control file '/no/file' does not exist");
        EXPECT_EQ(assertion([&] { Container_setWorkDir(C, file.c_str()); }),
                  "Temporary working directory '" + file + "' is not a directory");
        Container_setWorkDir(C, (home.path() + "/").c_str());
        EXPECT_STREQ(Container_WorkDir, home.path().c_str());
        EXPECT_TRUE(Container_isDaemon(C));
        Container_free(&C);
}

TEST(Container, HomeChecksComeInOrder) {
        Home home;
        Container_T C = Container_new();
        EXPECT_EQ(assertion([&] { Container_isRunning(C); }), "Container Home not set");
        rmdir((home / "logs").c_str());
        Container_setHome(C, home.path().c_str());
        EXPECT_EQ(
            assertion([&] { Container_isRunning(C); }),
            "The directory 'logs' does not exist in the Vesk home directory '" + home.path() + "'");
        mkdir((home.path() + "/logs").c_str(), 0755);
        unlink((home.path() + "/conf/server.xml").c_str());
        Container_setDaemon(C, 0);
        EXPECT_EQ(assertion([&] { Container_bootstrap(C); }),
                  "The control file '" + home.path() + "/conf/server.xml' does not exist");
        Container_free(&C);
}

TEST(Container, PidFileStatesDecideWhetherAServerRuns) {
        Home home;
        Container_T C = Container_new();
        Container_setHome(C, home.path().c_str());
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
