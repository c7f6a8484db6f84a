#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include <vesk/Container.h>
#include <vesk/Context.h>
#include <vesk/CrashGuard.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/System.h>
#include <vesk/assert.h>

namespace {

constexpr int kFatal[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

// What one processor thread serves now, as text ready for write(2): the handler may not
// format, allocate or take a lock, and the module may have trashed the heap.
struct Scene {
        volatile sig_atomic_t armed;
        size_t lineLength;
        size_t moduleLength;
        char line[2048];
        char module[PATH_MAX + 1];
};

thread_local Scene ownScene;
// Initial-exec, so that the handler reads the pointer without making the thread's storage.
__attribute__((tls_model("initial-exec"))) thread_local Scene* scene = nullptr;

struct sigaction previous[NSIG];
bool installed = false;
char errorLogPath[PATH_MAX + 1];
long zoneOffset = 0;  // seconds east of UTC when the server started
char recordPath[PATH_MAX + 1];

struct Disabled {
        std::string path;
        time_t modified;
};
std::vector<Disabled> disabled;

// Appends text to buffer of capacity size, written as the error log writes what a client
// sent: a control byte becomes \xHH, so that no request can begin a line of the log.
void append(char* buffer, size_t size, size_t& length, const char* text) {
        static const char hex[] = "0123456789abcdef";
        for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text ? text : "");
             *p && length + 4 < size; p++) {
                if (*p < 0x20 || *p == 0x7f) {
                        buffer[length++] = '\\';
                        buffer[length++] = 'x';
                        buffer[length++] = hex[*p >> 4];
                        buffer[length++] = hex[*p & 15];
                } else {
                        buffer[length++] = static_cast<char>(*p);
                }
        }
        buffer[length] = 0;
}

void say(int fd, const char* text, size_t n) {
        while (n > 0) {
                ssize_t w = write(fd, text, n);
                if (w < 0 && errno == EINTR)
                        continue;
                if (w <= 0)
                        return;
                text += w;
                n -= static_cast<size_t>(w);
        }
}

void say(int fd, const char* text) {
        say(fd, text, strlen(text));
}

const char* signalName(int signo) {
        switch (signo) {
        case SIGSEGV:
                return "SIGSEGV";
        case SIGBUS:
                return "SIGBUS";
        case SIGFPE:
                return "SIGFPE";
        case SIGILL:
                return "SIGILL";
        default:
                return "SIGABRT";
        }
}

// Decimal digits of n into buffer (at least 24 bytes); the start of the text.
const char* decimal(char* buffer, size_t size, long long n) {
        char* p = buffer + size - 1;
        *p = 0;
        bool negative = n < 0;
        unsigned long long u = negative ? 0ULL - static_cast<unsigned long long>(n)
                                        : static_cast<unsigned long long>(n);
        do {
                *--p = static_cast<char>('0' + u % 10);
                u /= 10;
        } while (u && p > buffer + 1);
        if (negative)
                *--p = '-';
        return p;
}

// "YYYY-MM-DD hh:mm:ss " for the seconds since the epoch, as the error log stamps its
// lines, by arithmetic alone: the C library's time conversions are not signal-safe.
const char* timestamp(char* buffer, long long seconds) {
        long long days = seconds / 86400, rest = seconds % 86400;
        if (rest < 0) {
                rest += 86400;
                days--;
        }
        // Civil date from the day count (the proleptic Gregorian calendar, eras of 400 years).
        days += 719468;
        long long era = (days >= 0 ? days : days - 146096) / 146097;
        long long dayOfEra = days - era * 146097;
        long long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
        long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
        long long mp = (5 * dayOfYear + 2) / 153;
        int day = static_cast<int>(dayOfYear - (153 * mp + 2) / 5 + 1);
        int month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
        long long year = yearOfEra + era * 400 + (month <= 2);
        int fields[] = {static_cast<int>(year % 10000), month, day, static_cast<int>(rest / 3600),
                        static_cast<int>(rest / 60 % 60), static_cast<int>(rest % 60)};
        const char separators[] = "-- ::";
        char* p = buffer;
        for (int i = 0; i < 6; i++) {
                int width = i == 0 ? 4 : 2;
                for (int d = width - 1, v = fields[i]; d >= 0; d--, v /= 10)
                        p[d] = static_cast<char>('0' + v % 10);
                p += width;
                *p++ = i < 5 ? separators[i] : ' ';
        }
        *p = 0;
        return buffer;
}

