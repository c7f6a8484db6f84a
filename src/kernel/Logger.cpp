#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <wchar.h>

#include <string_view>

#include <vesk/Error.h>
#include <vesk/File.h>
#include <vesk/FileOutputStream.h>
#include <vesk/Logger.h>
#include <vesk/Mem.h>
#include <vesk/Reactor.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/Time.h>
#include <vesk/assert.h>

#include "kernel/Logger.hpp"
#include "thread/Lock.hpp"

struct Logger_S {
        FileOutputStream_T stream;
        int failed;
        int rotate;
        int rotateTimer;
        int flushTimer;
        int period;
        char* timeStampFormat;
        char* fileName;
        int buffered;
        int timestamp;
        char timeStampBuffer[256];
        pthread_mutex_t mutex;
};

namespace {

constexpr int kBufferSize = 32768;
constexpr unsigned kFlushPeriod = 10000;  // milliseconds
unsigned flushPeriod = kFlushPeriod;
constexpr const char* kTimeStampFormat = "%Y-%m-%d %H:%M:%S";

time_t (*clockSource)(void) = Time_now;

bool isControl(unsigned char c) {
        return c < 0x20 || c == 0x7F;
}

// A log entry under construction, on the heap. Text from an argument may not begin a line:
// its control bytes are written as \xHH. A newline that ends an argument is held back,
// since it may be the one that ends the entry.
class Entry {
public:
        Entry() = default;
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;
        ~Entry() { FREE(data_); }

        // The format's own text: its newlines break the line on purpose.
        void literal(const char* s, size_t n) { add(s, n, true); }

        void argument(const char* s, size_t n) { add(s, n, false); }

        // The text, ended by a NUL, now the caller's; its length goes to *length.
        char* release(int* length) {
                if (held_)
                        put("\n", 1);
                held_ = false;
                put("", 1);
                *length = static_cast<int>(length_ - 1);
                char* text = data_;
                data_ = nullptr;
                return text;
        }

private:
        // Copies runs of plain bytes whole; each control byte is handled alone.
        void add(const char* s, size_t n, bool ownNewlines) {
                for (size_t i = 0; i < n;) {
                        resolve();
                        size_t plain = i;
                        while (plain < n && !isControl(static_cast<unsigned char>(s[plain])))
                                plain++;
                        if (plain > i) {
                                put(s + i, plain - i);
                                i = plain;
                                continue;
                        }
                        auto c = static_cast<unsigned char>(s[i++]);
                        if (c == '\n' && ownNewlines)
                                put("\n", 1);
                        else if (c == '\n' && i == n)
                                held_ = true;
                        else
                                escape(c);
                }
        }

        // Something follows a held newline, so it did not end the entry.
        void resolve() {
                if (held_) {
                        held_ = false;
                        escape('\n');
                }
        }

        void escape(unsigned char c) {
                static constexpr char kHex[] = "0123456789ABCDEF";
                const char e[4] = {'\\', 'x', kHex[c >> 4], kHex[c & 0x0f]};
                put(e, 4);
        }

        void put(const char* s, size_t n) {
                if (length_ + n > capacity_) {
                        capacity_ = (length_ + n) * 2 + 64;
                        int size = static_cast<int>(capacity_);
                        if (data_)
                                RESIZE(data_, size);
                        else
                                data_ = static_cast<char*>(ALLOC(size));
                }
                memcpy(data_ + length_, s, n);
                length_ += n;
        }

