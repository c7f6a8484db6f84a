// vesk: starts, stops and queries the server that runs from a home directory.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <deque>
#include <string>

#include <vesk/vesk.h>

namespace {

const char* program = "vesk";

// A supervisor gives up once the server has ended on a signal this many times in a minute.
constexpr int kBurst = 5;
constexpr int kBurstWindow = 60;

void usage(FILE* out) {
        fprintf(out,
                "Usage: %s [options] start|stop|status\n"
                "\n"
                "  start     run the server; as a daemon unless -f is given, and then\n"
                "            return once it serves, or say why it could not start\n"
                "  stop      tell the running server to stop, and wait until it has\n"
                "  status    say whether a server runs from the home directory\n"
                "\n"
                "Options:\n"
                "  -H home   the home directory (default: $VESK_HOME, else the current directory)\n"
                "  -f        stay in the foreground instead of becoming a daemon\n"
                "  -D        debug: log debug lines, and leave a core image on a fatal error\n"
                "  -S        supervise: start the server again when it ends on a fatal signal\n"
                "            (at most %d times a minute), and keep a servlet module that\n"
                "            crashed it %d times in %d minutes disabled, answering 503\n"
                "  -p file   the pid file (default: home/logs/%s.pid)\n"
                "  -c file   the server configuration (default: home/conf/server.xml)\n"
                "  --help    show this text\n"
                "  --version show the version\n",
                program, kBurst, CrashGuard_Limit, CrashGuard_Window / 60, Container_Name);
}

// An uncaught exception in the launcher itself: say it on one line, no stack of noise.
[[noreturn]] void fail(const char* message) {
        fprintf(stderr, "%s: %s\n", program, message);
        exit(1);
}

// Whether process pid has ended: gone, or a zombie that only waits for whoever adopted
// it to reap it.
bool ended(int pid) {
        if (kill(pid, 0) != 0)
                return errno == ESRCH;
        char path[64];
        snprintf(path, sizeof path, "/proc/%d/stat", pid);
        FILE* f = fopen(path, "r");
        if (!f)
                return false;
        char line[512];
        bool zombie = false;
        if (fgets(line, sizeof line, f)) {
                const char* close = strrchr(line, ')');
                zombie = close && close[1] == ' ' && close[2] == 'Z';
        }
        fclose(f);
        return zombie;
}

// A stop drains the requests in flight for up to 30 seconds before the applications stop.
constexpr int kStopWait = 60;

void waitForExit(int pid) {
        for (int i = 0; i < kStopWait * 10 && !ended(pid); i++) {
                struct timespec pause = {0, 100 * 1000 * 1000};
                nanosleep(&pause, nullptr);
        }
        if (!ended(pid)) {
                char message[128];
                snprintf(message, sizeof message,
                         "the server (pid %d) did not stop within %d seconds", pid, kStopWait);
                fail(message);
        }
}

// The path made absolute: a daemon works from "/", and file URLs need absolute paths. A
// path that does not resolve stays as given, for the library to report in its own words.
std::string absolute(const std::string& path) {
        if (path.empty() || path[0] == '/')
                return path;
        char real[PATH_MAX];
        if (realpath(path.c_str(), real))
                return real;
        char cwd[PATH_MAX];
        return getcwd(cwd, sizeof cwd) ? std::string(cwd) + "/" + path : path;
}

// How long a daemon may take to come up before start gives up waiting for it.
constexpr int kStartWait = 30;

// What the daemon says on the start pipe, up to "ready\n" or the end of the pipe; ""
// when it said nothing within kStartWait seconds.
std::string hear(int fd) {
        std::string said;
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        time_t deadline = now.tv_sec + kStartWait;
        while (said.rfind("ready\n", 0) != 0) {
                clock_gettime(CLOCK_MONOTONIC, &now);
                if (now.tv_sec >= deadline)
                        return "";
                struct pollfd p = {fd, POLLIN, 0};
                int n = poll(&p, 1, static_cast<int>(deadline - now.tv_sec) * 1000);
                if (n < 0 && errno == EINTR)
                        continue;
                if (n <= 0)
                        return "";
                char buffer[512];
                ssize_t got = read(fd, buffer, sizeof buffer);
                if (got < 0 && errno == EINTR)
                        continue;
                if (got <= 0)
                        return said.empty() ? "error\n" : said;
                said.append(buffer, static_cast<size_t>(got));
        }
        return said;
}

// The descriptor moved above 2, where the daemon's /dev/null does not replace it.
int aboveStandard(int fd) {
        if (fd > 2)
                return fd;
        int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        close(fd);
        if (moved < 0)
                fail("cannot make a pipe to the server");
        return moved;
}

// The supervisor's journal, logs/supervisor.log, or -1 when it cannot be written; and
// whether standard error is a terminal's or a service manager's rather than the journal.
int journal = -1;
bool saysOnStandardError = true;

void openJournal(Container_T C) {
        std::string log = std::string(Container_getHome(C)) + "/logs/supervisor.log";
        journal = open(log.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
}

// What a supervisor does goes to its journal, stamped as the error log stamps its lines,
// so that restarts can be traced afterwards; in the foreground it is said on standard
// error as well.
void note(const char* format, ...) __attribute__((format(printf, 1, 2)));
void note(const char* format, ...) {
        char text[512];
        va_list ap;
        va_start(ap, format);
        vsnprintf(text, sizeof text, format, ap);
        va_end(ap);
        if (saysOnStandardError)
                fprintf(stderr, "%s: %s\n", program, text);
        if (journal >= 0) {
                time_t now = time(nullptr);
                struct tm local;
                char stamp[32];
                strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", localtime_r(&now, &local));
                dprintf(journal, "%s %s: %s\n", stamp, program, text);
        }
}

// The server a supervisor runs now, and whether someone asked the supervisor to stop.
volatile sig_atomic_t serverPid = 0;
volatile sig_atomic_t stopAsked = 0;

// A supervisor passes the terminal's and the service manager's stop on to the server,
// which then stops as it would unsupervised, and the supervisor with it.
void forward(int signo) {
        stopAsked = 1;
        if (serverPid > 0)
                kill(serverPid, signo);
}

constexpr int kForwarded[] = {SIGTERM, SIGINT, SIGQUIT};

void onSignals(void (*handler)(int)) {
        struct sigaction action = {};
        action.sa_handler = handler;
        sigemptyset(&action.sa_mask);
        for (int signo : kForwarded)
                sigaction(signo, &action, nullptr);
}

// Runs the server in a child process, and again whenever it ends on a fatal signal,
// until it stops of its own accord, is told to stop, or has crashed kBurst times within
// kBurstWindow seconds. Only the first server reports on startPipe. In the supervisor, the
// launcher's exit status; in a server process, 0 once it has stopped.
int supervise(Container_T C, int startPipe) {
        onSignals(forward);
        if (journal < 0)
                openJournal(C);
        std::deque<time_t> crashes;
        for (;;) {
                fflush(nullptr);
                pid_t pid = fork();
                if (pid < 0)
                        fail("cannot fork the server");
                if (pid == 0) {
                        onSignals(SIG_DFL);
                        if (journal >= 0)
                                close(journal);
                        Container_setDaemon(C, 0);
                        Container_setSupervised(C, 1);
                        if (startPipe >= 0)
                                Container_setStartPipe(C, startPipe);
                        Container_start(C);
                        return 0;
                }
                if (startPipe >= 0) {
                        close(startPipe);
                        startPipe = -1;
                }
                serverPid = pid;
                // A stop that came while no server ran reaches this one.
                if (stopAsked)
                        kill(pid, SIGTERM);
                int status = 0;
                while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
                        ;
                serverPid = 0;
                if (!WIFSIGNALED(status) || stopAsked)
                        return WIFEXITED(status) ? WEXITSTATUS(status) : 0;
                // The dead server's pid file would name a process that is gone.
                if (!Container_isRunning(C) && Container_getPidFile(C))
                        unlink(Container_getPidFile(C));
                time_t now = time(nullptr);
                while (!crashes.empty() && crashes.front() <= now - kBurstWindow)
                        crashes.pop_front();
                crashes.push_back(now);
                if (static_cast<int>(crashes.size()) >= kBurst) {
                        note(
                            "the server (pid %d) ended on signal %d (%s), the %dth time within "
                            "%d seconds -- not starting it again",
                            static_cast<int>(pid), WTERMSIG(status), strsignal(WTERMSIG(status)),
                            kBurst, kBurstWindow);
                        return 1;
                }
                note("the server (pid %d) ended on signal %d (%s) -- starting it again",
                     static_cast<int>(pid), WTERMSIG(status), strsignal(WTERMSIG(status)));
        }
}

// A daemon supervisor has no terminal: what it and its servers would say on standard
// error goes to its journal too.
void supervisorLog(Container_T C) {
        openJournal(C);
        saysOnStandardError = false;
        if (journal >= 0)
                dup2(journal, STDERR_FILENO);
}

// Starts the server as a daemon and waits until it serves or has failed, which it
// tells on a pipe; so a failure after the fork (an application that does not load, a
// port in use, a bad certificate) reaches this terminal and the exit status. The
// launcher's exit status.
int startDaemon(Container_T C, bool supervised) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
                fail("cannot make a pipe to the server");
        int readEnd = aboveStandard(ends[0]), writeEnd = aboveStandard(ends[1]);
        fflush(nullptr);
        pid_t child = fork();
        if (child < 0)
                fail("cannot fork the server");
        if (child == 0) {
                close(readEnd);
                if (supervised) {
                        OS_daemonize(writeEnd);
                        supervisorLog(C);
                        return supervise(C, writeEnd);
                }
                Container_setStartPipe(C, writeEnd);
                // Daemonizes, tells the outcome, and returns when the server has stopped.
                Container_start(C);
                return 0;
        }
        close(writeEnd);
        std::string said = hear(readEnd);
        close(readEnd);
        // The child leaves as soon as the daemon is made, or has failed before.
        while (waitpid(child, nullptr, 0) < 0 && errno == EINTR)
                ;
        if (said.rfind("ready\n", 0) == 0)
                return 0;
        if (said.empty()) {
                fprintf(stderr, "%s: the server did not come up within %d seconds\n", program,
                        kStartWait);
                return 1;
        }
        std::string reason = said.substr(said.find('\n') + 1);
        while (!reason.empty() && reason.back() == '\n')
                reason.pop_back();
        if (reason.empty())
                reason = "the server ended while it started; see its error log";
        fprintf(stderr, "%s: %s\n", program, reason.c_str());
        return 1;
}

}  // namespace

