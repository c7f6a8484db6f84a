#include <errno.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <initializer_list>

#include <vesk/Arena.h>
#include <vesk/Build.h>
#include <vesk/Container.h>
#include <vesk/CrashGuard.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/Logger.h>
#include <vesk/Metrics.h>
#include <vesk/Mem.h>
#include <vesk/OS.h>
#include <vesk/Reactor.h>
#include <vesk/Thread.h>
#include <vesk/assert.h>

namespace {

constexpr int kPath = 4096;

VESK_PRINTF(1, 2) void AbortHandler(const char* format, ...) {
        if (format) {
                va_list ap;
                va_start(ap, format);
                Error_verror(format, ap);
                va_end(ap);
        }
        if (Container_Debug)
                abort();  // leave a core image
        exit(1);
}

}  // namespace

struct Container_S {
        Build_T B;
        int daemon;
        int bootstrapped;
        char pidFile[kPath + 1];
        char workDir[kPath + 1];
        char controlFile[kPath + 1];
        char home[kPath + 1];
        int startPipe;  // -1 when nobody waits to hear how the start went
        int supervised;
};

const char* Container_Name = "Vesk";
const char* Container_Version = "2.0";
const char* Container_Home = nullptr;
const char* Container_WorkDir = "/tmp";
int Container_Debug = 0;
int Container_Standalone = 0;
int Container_Concurrency = 4096;
void (*Container_AbortHandler)(const char* format, ...) = AbortHandler;

// The foundation's thread keys exist before any other code of the process can raise, allocate
// or ask for the arena of the request it serves.
__attribute__((constructor)) static void Container_load(void) {
        Arena_init();
        Exception_init();
        Thread_init();
        Exception_wrapper(pthread_key_create(&(Request_Arena), NULL));
}

namespace {

// Formats a path into a field of kPath + 1 bytes; a path that does not fit is refused, not cut.
VESK_PRINTF(2, 3) void formatPath(char* field, const char* format, ...) {
        va_list ap;
        va_start(ap, format);
        int n = vsnprintf(field, kPath + 1, format, ap);
        va_end(ap);
        if (n < 0 || n > kPath)
                THROW(AssertException, "Path too long -- more than %d characters", kPath);
}

void copyPath(char* field, const char* path) {
        formatPath(field, "%s", path);
}

void checkHome(Container_T C) {
        if (!*C->home)
                THROW(AssertException, "Container Home not set");
        for (const char* name : {"logs", "conf"}) {
                char path[kPath + 1];
                formatPath(path, "%s%s%s", C->home, SEPARATOR, name);
                if (!File_isDirectory(path))
                        THROW(AssertException,
                              "The directory '%s' does not exist in the %s home directory '%s'",
                              name, Container_Name, C->home);
        }
}

void checkPidFile(Container_T C) {
        if (*C->pidFile)
                return;
        formatPath(C->pidFile, "%s%s%s", C->home, SEPARATOR, "logs");
        if (!File_isDirectory(C->pidFile))
                THROW(AssertException, "%s Home '%s' does not contain a '%s' directory",
                      Container_Name, C->home, "logs");
        formatPath(C->pidFile, "%s%c%s%c%s.pid", C->home, SEPARATOR_CHAR, "logs", SEPARATOR_CHAR,
                   Container_Name);
}

void checkControlFile(Container_T C) {
        if (*C->controlFile)
                return;
        formatPath(C->controlFile, "%s%s%s%s%s", C->home, SEPARATOR, "conf", SEPARATOR,
                   "server.xml");
        if (!File_existFile(C->controlFile))
                THROW(AssertException, "The control file '%s' does not exist", C->controlFile);
}

// Tells whoever waits on the start pipe how the start went, once: "ready\n", or "error\n"
// and the reason. The reader takes the end of the pipe as the end of the reason.
void tell(Container_T C, const char* outcome, const char* reason = nullptr) {
        if (C->startPipe < 0)
                return;
        for (const char* text : {outcome, reason}) {
                size_t n = text ? strlen(text) : 0;
                for (size_t done = 0; done < n;) {
                        ssize_t w = write(C->startPipe, text + done, n - done);
                        if (w < 0 && errno == EINTR)
                                continue;
                        if (w <= 0)
                                break;
                        done += static_cast<size_t>(w);
                }
        }
        close(C->startPipe);
        C->startPipe = -1;
}

// The event loop's first turn: every connector listens by then.
void serving(Timer_T timer) {
        tell(static_cast<Container_T>(Timer_getData(timer)), "ready\n");
}

}  // namespace

Container_T Container_new(void) {
        Build_init();
        OS_initialize();
        Container_T C;
        NEW0(C);
        C->daemon = 1;
        C->startPipe = -1;
        copyPath(C->workDir, "/tmp");
        Container_WorkDir = C->workDir;
        Container_Home = C->home;
        return C;
}

void Container_free(Container_T* C) {
        assert(C && *C);
        if ((*C)->B)
                Build_free(&(*C)->B);
        if ((*C)->startPipe >= 0)
                close((*C)->startPipe);
        if (Container_Home == (*C)->home) {
                Container_Home = nullptr;
                Container_WorkDir = "/tmp";
        }
        FREE(*C);
}

