#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

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
                if (L->timestamp) {
                        time_t now = clockSource();
                        struct tm tm;
                        localtime_r(&now, &tm);
                        if (strftime(L->timeStampBuffer, sizeof L->timeStampBuffer, L->timeStampFormat,
                                     &tm) > 0)
                                FileOutputStream_print(L->stream, "%s ", L->timeStampBuffer);
                }
                FileOutputStream_vprint(L->stream, format, ap);
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