// Only async-signal-safe calls from here on: open, write, close, clock_gettime, and the
// backtrace functions, whose one unsafe step (loading the unwinder) install has done.
void report(int signo, Scene* s) {
        int log = *errorLogPath ? open(errorLogPath, O_WRONLY | O_APPEND | O_CLOEXEC) : -1;
        int fd = log >= 0 ? log : STDERR_FILENO;
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        char stamp[24];
        say(fd, timestamp(stamp, now.tv_sec + zoneOffset));
        say(fd, "Fatal signal ");
        say(fd, signalName(signo));
        say(fd, s->line, s->lineLength);
        void* frames[64];
        int n = backtrace(frames, 64);
        backtrace_symbols_fd(frames, n, fd);
        if (log >= 0)
                close(log);
        if (!*recordPath)
                return;
        int record = open(recordPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (record < 0)
                return;
        char digits[24];
        // One write per entry, so that two threads crashing at once do not mix their lines.
        char entry[PATH_MAX + 32];
        size_t length = 0;
        append(entry, sizeof entry, length, decimal(digits, sizeof digits, now.tv_sec));
        append(entry, sizeof entry, length, " ");
        memcpy(entry + length, s->module, s->moduleLength);
        length += s->moduleLength;
        entry[length++] = '\n';
        say(record, entry, length);
        close(record);
}

void onFatal(int signo, siginfo_t* info, void* context) {
        Scene* s = scene;
        if (s && s->armed) {
                s->armed = 0;
                report(signo, s);
                // The process ends as it would have without the guard: by this signal, with
                // a core where the system keeps one. A fault returns to the faulting
                // instruction and raises again; the pending signal covers the rest.
                struct sigaction standard = {};
                standard.sa_handler = SIG_DFL;
                sigaction(signo, &standard, nullptr);
                raise(signo);
                return;
        }
        const struct sigaction& before = previous[signo];
        if (before.sa_flags & SA_SIGINFO) {
                before.sa_sigaction(signo, info, context);
                return;
        }
        if (before.sa_handler != SIG_DFL && before.sa_handler != SIG_IGN) {
                before.sa_handler(signo);
                return;
        }
        struct sigaction standard = {};
        standard.sa_handler = before.sa_handler;
        sigaction(signo, &standard, nullptr);
        if (before.sa_handler == SIG_DFL)
                raise(signo);
}

struct Crash {
        std::string path;
        time_t when;
};

std::vector<Crash> readRecord(const char* recordFile) {
        std::vector<Crash> crashes;
        FILE* f = fopen(recordFile, "r");
        if (!f)
                return crashes;
        char line[PATH_MAX + 64];
        while (fgets(line, sizeof line, f)) {
                char* end = nullptr;
                long long when = strtoll(line, &end, 10);
                if (end == line || *end != ' ')
                        continue;
                std::string path = end + 1;
                while (!path.empty() && (path.back() == '\n' || path.back() == '\r'))
                        path.pop_back();
                if (!path.empty())
                        crashes.push_back({path, static_cast<time_t>(when)});
        }
        fclose(f);
        return crashes;
}

int count(const std::vector<Crash>& crashes, const std::string& path, time_t modified,
          time_t now) {
        int n = 0;
        for (const Crash& c : crashes)
                if (c.path == path && c.when >= modified && c.when > now - CrashGuard_Window &&
                    c.when <= now)
                        n++;
        return n;
}

void loadDisabled(time_t now) {
        std::vector<Crash> crashes = readRecord(recordPath);
        for (const Crash& c : crashes) {
                bool known = false;
                for (const Disabled& d : disabled)
                        known = known || d.path == c.path;
                if (known)
                        continue;
                time_t modified = File_mtime(c.path.c_str());
                int n = count(crashes, c.path, modified, now);
                if (n < CrashGuard_Limit)
                        continue;
                disabled.push_back({c.path, modified});
                Error_error("Servlet module '%s' crashed %d times within %d minutes -- it is "
                            "disabled and its URLs answer 503 until the module changes or %s "
                            "starts unsupervised\n",
                            c.path.c_str(), n, CrashGuard_Window / 60, Container_Name);
        }
}

void copyField(char* field, const char* value) {
        if (snprintf(field, PATH_MAX + 1, "%s", value) > PATH_MAX)
                THROW(AssertException, "Path too long -- more than %d characters", PATH_MAX);
}

}  // namespace

