#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include <vesk/Arena.h>
#include <vesk/Command.h>
#include <vesk/InputStream.h>
#include <vesk/OutputStream.h>

#include "support/Support.hpp"
#include "support/TempDir.hpp"
#include "system/CommandClock.hpp"

namespace {

// Everything the child writes to standard output, then to standard error.
std::string drain(InputStream_T in) {
        std::string text;
        char buf[512];
        for (int n; (n = InputStream_readBytes(in, buf, sizeof buf)) > 0;)
                text.append(buf, static_cast<size_t>(n));
        return text;
}

std::vector<std::string> list(List_T L) {
        std::vector<std::string> v;
        for (list_t p = L->head; p; p = p->next)
                v.emplace_back(static_cast<const char*>(p->e));
        return v;
}

// What a callback saw of the running child.
struct Seen {
        std::string out, err;
        int status = -2;
        int uid = -1, gid = -1;
        std::string input;  // written to the child's standard input first
};

// Writes Seen::input, closes the input, reads both outputs and waits for the child.
void converse(Process_T P, void* data) {
        auto seen = static_cast<Seen*>(data);
        if (!seen->input.empty()) {
                OutputStream_T out = Process_getOutputStream(P);
                OutputStream_write(out, seen->input.data(), static_cast<int>(seen->input.size()));
        }
        Process_closeOutputStream(P);
        seen->out = drain(Process_getInputStream(P));
        seen->err = drain(Process_getErrorStream(P));
        seen->status = Process_waitFor(P);
        seen->uid = Process_getUid(P);
        seen->gid = Process_getGid(P);
}

// Runs C with converse and frees it.
Seen run(Command_T C, std::string input = "") {
        Seen seen;
        seen.input = std::move(input);
        Command_setOnExec(C, converse, &seen);
        Command_execute(C);
        Command_free(&C);
        return seen;
}

Command_T shell(const char* script) {
        Command_T C = Command_new();
        Command_setCommand(C, "/bin/sh", "-c", script, nullptr);
        return C;
}

}  // namespace

TEST(Command, ChecksAndMessages) {
        Arena_T arena = Arena_new();
        EXPECT_EQ(assertion([&] {
                          Command_T C = Command_alloc(arena);
                          Command_free(&C);
                  }),
                  "(*C)->arena == NULL");
        Arena_dispose(&arena);

        Command_T C = Command_new();
        EXPECT_EQ(raised([&] { Command_setCommand(C, "/no/such/program", nullptr); }),
                  "AssertException: File '/no/such/program' does not exist");
        EXPECT_EQ(raised([&] { Command_setCommand(C, nullptr, nullptr); }),
                  "AssertException: File 'null' does not exist");
        EXPECT_EQ(raised([&] { Command_execute(C); }),
                  "AssertException: Command does not contain a program to execute");
        EXPECT_EQ(raised([&] { Command_setDir(C, "/bin/sh"); }),
                  "AssertException: The working directory '/bin/sh' is not a directory");
        Command_setCommand(C, "/bin/echo", "a", "b c", nullptr);
        Command_setCommand(C, "/bin/sh", "-c", "true", nullptr);
        EXPECT_EQ(list(Command_getCommand(C)), (std::vector<std::string>{"/bin/sh", "-c", "true"}));
        Command_setDir(C, "/tmp///");
        EXPECT_STREQ(Command_getDir(C), "/tmp");
        Command_free(&C);
}

TEST(Command, EnvironmentStartsWithPathAlone) {
        Command_T C = Command_new();
        EXPECT_STREQ(Command_getEnv(C, "PATH"), Command_Path + 5);
        Command_setEnv(C, "PATHX", "1");
        Command_setEnv(C, "PATH", "/bin");
        Command_setEnv(C, "EMPTY", nullptr);
        EXPECT_STREQ(Command_getEnv(C, "PATH"), "/bin");
        EXPECT_STREQ(Command_getEnv(C, "PATHX"), "1");
        EXPECT_STREQ(Command_getEnv(C, "EMPTY"), "");
        EXPECT_EQ(Command_getEnv(C, "PAT"), nullptr);

        Command_vSetEnv(C, " A = %d ; B=two;C;D=never", 1);
        EXPECT_STREQ(Command_getEnv(C, "A"), "1");
        EXPECT_STREQ(Command_getEnv(C, "B"), "two");
        EXPECT_EQ(Command_getEnv(C, "D"), nullptr);
        Command_vSetEnv(C, "%s", "");
        Command_vSetEnv(C, nullptr);
        // The child sees exactly these, in this order, and nothing of ours.
        Command_setCommand(C, "/usr/bin/env", nullptr);
        EXPECT_EQ(run(C).out, "PATHX=1\nPATH=/bin\nEMPTY=\nA=1\nB=two\n");
}

