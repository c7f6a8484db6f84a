#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vesk/Container.h>
#include <vesk/Error.h>
#include <vesk/File.h>
#include <vesk/OS.h>
#include <vesk/Reactor.h>
#include <vesk/System.h>
#include <vesk/assert.h>

extern char** environ;

namespace {

constexpr int term_signals[] = {SIGINT, SIGTERM, SIGQUIT, SIGABRT, -1};
constexpr int SPARE_DESCRIPTORS = 100;

void handle_sigchld(int) {
        int saved = errno;
        while (waitpid(-1, nullptr, WNOHANG) > 0)
                ;
        errno = saved;
}

void handle_term_signals(SignalHandler_T handler, int signum) {
        Container_T C = static_cast<Container_T>(SignalHandler_getData(handler));
        assert(C);
        switch (signum) {
        case SIGINT:
                Error_debug("Received SIGINT -- initiating shutdown\n");
                Container_shutdown(C);
                break;
        case SIGQUIT:
                Error_debug("Received SIGQUIT -- initiating shutdown\n");
                Container_shutdown(C);
                break;
        case SIGTERM:
                Error_debug("Received SIGTERM -- initiating shutdown\n");
                Container_shutdown(C);
                break;
        case SIGABRT:
                if (Container_Debug) {
                        Error_debug("Received SIGABRT -- aborting now\n");
                        abort();
                }
                Error_debug("Received SIGABRT -- initiating shutdown\n");
                Container_shutdown(C);
                break;
        default:
                Error_debug("Unknow signal %d received -- ignored\n", signum);
        }
}

int getPid(const char* pidfile) {
        assert(pidfile && *pidfile);
        int pid = -1;
        if (File_isFile(pidfile)) {
                FILE* f = fopen(pidfile, "r");
                if (!f)
                        THROW(AssertException, "Error opening the pidfile '%s' -- %s", pidfile,
                              System_getLastError());
                int n = fscanf(f, "%d", &pid);
                fclose(f);
                if (n != 1)
                        THROW(AssertException, "Failed to read pid from '%s' -- %s", pidfile,
                              System_getLastError());
                if (pid == -1)
                        THROW(AssertException, "Pidfile '%s' does not contain a valid pid number",
                              pidfile);
        }
        return pid;
}

}  // namespace

void OS_initialize(void) {
        // The time zone the server started in is kept, and named when it was not: without
        // TZ the C library reads /etc/localtime again at every mktime, once per response.
        static char zone[256];
        const char* tz = getenv("TZ");
        snprintf(zone, sizeof zone, "TZ=%s", tz ? tz : ":/etc/localtime");
        // Servlets and child processes never see the rest of the launcher's environment.
        if (environ)
                environ[0] = nullptr;
        static char path[] = "PATH=/bin:/usr/bin:/sbin:/usr/sbin";
        if (putenv(path) != 0 || putenv(zone) != 0)
                THROW(AssertException, "Cannot set the PATH variable -- %s", System_getLastError());
        Container_Concurrency = OS_concurrency();
}

int OS_concurrency(void) {
        struct rlimit rl;
        long nfiles;
        if (getrlimit(RLIMIT_NOFILE, &rl) != 0) {
                nfiles = getdtablesize();
        } else {
                nfiles = static_cast<long>(rl.rlim_cur);
                // 4196 leaves exactly 4096 connections once the spare descriptors are kept back.
                if (rl.rlim_max == RLIM_INFINITY)
                        rl.rlim_cur = 4196;
                else if (rl.rlim_cur < rl.rlim_max)
                        rl.rlim_cur = rl.rlim_max;
                if (setrlimit(RLIMIT_NOFILE, &rl) == 0)
                        nfiles = static_cast<long>(rl.rlim_cur);
        }
        assert((nfiles - SPARE_DESCRIPTORS) > 0);
        // The handler table is indexed by descriptor, so keep it within reason.
        return static_cast<int>(nfiles > 0x100000 ? 0x100000 - SPARE_DESCRIPTORS
                                                  : nfiles - SPARE_DESCRIPTORS);
}

void OS_daemonize(int keep) {
        assert(keep < 0 || keep > 2);
        umask(0);
        int descriptors = getdtablesize();
        pid_t pid = fork();
        if (pid < 0)
                THROW(AssertException, "Cannot fork a new Container process -- %s",
                      System_getLastError());
        if (pid != 0)
                _exit(0);
        setsid();
        signal(SIGHUP, SIG_IGN);
        pid = fork();
        if (pid < 0)
                THROW(AssertException, "Cannot fork a new Container process -- %s",
                      System_getLastError());
        if (pid != 0)
                _exit(0);
        if (chdir("/") < 0)
                THROW(AssertException, "Cannot chdir to -- %s", System_getLastError());
        for (int fd = 0; fd < descriptors; fd++)
                if (fd != keep)
                        close(fd);
        for (int fd = 0; fd < 3; fd++)
                if (open("/dev/null", O_RDWR) != fd)
                        THROW(AssertException, "Cannot open /dev/null -- %s",
                              System_getLastError());
}

void OS_signal(Container_T C) {
        Reactor_T R = Reactor_getInstance();
        for (int i = 0; term_signals[i] != -1; i++) {
                SignalHandler_T handler = Reactor_createSignalHandler(R);
                SignalHandler_setData(handler, C);
                SignalHandler_setHandler(handler, handle_term_signals);
                Reactor_registerSignalHandler(R, handler, term_signals[i]);
        }
        signal(SIGHUP, SIG_IGN);
        signal(SIGUSR1, SIG_IGN);
        signal(SIGUSR2, SIG_IGN);
        signal(SIGPIPE, SIG_IGN);
        signal(SIGCHLD, handle_sigchld);
}

void OS_createPidFile(Container_T C) {
        const char* pidFile = Container_getPidFile(C);
        FILE* f = pidFile ? fopen(pidFile, "w") : nullptr;
        if (!f)
                THROW(AssertException, "Error creating the pidfile '%s' -- %s",
                      pidFile ? pidFile : "null", System_getLastError());
        fprintf(f, "%d\n", static_cast<int>(getpid()));
        fclose(f);
}

int OS_isRunning(Container_T C) {
        int pid = getPid(Container_getPidFile(C));
        errno = 0;
        if (getpgid(pid) >= 1)
                return pid;
        // The process exists but belongs to someone else.
        return errno == EPERM ? pid : 0;
}

void OS_finalize(Container_T C) {
        int pid = OS_isRunning(C);
        if (!pid) {
                Error_warn("%s is not running\n", Container_Name);
                return;
        }
        if (kill(pid, SIGTERM) != 0)
                THROW(AssertException, "Cannot stop the %s process (%d) -- %s", Container_Name, pid,
                      System_getLastError());
        Error_error("%s server process with pid [%d] killed\n", Container_Name, pid);
}