void CrashGuard_install(const char* home, const char* errorLog, int supervised) {
        assert(home);
        CrashGuard_uninstall();
        copyField(errorLogPath, errorLog ? errorLog : "");
        char record[PATH_MAX + 1];
        if (snprintf(record, sizeof record, "%s%slogs%scrashes", home, SEPARATOR, SEPARATOR) >
            PATH_MAX)
                THROW(AssertException, "Path too long -- more than %d characters", PATH_MAX);
        copyField(recordPath, record);
        time_t now = time(nullptr);
        struct tm local;
        zoneOffset = localtime_r(&now, &local) ? local.tm_gmtoff : 0;
        if (supervised)
                loadDisabled(now);
        else
                unlink(recordPath);
        // The first backtrace loads the unwinder, which may allocate: never in the handler.
        void* frame[1];
        backtrace(frame, 1);
        struct sigaction action = {};
        action.sa_sigaction = onFatal;
        action.sa_flags = SA_SIGINFO;
        sigemptyset(&action.sa_mask);
        for (int signo : kFatal) {
                // A debug server aborts to leave a core image of its own state, untouched.
                if (signo == SIGABRT && Container_Debug)
                        continue;
                if (sigaction(signo, &action, &previous[signo]) != 0)
                        THROW(AssertException, "Cannot install the handler of signal %d -- %s",
                              signo, System_getLastError());
        }
        installed = true;
}

void CrashGuard_uninstall(void) {
        if (installed) {
                for (int signo : kFatal)
                        if (signo != SIGABRT || !Container_Debug)
                                sigaction(signo, &previous[signo], nullptr);
                installed = false;
        }
        disabled.clear();
        *recordPath = 0;
        *errorLogPath = 0;
}

void CrashGuard_enter(Wrapper_T W, HttpRequest_T req) {
        assert(W);
        assert(req);
        Scene* s = &ownScene;
        s->armed = 0;
        size_t n = 0;
        char* line = s->line;
        size_t size = sizeof s->line - 1;
        Context_T context = Wrapper_getContext(W);
        const char* contextPath = context ? Context_getContextPath(context) : nullptr;
        append(line, size, n, " in servlet module '");
        append(line, size, n, Wrapper_getFilePath(W));
        append(line, size, n, "' of context '");
        append(line, size, n, contextPath && *contextPath ? contextPath : "/");
        append(line, size, n, "' serving ");
        append(line, size, n, HttpRequest_getMethod(req));
        append(line, size, n, " ");
        append(line, size, n, HttpRequest_getRequestURI(req));
        if (const char* query = HttpRequest_getQueryString(req)) {
                append(line, size, n, "?");
                append(line, size, n, query);
        }
        line[n++] = '\n';
        line[n] = 0;
        s->lineLength = n;
        s->moduleLength = 0;
        append(s->module, sizeof s->module, s->moduleLength, Wrapper_getFilePath(W));
        scene = s;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        s->armed = 1;
        std::atomic_signal_fence(std::memory_order_seq_cst);
}

void CrashGuard_leave(void) {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (Scene* s = scene)
                s->armed = 0;
}

int CrashGuard_isDisabled(Wrapper_T W) {
        assert(W);
        if (disabled.empty())
                return false;
        const char* path = Wrapper_getFilePath(W);
        if (!path)
                return false;
        for (const Disabled& d : disabled)
                if (d.path == path)
                        return File_mtime(path) == d.modified;
        return false;
}

int CrashGuard_tooMany(const char* recordFile, const char* path, time_t modified, time_t now) {
        assert(recordFile);
        assert(path);
        return count(readRecord(recordFile), path, modified, now) >= CrashGuard_Limit;
}
