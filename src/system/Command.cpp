#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include <vesk/Command.h>
#include <vesk/Dir.h>
#include <vesk/File.h>
#include <vesk/Mem.h>
#include <vesk/Net.h>
#include <vesk/Str.h>
#include <vesk/assert.h>

#include "system/CommandClock.hpp"
#include "util/Holder.hpp"

namespace {

void freeInput(InputStream_T stream) {
        InputStream_free(&stream);
}

void freeOutput(OutputStream_T stream) {
        OutputStream_free(&stream);
}

using Descriptor = vesk::Descriptor<close>;

}  // namespace

struct Command_S {
        int uid;
        int gid;
        int timeout;
        List_T env;
        List_T command;
        Arena_T arena;
        char* dir;
        void* onExecData;
        void* onTimeoutData;
        void (*onExec)(Process_T P, void* data);
        void (*onTimeout)(Process_T P, void* data);
};

struct Process_S {
        Command_T command;
        int pid;
        int uid;
        int gid;
        int status;
        // The ends of the three pipes, and the streams over them, declared after them so
        // that they are given back first.
        Descriptor stdin[2];
        Descriptor stdout[2];
        Descriptor stderr[2];
        vesk::Holder<InputStream_T, freeInput> inputStream;
        vesk::Holder<InputStream_T, freeInput> errorStream;
        vesk::Holder<OutputStream_T, freeOutput> outputStream;
        // Set when waitpid found no such child: someone else reaped it and its status is lost.
        bool reaped;
};