#ifdef __SANITIZE_ADDRESS__
// The template library keeps 32 bytes of its parse state when a page fails to parse; the
// leak checker is told so, and stays on for everything else.
extern "C" const char* __lsan_default_suppressions() {
        return "leak:cs_parse_string\n";
}
#endif

int main(int argc, char** argv) {
        std::string home, pidFile, controlFile, command;
        bool foreground = false, supervised = false;
        if (const char* env = getenv("VESK_HOME"))
                home = env;
        for (int i = 1; i < argc; i++) {
                std::string arg = argv[i];
                if (arg == "--help" || arg == "-h") {
                        usage(stdout);
                        return 0;
                } else if (arg == "--version") {
                        printf("%s %s\n", Container_Name, Container_Version);
                        return 0;
                } else if (arg == "-f") {
                        foreground = true;
                } else if (arg == "-S") {
                        supervised = true;
                } else if (arg == "-D") {
                        Container_Debug = 1;
                } else if (arg == "-H" || arg == "-p" || arg == "-c") {
                        if (i + 1 >= argc) {
                                fprintf(stderr, "%s: option %s needs a value\n", program,
                                        arg.c_str());
                                return 2;
                        }
                        (arg == "-H" ? home : arg == "-p" ? pidFile : controlFile) = argv[++i];
                } else if (arg == "start" || arg == "stop" || arg == "status") {
                        if (!command.empty()) {
                                fprintf(stderr, "%s: one command at a time\n", program);
                                return 2;
                        }
                        command = arg;
                } else {
                        fprintf(stderr, "%s: unknown argument '%s'\n", program, arg.c_str());
                        usage(stderr);
                        return 2;
                }
        }
        if (command.empty()) {
                usage(stderr);
                return 2;
        }
        if (home.empty()) {
                char cwd[4097];
                if (!getcwd(cwd, sizeof cwd))
                        fail("cannot read the current directory");
                home = cwd;
        }
        home = absolute(home);
        pidFile = absolute(pidFile);
        controlFile = absolute(controlFile);
        Container_Standalone = 1;
        int status = 0;
        Container_T C = nullptr;
        TRY
                C = Container_new();
                Container_setHome(C, home.c_str());
                if (!pidFile.empty())
                        Container_setPidFile(C, pidFile.c_str());
                if (!controlFile.empty())
                        Container_setControlFile(C, controlFile.c_str());
                if (command == "start") {
                        Container_setDaemon(C, !foreground);
                        if (!foreground && !Container_isRunning(C))
                                status = startDaemon(C, supervised);
                        else if (supervised)
                                status = supervise(C, -1);
                        else
                                Container_start(C);
                } else if (command == "stop") {
                        if (int pid = Container_isRunning(C)) {
                                Container_stop(C);
                                waitForExit(pid);
                        } else {
                                printf("%s is not running\n", Container_Name);
                        }
                } else {
                        int pid = Container_isRunning(C);
                        if (pid)
                                printf("%s is running with pid %d\n", Container_Name, pid);
                        else
                                printf("%s is not running\n", Container_Name);
                        status = pid ? 0 : 3;
                }
        ELSE
                fail(Exception_frame.message);
        END_TRY;
        if (C)
                Container_free(&C);
        return status;
}