TEST(Process, PipesCarryInputOutputAndErrors) {
        EXPECT_EQ(run(shell("/bin/echo hello world")).out, "hello world\n");

        std::string big;
        for (int i = 0; big.size() < 200000; i++)
                big += "line " + std::to_string(i) + "\n";
        // Larger than a pipe holds: cat needs its output read while input is still written,
        // so this is written by a thread while the callback reads.
        Seen echoed;
        Command_T C = Command_new();
        Command_setCommand(C, "/bin/cat", nullptr);
        Command_setOnExec(
            C,
            [](Process_T P, void* data) {
                    auto seen = static_cast<Seen*>(data);
                    std::thread writer([&] {
                            OutputStream_T out = Process_getOutputStream(P);
                            OutputStream_write(out, seen->input.data(),
                                               static_cast<int>(seen->input.size()));
                            while (OutputStream_buffered(out) > 0 && OutputStream_flush(out) >= 0) {
                            }
                            Process_closeOutputStream(P);
                    });
                    seen->out = drain(Process_getInputStream(P));
                    writer.join();
                    seen->status = Process_waitFor(P);
            },
            &echoed);
        echoed.input = big;
        Command_execute(C);
        Command_free(&C);
        EXPECT_EQ(echoed.out.size(), big.size());
        EXPECT_TRUE(echoed.out == big);
        EXPECT_EQ(echoed.status, 0);

        Seen both = run(shell("echo out; echo oops >&2; exit 3"));
        EXPECT_EQ(both.out, "out\n");
        EXPECT_EQ(both.err, "oops\n");
        EXPECT_EQ(both.status, 3);
}

TEST(Process, ChildGetsOnlyItsEnvironmentDirectoryAndDescriptors) {
        TempDir dir;
        char real[4097];
        ASSERT_TRUE(realpath(dir.path().c_str(), real));
        // No pipeline in the script: the shell's own pipe would show among its descriptors.
        Command_T C = shell("pwd; echo \"$FOO\"; ls /proc/$$/fd");
        Command_setEnv(C, "FOO", "bar");
        Command_setDir(C, (dir.path() + "/").c_str());
        Seen seen = run(C);
        EXPECT_EQ(seen.out, std::string(real) + "\nbar\n0\n1\n2\n");
        EXPECT_EQ(seen.err, "");
}