        char* data_ = nullptr;
        size_t length_ = 0;
        size_t capacity_ = 0;
        bool held_ = false;
};

// Formats one conversion, conversion being its text from '%' to its letter, and adds the result
// as argument text.
template <typename T>
void convert(Entry& entry, const char* conversion, const int* stars, int nstars, T value) {
        auto print = [&](char* buffer, size_t size) {
                if (nstars == 2)
                        return snprintf(buffer, size, conversion, stars[0], stars[1], value);
                if (nstars == 1)
                        return snprintf(buffer, size, conversion, stars[0], value);
                return snprintf(buffer, size, conversion, value);
        };
        char small[256];
        int n = print(small, sizeof small);
        if (n < 0)
                return;
        if (static_cast<size_t>(n) < sizeof small) {
                entry.argument(small, static_cast<size_t>(n));
                return;
        }
        char* large = static_cast<char*>(ALLOC(n + 1));
        print(large, static_cast<size_t>(n) + 1);
        entry.argument(large, static_cast<size_t>(n));
        FREE(large);
}

// Takes the argument of one conversion off ap by its length modifier and letter, and
// formats it. False for a conversion it does not know.
bool convertNext(Entry& entry, const char* conversion, const int* stars, int nstars,
                 std::string_view length, char letter, va_list& ap) {
        auto is = [&](const char* l) { return length == l; };
        switch (letter) {
        case 'd':
        case 'i':
                if (is("l"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, long));
                else if (is("ll") || is("q") || is("L"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, long long));
                else if (is("j"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, intmax_t));
                else if (is("z") || is("Z"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, ssize_t));
                else if (is("t"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, ptrdiff_t));
                else
                        convert(entry, conversion, stars, nstars, va_arg(ap, int));
                return true;
        case 'o':
        case 'u':
        case 'x':
        case 'X':
                if (is("l"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, unsigned long));
                else if (is("ll") || is("q") || is("L"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, unsigned long long));
                else if (is("j"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, uintmax_t));
                else if (is("z") || is("Z"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, size_t));
                else if (is("t"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, ptrdiff_t));
                else
                        convert(entry, conversion, stars, nstars, va_arg(ap, unsigned));
                return true;
        case 'c':
                if (is("l"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, wint_t));
                else
                        convert(entry, conversion, stars, nstars, va_arg(ap, int));
                return true;
        case 's':
                if (is("l"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, const wchar_t*));
                else
                        convert(entry, conversion, stars, nstars, va_arg(ap, const char*));
                return true;
        case 'p':
                convert(entry, conversion, stars, nstars, va_arg(ap, void*));
                return true;
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
                if (is("L"))
                        convert(entry, conversion, stars, nstars, va_arg(ap, long double));
                else
                        convert(entry, conversion, stars, nstars, va_arg(ap, double));
                return true;
        case 'n':
                // Nothing is written through a log line.
                (void)va_arg(ap, void*);
                return true;
        default:
                return false;
        }
}

void doOpen(Logger_T L) {
        File_T file = File_new("%s", L->fileName);
        L->stream = FileOutputStream_new(file);
        File_free(&file);
        if (!L->stream)
                THROW(IOException, "Error opening log file: %s -- %s", L->fileName,
                      File_getLastError());
        FileOutputStream_setTimeout(L->stream, 0);
        if (!L->buffered)
                Logger_setUnbuffered(L);
        else
                FileOutputStream_setBufferSize(L->stream, kBufferSize);
}

void doLog(Logger_T L, const char* format, va_list ap) {
        if (L->failed || !format || !*format)
                return;
        TRY
                int length;
                char* entry = vesk::Logger_formatEntry(format, ap, &length);
                TRY
                        if (L->timestamp) {
                                time_t now = clockSource();
                                struct tm tm;
                                localtime_r(&now, &tm);
                                if (strftime(L->timeStampBuffer, sizeof L->timeStampBuffer,
                                             L->timeStampFormat, &tm) > 0)
                                        FileOutputStream_print(L->stream, "%s ",
                                                               L->timeStampBuffer);
                        }
                        FileOutputStream_write(L->stream, entry, length);
                FINALLY
                        FREE(entry);
                END_TRY;
        CATCH(IOException)
                // Silent for good: a full disk must not take the server down with it.
                L->failed = 1;
                Error_error("Logger %s -- %s\n", L->fileName, System_getLastError());
        CATCH(MemoryException)
                Error_error("Logger %s -- %s\n", L->fileName, Exception_frame.message);
        END_TRY;
}

// Flushes under the lock; a failure is logged and, for the timer, silences the logger.
void flushLocked(Logger_T L, bool failForGood) {
        vesk::Lock lock(L->mutex);
        if (L->failed || !L->stream)
                return;
        TRY
                FileOutputStream_flush(L->stream);
        ELSE
                if (failForGood) L->failed = 1;
                Error_error("Error flushing Logger %s -- %s\n", L->fileName,
                            *Exception_frame.message ? Exception_frame.message : System_getLastError());
        END_TRY;
}

void doFlush(Timer_T timer) {
        flushLocked(static_cast<Logger_T>(Timer_getData(timer)), true);
}

void doRotate(Timer_T timer);

void schedule_rotate(Logger_T L) {
        if (L->failed || !L->rotate) {
                L->rotateTimer = -1;
                return;
        }
        Reactor_T R = Reactor_getInstance();
        Timer_T timer = Reactor_createTimer(R);
        Timer_setData(timer, L);
        Timer_setHandler(timer, doRotate);
        long seconds = vesk::Logger_secondsToRotation(L->period, clockSource());
        L->rotateTimer = Reactor_scheduleTimer(R, timer, static_cast<unsigned>(seconds * 1000), 0);
}

void doRotate(Timer_T timer) {
        Logger_T L = static_cast<Logger_T>(Timer_getData(timer));
        {
                vesk::Lock lock(L->mutex);
                time_t now = clockSource();
                struct tm tm;
                localtime_r(&now, &tm);
                char rotated[4096 + 16];
                snprintf(rotated, sizeof rotated, "%s.%d%02d%02d", L->fileName, tm.tm_year + 1900,
                         tm.tm_mon + 1, tm.tm_mday);
                TRY
                        FileOutputStream_free(&L->stream);
                ELSE
                        Error_error("Logger %s -- %s\n", L->fileName, Exception_frame.message);
                END_TRY;
                L->stream = nullptr;
                if (!File_rename(L->fileName, rotated))
                        Error_error("Logger: Could not rename logfile %s to %s -- %s\n",
                                    L->fileName, rotated, File_getLastError());
                TRY
                        doOpen(L);
                CATCH(IOException)
                        L->failed = 1;
                        Error_error("Logger: Could not reopen log file %s -- %s\n", L->fileName,
                                    Exception_frame.message);
                CATCH(MemoryException)
                        Error_error("Logger %s -- %s\n", L->fileName, Exception_frame.message);
                END_TRY;
        }
        schedule_rotate(L);
}

void cancelTimer(int id) {
        if (id >= 0)
                Reactor_cancelTimer(Reactor_getInstance(), id);
}

}  // namespace