namespace {

std::atomic<int> second{1000};

/* ------------------------------------------------------------------ Texts */

char* copy(Command_T C, const char* s) {
        return C->arena ? STR_DUP_ARENA(C->arena, s) : Str_dup(s);
}

void release(Command_T C, void* s) {
        if (!C->arena)
                FREE(s);
}

void clearList(Command_T C, List_T L) {
        while (List_length(L) > 0)
                release(C, List_pop(L));
}

// The entry of env for name, which must be followed directly by '='.
list_t findEnv(Command_T C, const char* name) {
        size_t n = strlen(name);
        for (list_t p = C->env->head; p; p = p->next) {
                const char* e = static_cast<const char*>(p->e);
                if (strncmp(e, name, n) == 0 && e[n] == '=')
                        return p;
        }
        return nullptr;
}

/* ------------------------------------------------------------- Wait status */

int decode(int raw) {
        int low = raw & 0x7f;
        if (low == 0)
                return (raw >> 8) & 0xff;
        if (low < 127)
                return low;
        if ((raw & 0xff) == 0x7f)
                return (raw >> 8) & 0xff;
        return raw;
}

// waitpid on the child, retried on EINTR. No such child means it was reaped elsewhere:
// it has ended, and nothing can tell how.
pid_t reap(Process_T P, int options) {
        int raw = 0;
        pid_t r;
        do
                r = waitpid(P->pid, &raw, options);
        while (r == -1 && errno == EINTR);
        if (r == P->pid)
                P->status = decode(raw);
        else if (r == -1)
                P->reaped = true;
        return r;
}

/* ------------------------------------------------------------------- Child */

// Everything the child needs, prepared in the parent: after vfork the child shares the
// parent's memory and must neither allocate nor look anything up.
struct Launch {
        Command_T command;
        Process_T process;
        vesk::Block<char*> argv;
        vesk::Block<char*> envp;
        bool pipes;
        const char* user;  // the name of uid, or NULL when it has none
        int userError;
        vesk::Block<gid_t> groups;
        vesk::Block<char> passwd;  // the storage behind user
        int groupCount;
};

const char* errorText(int error) {
        const char* text = strerrordesc_np(error);
        return text ? text : "Unknown error";
}

// The child's log: formatted on the stack and written straight to descriptor 2, since
// the parent's stdio buffers and locks are not the child's to touch.
void childLog(const char* format, ...) VESK_PRINTF(1, 2);
void childLog(const char* format, ...) {
        char line[1024];
        va_list ap;
        va_start(ap, format);
        int n = vsnprintf(line, sizeof line - 1, format, ap);
        va_end(ap);
        if (n < 0)
                return;
        if (n > static_cast<int>(sizeof line) - 2)
                n = sizeof line - 2;
        if (n == 0 || line[n - 1] != '\n')
                line[n++] = '\n';
        ssize_t w;
        do
                w = write(2, line, static_cast<size_t>(n));
        while (w == -1 && errno == EINTR);
}

void changeIdentity(const Launch& L) {
        Command_T C = L.command;
        Process_T P = L.process;
        P->gid = static_cast<int>(getgid());
        if (C->gid) {
                if (setgid(static_cast<gid_t>(C->gid)) == 0)
                        P->gid = C->gid;
                else
                        childLog("Command: Cannot change process gid to '%d' -- %s\n", C->gid,
                                 errorText(errno));
        }
        P->uid = static_cast<int>(getuid());
        if (C->uid) {
                if (!L.user) {
                        childLog("Command: uid %d not found on the system -- %s\n", C->uid,
                                 errorText(L.userError));
                        return;
                }
                if (setgroups(static_cast<size_t>(L.groupCount), L.groups.get()) != 0) {
                        childLog("Command: initgroups for user %s failed -- %s\n", L.user,
                                 errorText(errno));
                        return;
                }
                if (setuid(static_cast<uid_t>(C->uid)) != 0) {
                        childLog("Command: Cannot change process uid to '%d' -- %s\n", C->uid,
                                 errorText(errno));
                        return;
                }
                P->uid = C->uid;
        }
}

void redirect(int fd, int target, const char* name) {
        if (fd == target)
                return;
        if (dup2(fd, target) == -1)
                childLog("Command: dup2(%s) -- %s", name, errorText(errno));
        close(fd);
}

void closeAbove2() {
        if (close_range(3, ~0U, 0) == 0)
                return;
        for (int fd = 3, top = getdtablesize(); fd < top; fd++)
                close(fd);
}

[[noreturn]] void runChild(const Launch& L) {
        Command_T C = L.command;
        Process_T P = L.process;
        if (C->dir && !Dir_chdir(C->dir)) {
                int error = errno;
                childLog("Command: subprocess cannot change working directory to '%s' -- %s",
                         C->dir, errorText(error));
                _exit(error);
        }
        changeIdentity(L);
        setsid();
        if (L.pipes) {
                close(P->stdin[1].get());
                close(P->stdout[0].get());
                close(P->stderr[0].get());
                redirect(P->stdin[0].get(), 0, "stdin");
                redirect(P->stdout[1].get(), 1, "stdout");
                redirect(P->stderr[1].get(), 2, "stderr");
        } else {
                for (int fd = 0; fd < 3; fd++) {
                        close(fd);
                        errno = 0;
                        if (open("/dev/null", O_RDWR) != fd) {
                                int error = errno ? errno : EBADF;
                                childLog("Command: Cannot open /dev/null -- %s", errorText(error));
                                _exit(error);
                        }
                }
        }
        closeAbove2();
        // Handlers go back to their defaults before the mask opens, so that no handler of
        // the parent can run here, in the parent's memory.
        for (int sig : {SIGINT, SIGQUIT, SIGABRT, SIGTERM, SIGPIPE, SIGCHLD, SIGHUP})
                signal(sig, SIG_DFL);
        for (int sig = 1; sig < NSIG; sig++) {
                struct sigaction sa;
                if (sig != SIGKILL && sig != SIGSTOP && sigaction(sig, nullptr, &sa) == 0 &&
                    sa.sa_handler != SIG_DFL && sa.sa_handler != SIG_IGN)
                        signal(sig, SIG_DFL);
        }
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        char** argv = L.argv.get();
        execve(argv[0], argv, L.envp.get());
        int error = errno;
        childLog("Command: '%s' failed to execute -- %s", argv[0], errorText(error));
        _exit(error);
}

// Kept apart so that nothing of the caller's frame lives across vfork.
pid_t spawn(const Launch& L) {
        pid_t pid = vfork();
        if (pid == 0)
                runChild(L);
        return pid;
}

/* ------------------------------------------------------------------ Parent */

// Moves a descriptor out of 0, 1 and 2, where the child's redirections would clobber it.
void lift(Descriptor& fd) {
        if (fd.get() > 2)
                return;
        int moved = fcntl(fd.get(), F_DUPFD_CLOEXEC, 3);
        if (moved != -1)
                fd.reset(moved);
}

// The three pipes. They close on exec so that no other child of this process holds the
// child's input open; dup2 in the child clears that flag on 0, 1 and 2.
void createPipes(Process_T P) {
        Descriptor* ends[] = {P->stdin, P->stdout, P->stderr};
        for (Descriptor* end : ends) {
                int fds[2];
                if (pipe2(fds, O_CLOEXEC) != 0)
                        THROW(AssertException, "Bad file descriptors -- %s", errorText(errno));
                end[0].reset(fds[0]);
                end[1].reset(fds[1]);
        }
        for (Descriptor* end : ends) {
                lift(end[0]);
                lift(end[1]);
        }
}

// Looks up the user name and its groups for a change of uid. The child's group is the
// one it will run as, so a uid alone never adds group 0.
void prepareUser(Command_T C, Launch& L) {
        long size = sysconf(_SC_GETPW_R_SIZE_MAX);
        if (size < 1024)
                size = 16384;
        L.passwd.reset(static_cast<char*>(ALLOC(static_cast<int>(size))));
        struct passwd pw, *found = nullptr;
        int error = getpwuid_r(static_cast<uid_t>(C->uid), &pw, L.passwd.get(),
                               static_cast<size_t>(size), &found);
        if (!found) {
                L.userError = error ? error : ENOENT;
                return;
        }
        L.user = pw.pw_name;
        gid_t group = C->gid ? static_cast<gid_t>(C->gid) : getgid();
        int count = 32;
        for (;;) {
                L.groups.reset(static_cast<gid_t*>(ALLOC(count * static_cast<int>(sizeof(gid_t)))));
                int n = count;
                if (getgrouplist(L.user, group, L.groups.get(), &n) != -1) {
                        L.groupCount = n;
                        return;
                }
                count = n > count ? n : count * 2;
        }
}

// Waits up to one countdown second for the child to end; true if it did.
bool waitSecond(int pidfd) {
        struct timespec start, now;
        clock_gettime(CLOCK_MONOTONIC, &start);
        int length = second.load();
        for (;;) {
                clock_gettime(CLOCK_MONOTONIC, &now);
                long elapsed =
                    (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
                if (elapsed >= length)
                        return false;
                struct pollfd p = {pidfd, POLLIN, 0};
                int r = poll(pidfd >= 0 ? &p : nullptr, pidfd >= 0 ? 1 : 0,
                             static_cast<int>(length - elapsed));
                if (r > 0)
                        return true;
                if (r == -1 && errno != EINTR)
                        return false;
        }
}

// Counts the timeout down while the child runs, and calls onTimeout if it outlives it.
void watch(Command_T C, Process_T P, int pidfd) {
        for (int countdown = C->timeout;;) {
                if (!Process_isRunning(P))
                        return;
                if (countdown == 0) {
                        P->status = -1;
                        C->onTimeout(P, C->onTimeoutData);
                        return;
                }
                if (!waitSecond(pidfd))
                        countdown--;
        }
}

}  // namespace

void Command_setSecond(int milliseconds) {
        second = milliseconds;
}

/* ----------------------------------------------------------------- Command */

Command_T Command_new(void) {
        Command_T C;
        NEW0(C);
        C->env = List_new();
        C->command = List_new();
        List_append(C->env, Str_dup(Command_Path));
        return C;
}

Command_T Command_alloc(Arena_T arena) {
        assert(arena);
        auto C = static_cast<Command_T>(ARENA_CALLOC(arena, 1, sizeof(struct Command_S)));
        C->arena = arena;
        C->env = List_alloc(arena);
        C->command = List_alloc(arena);
        List_append(C->env, STR_DUP_ARENA(arena, Command_Path));
        return C;
}

void Command_free(Command_T* C) {
        assert(C && *C);
        assert((*C)->arena == NULL);
        clearList(*C, (*C)->env);
        clearList(*C, (*C)->command);
        List_free(&(*C)->env);
        List_free(&(*C)->command);
        FREE((*C)->dir);
        FREE(*C);
}

void Command_setCommand(Command_T C, const char* path, ...) {
        assert(C);
        if (!path || !File_existFile(path))
                THROW(AssertException, "File '%s' does not exist", path ? path : "null");
        clearList(C, C->command);
        List_append(C->command, copy(C, path));
        va_list ap;
        va_start(ap, path);
        for (const char* a; (a = va_arg(ap, const char*));)
                List_append(C->command, copy(C, a));
        va_end(ap);
}

List_T Command_getCommand(Command_T C) {
        assert(C);
        return C->command;
}

void Command_setEnv(Command_T C, const char* name, const char* value) {
        assert(C);
        assert(name);
        for (list_t p; (p = findEnv(C, name));)
                release(C, List_remove(C->env, p->e));
        const char* v = value ? value : "";
        List_append(C->env, C->arena ? STR_CAT_ARENA(C->arena, "%s=%s", name, v)
                                     : Str_cat("%s=%s", name, v));
}

void Command_vSetEnv(Command_T C, const char* format, ...) {
        assert(C);
        if (STR_UNDEF(format))
                return;
        va_list ap;
        va_start(ap, format);
        char* text = Str_vcat(format, ap);
        va_end(ap);
        char* part = text;
        while (part) {
                char* next = strchr(part, ';');
                if (next)
                        *next++ = 0;
                char* eq = strchr(part, '=');
                if (!eq)
                        break;
                *eq = 0;
                char* name = Str_trim(part);
                if (!*name)
                        break;
                Command_setEnv(C, name, Str_trim(eq + 1));
                part = next;
        }
        FREE(text);
}

const char* Command_getEnv(Command_T C, const char* name) {
        assert(C);
        assert(name);
        list_t p = findEnv(C, name);
        return p ? static_cast<const char*>(p->e) + strlen(name) + 1 : nullptr;
}

void Command_setDir(Command_T C, const char* dir) {
        assert(C);
        if (dir) {
                if (!File_isDirectory(dir))
                        THROW(AssertException, "The working directory '%s' is not a directory",
                              dir);
                if (!File_isExecutable(dir))
                        THROW(AssertException, "The working directory '%s' is not accessible", dir);
        }
        release(C, C->dir);
        C->dir = dir ? File_removeTrailingSeparator(copy(C, dir)) : nullptr;
}

const char* Command_getDir(Command_T C) {
        assert(C);
        return C->dir;
}

void Command_setUid(Command_T C, int uid) {
        assert(C);
        assert(uid >= 0);
        C->uid = uid;
}

int Command_getUid(Command_T C) {
        assert(C);
        return C->uid;
}

void Command_setGid(Command_T C, int gid) {
        assert(C);
        assert(gid >= 0);
        C->gid = gid;
}

int Command_getGid(Command_T C) {
        assert(C);
        return C->gid;
}

int Command_getTimeout(Command_T C) {
        assert(C);
        return C->timeout;
}

void Command_setOnExec(Command_T C, void (*onExec)(Process_T P, void* data), void* data) {
        assert(C);
        assert(onExec);
        C->onExec = onExec;
        C->onExecData = data;
}

void Command_setOnTimeout(Command_T C, int timeout, void (*onTimeout)(Process_T P, void* data),
                          void* data) {
        assert(C);
        assert(timeout > 0);
        assert(onTimeout);
        C->timeout = timeout;
        C->onTimeout = onTimeout;
        C->onTimeoutData = data;
}

Command_T Command_execute(Command_T C) {
        assert(C);
        if (List_length(C->command) == 0)
                THROW(AssertException, "Command does not contain a program to execute");
        struct Process_S process = {};
        Process_T P = &process;
        P->command = C;
        P->status = -1;
        P->uid = static_cast<int>(getuid());
        P->gid = static_cast<int>(getgid());
        Launch L = {};
        L.command = C;
        L.process = P;
        L.pipes = C->onExec || C->onTimeout;
        if (L.pipes)
                createPipes(P);
        if (C->uid)
                prepareUser(C, L);
        L.argv.reset(reinterpret_cast<char**>(List_toArray(C->command)));
        L.envp.reset(reinterpret_cast<char**>(List_toArray(C->env)));
        // With every signal blocked, none can reach a handler of ours while the child
        // still runs in our memory.
        sigset_t all, old;
        sigfillset(&all);
        Exception_wrapper(pthread_sigmask(SIG_SETMASK, &all, &old));
        pid_t pid = spawn(L);
        int error = errno;
        Exception_wrapper(pthread_sigmask(SIG_SETMASK, &old, nullptr));
        if (pid < 0)
                THROW(AssertException, "Cannot create a new subprocess -- %s", errorText(error));
        P->pid = pid;
        if (!L.pipes)
                return C;
        P->stdin[0].reset();
        P->stdout[1].reset();
        P->stderr[1].reset();
        Net_setNonBlocking(P->stdin[1].get());
        Net_setNonBlocking(P->stdout[0].get());
        Net_setNonBlocking(P->stderr[0].get());
        if (C->onExec)
                C->onExec(P, C->onExecData);
        if (C->onTimeout) {
                Descriptor pidfd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
                watch(C, P, pidfd.get());
        }
        return C;
}

/* ----------------------------------------------------------------- Process */

int Process_getUid(Process_T P) {
        assert(P);
        return P->uid;
}

int Process_getGid(Process_T P) {
        assert(P);
        return P->gid;
}

int Process_getPid(Process_T P) {
        assert(P);
        return P->pid;
}

int Process_getTimeout(Process_T P) {
        assert(P);
        return P->command->timeout;
}

const char* Process_getDir(Process_T P) {
        assert(P);
        return P->command->dir;
}

int Process_waitFor(Process_T P) {
        assert(P);
        if (P->status >= 0 || P->reaped)
                return P->status;
        if (reap(P, 0) != P->pid)
                P->status = -1;
        return P->status;
}

int Process_exitStatus(Process_T P) {
        assert(P);
        if (P->status >= 0 || P->reaped)
                return P->status;
        if (reap(P, WNOHANG) == 0)
                P->status = -1;
        return P->status;
}

int Process_isRunning(Process_T P) {
        assert(P);
        return Process_exitStatus(P) < 0 && !P->reaped;
}

int Process_terminate(Process_T P) {
        assert(P);
        return Process_isRunning(P) && kill(P->pid, SIGTERM) == 0;
}

int Process_kill(Process_T P) {
        assert(P);
        return Process_isRunning(P) && kill(P->pid, SIGKILL) == 0;
}

OutputStream_T Process_getOutputStream(Process_T P) {
        assert(P);
        if (!P->outputStream)
                P->outputStream.reset(OutputStream_new(P->stdin[1].get()));
        return P->outputStream.get();
}

void Process_closeOutputStream(Process_T P) {
        assert(P);
        if (P->outputStream) {
                OutputStream_flush(P->outputStream.get());
                P->outputStream.reset();
        }
        P->stdin[1].reset();
}

InputStream_T Process_getInputStream(Process_T P) {
        assert(P);
        if (!P->inputStream)
                P->inputStream.reset(InputStream_new(P->stdout[0].get()));
        return P->inputStream.get();
}

InputStream_T Process_getErrorStream(Process_T P) {
        assert(P);
        if (!P->errorStream)
                P->errorStream.reset(InputStream_new(P->stderr[0].get()));
        return P->errorStream.get();
}