TEST(Process, NoCallbackGivesDevNullAndDoesNotWait) {
        TempDir dir;
        std::string out = dir / "fds";
        // The child waits for "go", which is made only once Command_execute has returned.
        std::string script = "i=0; while [ ! -e " + dir / "go" + " ] && [ $i -lt 500 ]; do " +
                             "sleep 0.01; i=$((i+1)); done; " +
                             "r=$(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2); " +
                             "echo \"$r\" > " + out + ".tmp; mv " + out + ".tmp " + out;
        Command_T C = shell(script.c_str());
        auto start = std::chrono::steady_clock::now();
        Command_execute(C);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
        Command_free(&C);
        dir.write("go", "");
        // Execute did not wait; the file shows when the child is done. No SIGCHLD handler
        // runs in the tests, so the child is reaped here.
        while (access(out.c_str(), F_OK) != 0 &&
               std::chrono::steady_clock::now() - start < std::chrono::seconds(10)) {
                waitpid(-1, nullptr, WNOHANG);
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        EXPECT_EQ(readFile(out), "/dev/null\n/dev/null\n/dev/null\n");
}

TEST(Process, ExitStatusDecoding) {
        EXPECT_EQ(run(shell("exit 0")).status, 0);
        EXPECT_EQ(run(shell("exit 255")).status, 255);
        EXPECT_EQ(run(shell("kill -TERM $$")).status, SIGTERM);

        // An existing file that cannot be run: the child ends with the error number.
        TempDir dir;
        std::string path = dir.write("script", "#!/bin/sh\n");
        chmod(path.c_str(), 0644);
        Command_T C = Command_new();
        Command_setCommand(C, path.c_str(), nullptr);
        Seen seen = run(C);
        EXPECT_EQ(seen.status, EACCES);
        EXPECT_EQ(seen.err, "Command: '" + path + "' failed to execute -- Permission denied\n");
}

TEST(Process, RunningChildPollsUntilItEnds) {
        Command_T C = Command_new();
        Command_setCommand(C, "/bin/cat", nullptr);
        struct Result {
                int pid = 0, first = 0, second = 0, running = 0, status = 0, after = 0, again = 0;
        } r;
        Command_setOnExec(
            C,
            [](Process_T P, void* data) {
                    auto r = static_cast<Result*>(data);
                    r->pid = Process_getPid(P);
                    r->first = Process_exitStatus(P);
                    r->second = Process_exitStatus(P);
                    r->running = Process_isRunning(P);
                    Process_terminate(P);
                    r->status = Process_waitFor(P);
                    r->after = Process_isRunning(P);
                    // A second look must not wait again: the child is gone.
                    r->again = Process_exitStatus(P) == SIGTERM && !Process_isRunning(P) &&
                               !Process_kill(P) && !Process_terminate(P);
            },
            &r);
        Command_execute(C);
        Command_free(&C);
        EXPECT_GT(r.pid, 0);
        EXPECT_EQ(r.first, -1);
        EXPECT_EQ(r.second, -1);
        EXPECT_TRUE(r.running);
        EXPECT_EQ(r.status, SIGTERM);
        EXPECT_FALSE(r.after);
        EXPECT_TRUE(r.again);
}

TEST(Process, ChildReapedElsewhereNeverHangs) {
        // The server's SIGCHLD handler reaps with waitpid(-1): a status taken there is lost.
        Command_T C = shell("exit 4");
        struct Result {
                int status = 0, exit = 0, running = 1, signalled = 1;
        } r;
        Command_setOnExec(
            C,
            [](Process_T P, void* data) {
                    auto r = static_cast<Result*>(data);
                    waitpid(Process_getPid(P), nullptr, 0);
                    r->status = Process_waitFor(P);
                    r->exit = Process_exitStatus(P);
                    r->running = Process_isRunning(P);
                    r->signalled = Process_kill(P);
            },
            &r);
        Command_execute(C);
        EXPECT_EQ(r.status, -1);
        EXPECT_EQ(r.exit, -1);
        EXPECT_FALSE(r.running);
        EXPECT_FALSE(r.signalled);

        // A reaper racing a blocked Process_waitFor: whoever wins, the wait returns.
        Command_setCommand(C, "/bin/cat", nullptr);
        Command_setOnExec(
            C,
            [](Process_T P, void* data) {
                    auto r = static_cast<Result*>(data);
                    std::thread reaper([] {
                            while (waitpid(-1, nullptr, 0) > 0) {
                            }
                    });
                    Process_closeOutputStream(P);
                    r->status = Process_waitFor(P);
                    r->running = Process_isRunning(P);
                    reaper.join();
            },
            &r);
        Command_execute(C);
        Command_free(&C);
        EXPECT_TRUE(r.status == 0 || r.status == -1) << r.status;
        EXPECT_FALSE(r.running);
}

TEST(Process, TimeoutCallbackDecidesTheChildsFate) {
        Command_setSecond(20);
        Command_T C = Command_new();
        Command_setCommand(C, "/bin/sleep", "30", nullptr);
        struct Result {
                int calls = 0, before = 0, status = 0, timeout = 0;
        } r;
        Command_setOnTimeout(
            C, 2,
            [](Process_T P, void* data) {
                    auto r = static_cast<Result*>(data);
                    r->calls++;
                    r->before = Process_exitStatus(P);
                    r->timeout = Process_getTimeout(P);
                    Process_kill(P);
                    r->status = Process_waitFor(P);
            },
            &r);
        auto start = std::chrono::steady_clock::now();
        Command_execute(C);
        auto took = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(r.calls, 1);
        EXPECT_EQ(r.before, -1);
        EXPECT_EQ(r.timeout, 2);
        EXPECT_EQ(r.status, SIGKILL);
        EXPECT_GE(took, std::chrono::milliseconds(40));

        // A child that ends in time ends the wait at once, with no call.
        Command_setSecond(60000);  // a minute a tick: returning sooner means it did not wait one
        Command_setCommand(C, "/bin/sh", "-c", "exit 0", nullptr);
        r = Result{};
        start = std::chrono::steady_clock::now();
        Command_execute(C);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
        EXPECT_EQ(r.calls, 0);
        Command_free(&C);
}

TEST(Process, IdentityChangesOnlyWhenAsked) {
        Seen plain = run(shell("id -u; id -g"));
        EXPECT_EQ(plain.out, std::to_string(getuid()) + "\n" + std::to_string(getgid()) + "\n");
        EXPECT_EQ(plain.uid, static_cast<int>(getuid()));
        if (geteuid() != 0)
                GTEST_SKIP() << "changing identity needs root";
        Command_T C = shell("id -u; id -g; id -G");
        Command_setUid(C, 65534);
        Command_setGid(C, 65534);
        Seen nobody = run(C);
        EXPECT_EQ(nobody.out, "65534\n65534\n65534\n");
        EXPECT_EQ(nobody.uid, 65534);
        EXPECT_EQ(nobody.gid, 65534);

        // A uid with no user: logged, and the child goes on as it was.
        C = shell("id -u");
        Command_setUid(C, 54321);
        testing::internal::CaptureStderr();
        Seen unknown = run(C);
        std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(unknown.out, "0\n");
        EXPECT_EQ(unknown.uid, 0);
        EXPECT_NE(log.find("Command: uid 54321 not found on the system -- "), std::string::npos)
            << log;
}