char* vesk::Logger_formatEntry(const char* format, va_list ap, int* length) {
        assert(format);
        assert(length);
        int savedErrno = errno;
        Entry entry;
        va_list args;
        va_copy(args, ap);
        const char* p = format;
        while (*p) {
                if (*p != '%' || p[1] == '%') {
                        const char* end = *p == '%' ? p + 1 : strchrnul(p, '%');
                        entry.literal(p, static_cast<size_t>(end - p));
                        p = *p == '%' ? p + 2 : end;
                        continue;
                }
                const char* start = p++;
                int stars[2];
                int nstars = 0;
                p += strspn(p, "-+ #0'I");
                if (*p == '*') {
                        stars[nstars++] = va_arg(args, int);
                        p++;
                } else {
                        p += strspn(p, "0123456789");
                }
                if (*p == '.') {
                        p++;
                        if (*p == '*') {
                                stars[nstars++] = va_arg(args, int);
                                p++;
                        } else {
                                p += strspn(p, "0123456789");
                        }
                }
                const char* lengthStart = p;
                p += strspn(p, "hlqLjzZt");
                std::string_view modifier(lengthStart, static_cast<size_t>(p - lengthStart));
                char conversion[64];
                size_t specLength = static_cast<size_t>(p - start) + 1;
                bool known = *p && specLength < sizeof conversion;
                if (known && *p == 'm') {
                        entry.argument(strerror(savedErrno), strlen(strerror(savedErrno)));
                        p++;
                        continue;
                }
                if (known) {
                        memcpy(conversion, start, specLength);
                        conversion[specLength] = 0;
                        known = convertNext(entry, conversion, stars, nstars, modifier, *p, args);
                }
                if (!known) {
                        // A form this walk does not take apart, such as a numbered argument,
                        // is formatted whole from here on and escaped as data.
                        va_list rest;
                        va_copy(rest, args);
                        char* text = Str_vcat(start, rest);
                        va_end(rest);
                        entry.argument(text, strlen(text));
                        FREE(text);
                        break;
                }
                p++;
        }
        va_end(args);
        return entry.release(length);
}

void vesk::Logger_setClock(time_t (*clock)(void)) {
        clockSource = clock ? clock : Time_now;
}

void vesk::Logger_setFlushPeriod(unsigned milliseconds) {
        flushPeriod = milliseconds ? milliseconds : kFlushPeriod;
}