void Container_setHome(Container_T C, const char* containerHome) {
        assert(C);
        assert(containerHome);
        if (!File_existFile(containerHome))
                THROW(AssertException, "Container Home '%s' does not exist", containerHome);
        if (!File_isDirectory(containerHome))
                THROW(AssertException, "Container Home '%s' is not a directory", containerHome);
        copyPath(C->home, containerHome);
        File_removeTrailingSeparator(C->home);
}

const char* Container_getHome(Container_T C) {
        assert(C);
        return *C->home ? C->home : nullptr;
}

void Container_setWorkDir(Container_T C, const char* workDir) {
        assert(C);
        assert(workDir);
        char type = File_type(workDir);
        if (type != 'd' && type != 'l')
                THROW(AssertException, "Temporary working directory '%s' is not a directory",
                      workDir);
        if (!File_isWritable(workDir))
                THROW(AssertException,
                      "Temporary working directory '%s' is not writable by this process", workDir);
        copyPath(C->workDir, workDir);
        File_removeTrailingSeparator(C->workDir);
}

const char* Container_getWorkDir(Container_T C) {
        assert(C);
        return C->workDir;
}

void Container_setControlFile(Container_T C, const char* controlFile) {
        assert(C);
        assert(controlFile);
        if (!File_existFile(controlFile))
                THROW(AssertException, "The control file '%s' does not exist", controlFile);
        if (!File_isFile(controlFile))
                THROW(AssertException, "The control file '%s' is not a regular file", controlFile);
        copyPath(C->controlFile, controlFile);
}

const char* Container_getControlFile(Container_T C) {
        assert(C);
        return *C->controlFile ? C->controlFile : nullptr;
}

void Container_setPidFile(Container_T C, const char* pidFile) {
        assert(C);
        assert(pidFile);
        copyPath(C->pidFile, pidFile);
}

const char* Container_getPidFile(Container_T C) {
        assert(C);
        return *C->pidFile ? C->pidFile : nullptr;
}

void Container_setDaemon(Container_T C, int daemon) {
        assert(C);
        C->daemon = daemon;
}

int Container_isDaemon(Container_T C) {
        assert(C);
        return C->daemon;
}

void Container_setStartPipe(Container_T C, int fd) {
        assert(C);
        assert(fd > 2);
        C->startPipe = fd;
}

void Container_setSupervised(Container_T C, int supervised) {
        assert(C);
        C->supervised = supervised;
}

int Container_isSupervised(Container_T C) {
        assert(C);
        return C->supervised;
}

Build_T Container_getBuild(Container_T C) {
        assert(C);
        return C->B;
}

Build_T Container_bootstrap(Container_T C) {
        assert(C);
        if (C->bootstrapped)
                THROW(AssertException, "! C->bootstrapped");
        TRY
                checkHome(C);
                checkPidFile(C);
                checkControlFile(C);
                // Before the configuration is read: its failures then reach the terminal
                // only through the start pipe.
                if (C->daemon)
                        OS_daemonize(C->startPipe);
                C->B = Build_parse(C->home, C->controlFile);
                assert(C->B);
        ELSE
                tell(C, "error\n", Exception_frame.message);
                RETHROW;
        END_TRY;
        C->bootstrapped = 1;
        return C->B;
}

void Container_start(Container_T C) {
        assert(C);
        bool pidFileWritten = false;
        TRY
                checkHome(C);
                checkPidFile(C);
                int pid = OS_isRunning(C);
                if (pid) {
                        Error_warn("%s is already running with pid %d\n", Container_Name, pid);
                        char reason[128];
                        snprintf(reason, sizeof reason, "%s is already running with pid %d",
                                 Container_Name, pid);
                        tell(C, "error\n", reason);
                        return;
                }
                if (!C->bootstrapped)
                        Container_bootstrap(C);
                OS_createPidFile(C);
                pidFileWritten = true;
                OS_signal(C);
                Logger_T errorLog = Error_getLogger();
                CrashGuard_install(C->home, errorLog ? Logger_getFileName(errorLog) : nullptr,
                                   C->supervised);
                if (C->startPipe >= 0) {
                        Reactor_T reactor = Reactor_getInstance();
                        Timer_T timer = Reactor_createTimer(reactor);
                        Timer_setData(timer, C);
                        Timer_setHandler(timer, serving);
                        Reactor_scheduleTimer(reactor, timer, 0, 0);
                }
                Build_start(C->B);
                CrashGuard_uninstall();
                Metrics_reset();
        ELSE
                CrashGuard_uninstall();
                Metrics_reset();
                // A server that never came up, or went down on an error, leaves no pid
                // file behind to be taken for a running one.
                if (pidFileWritten)
                        File_delete(C->pidFile);
                tell(C, "error\n", Exception_frame.message);
                RETHROW;
        END_TRY;
}

void Container_stop(Container_T C) {
        assert(C);
        checkHome(C);
        checkPidFile(C);
        OS_finalize(C);
}

int Container_isRunning(Container_T C) {
        assert(C);
        checkHome(C);
        checkPidFile(C);
        return OS_isRunning(C);
}

void Container_shutdown(Container_T C) {
        assert(C);
        Build_stop(C->B);
        File_delete(C->pidFile);
}
