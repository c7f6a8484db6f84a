// vesk: starts, stops and queries the server that runs from a home directory.
#include <stdio.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <vesk/vesk.h>

namespace {

const char* program = "vesk";

void usage(FILE* out) {
        fprintf(out,
                "Usage: %s [options] start|stop|status\n"
                "\n"
                "  start     run the server (as a daemon unless -f is given)\n"
                "  stop      tell the running server to stop, and wait until it has\n"
                "  status    say whether a server runs from the home directory\n"
                "\n"
                "Options:\n"
                "  -H home   the home directory (default: $VESK_HOME, else the current directory)\n"
                "  -f        stay in the foreground instead of becoming a daemon\n"
                "  -D        debug: log debug lines, and leave a core image on a fatal error\n"
                "  -p file   the pid file (default: home/logs/%s.pid)\n"
                "  -c file   the server configuration (default: home/conf/server.xml)\n"
                "  --help    show this text\n"
                "  --version show the version\n",
                program, Container_Name);
}

// An uncaught exception in the launcher itself: say it on one line, no stack of noise.
[[noreturn]] void fail(const char* message) {
        fprintf(stderr, "%s: %s\n", program, message);
        exit(1);
}

void waitForStop(Container_T C) {
        for (int i = 0; i < 300 && Container_isRunning(C); i++) {
                struct timespec pause = {0, 100 * 1000 * 1000};
                nanosleep(&pause, nullptr);
        }
        if (Container_isRunning(C))
                fail("the server did not stop within 30 seconds");
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

// A daemon reads its configuration after it has left the terminal, so a fault there would
// go unseen. Read it once first in a child that stays in the foreground, and stop here
// with its message if it fails.
void checkConfiguration(Container_T C) {
        fflush(nullptr);
        pid_t child = fork();
        if (child < 0)
                fail("cannot fork to check the configuration");
        if (child == 0) {
                int status = 0;
                TRY
                        Container_setDaemon(C, 0);
                        Container_bootstrap(C);
                ELSE
                        fprintf(stderr, "%s: %s\n", program, Exception_frame.message);
                        status = 1;
                END_TRY;
                fflush(nullptr);
                _exit(status);
        }
        int status = 0;
        while (waitpid(child, &status, 0) < 0)
                ;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
                exit(1);
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
        bool foreground = false;
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
                                checkConfiguration(C);
                        Container_start(C);
                } else if (command == "stop") {
                        if (Container_isRunning(C)) {
                                Container_stop(C);
                                waitForStop(C);
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