long vesk::Logger_secondsToRotation(int period, time_t now) {
        struct tm tm;
        localtime_r(&now, &tm);
        tm.tm_sec = tm.tm_min = tm.tm_hour = 0;
        switch (period) {
        case 1:
                tm.tm_mday += 1;
                break;
        case 2:
                tm.tm_mday += 7 - tm.tm_wday;  // the coming Sunday; a week from a Sunday
                break;
        default:
                tm.tm_mday = 1;  // before the month moves, so the 31st cannot skip a month
                tm.tm_mon += 1;
        }
        tm.tm_isdst = -1;
        return static_cast<long>(mktime(&tm) - now);
}

Logger_T Logger_new(const char* filename) {
        assert(filename && *filename);
        Logger_T L;
        NEW0(L);
        L->rotateTimer = -1;
        L->flushTimer = -1;
        L->buffered = 1;
        L->timestamp = 1;
        Exception_wrapper(pthread_mutex_init(&(L->mutex), NULL));
        L->timeStampFormat = Str_dup(kTimeStampFormat);
        L->fileName = Str_dup(filename);
        TRY
                doOpen(L);
                Error_debug("Log file '%s' opened\n", L->fileName);
        CATCH(IOException)
                pthread_mutex_destroy(&L->mutex);
                FREE(L->timeStampFormat);
                FREE(L->fileName);
                FREE(L);
                RETHROW;
        END_TRY;
        if (!L->failed && L->buffered) {
                Reactor_T R = Reactor_getInstance();
                Timer_T timer = Reactor_createTimer(R);
                Timer_setData(timer, L);
                Timer_setHandler(timer, doFlush);
                L->flushTimer = Reactor_scheduleTimer(R, timer, flushPeriod, flushPeriod);
        }
        return L;
}

void Logger_free(Logger_T* L) {
        assert(L && *L);
        cancelTimer((*L)->flushTimer);
        cancelTimer((*L)->rotateTimer);
        if ((*L)->stream) {
                TRY
                        FileOutputStream_free(&(*L)->stream);
                ELSE
                        Error_error("Logger %s -- %s\n", (*L)->fileName, Exception_frame.message);
                END_TRY;
        }
        Error_debug("Log file '%s' closed\n", (*L)->fileName);
        Exception_wrapper(pthread_mutex_destroy(&((*L)->mutex)));
        FREE((*L)->fileName);
        FREE((*L)->timeStampFormat);
        FREE(*L);
}

void Logger_log(Logger_T L, const char* format, ...) {
        assert(L);
        va_list ap;
        va_start(ap, format);
        Logger_vlog(L, format, ap);
        va_end(ap);
}

void Logger_vlog(Logger_T L, const char* format, va_list ap) {
        assert(L);
        vesk::Lock lock(L->mutex);
        doLog(L, format, ap);
}

void Logger_flog(Logger_T L, const char* format, ...) {
        assert(L);
        va_list ap;
        va_start(ap, format);
        doLog(L, format, ap);
        va_end(ap);
}

void Logger_flush(Logger_T L) {
        assert(L);
        flushLocked(L, false);
}

void Logger_setRotate(Logger_T L, const char* period) {
        assert(L);
        if (Str_isEqual(period, "day"))
                L->period = 1;
        else if (Str_isEqual(period, "week"))
                L->period = 2;
        else if (Str_isEqual(period, "month"))
                L->period = 3;
        else
                THROW(AssertException, "Invalid period %s", period ? period : "null");
        // Planning twice would leave two rotations armed.
        cancelTimer(L->rotateTimer);
        L->rotate = 1;
        schedule_rotate(L);
}

int Logger_getRotate(Logger_T L) {
        assert(L);
        return L->rotate;
}

void Logger_setTimestamp(Logger_T L, int on) {
        assert(L);
        L->timestamp = on;
}

int Logger_getTimestamp(Logger_T L) {
        assert(L);
        return L->timestamp;
}

void Logger_setTimeStampFormat(Logger_T L, const char* format) {
        assert(L);
        assert(format);
        vesk::Lock lock(L->mutex);
        FREE(L->timeStampFormat);
        L->timeStampFormat = Str_dup(format);
}

const char* Logger_getTimeStampFormat(Logger_T L) {
        assert(L);
        return L->timeStampFormat;
}

void Logger_setUnbuffered(Logger_T L) {
        assert(L);
        L->buffered = 0;
        FileOutputStream_setBufferSize(L->stream, 0);
        cancelTimer(L->flushTimer);
}

int Logger_isUnbuffered(Logger_T L) {
        assert(L);
        L->buffered = 0;
        return 0;
}

const char* Logger_getFileName(Logger_T L) {
        assert(L);
        return L->fileName;
}
