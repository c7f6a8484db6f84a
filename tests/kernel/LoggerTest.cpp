#include <gtest/gtest.h>

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <vesk/Container.h>
#include <vesk/Error.h>
#include <vesk/Logger.h>
#include <vesk/Mem.h>
#include <vesk/Reactor.h>

#include "support/Support.hpp"
#include "support/TempDir.hpp"
#include "kernel/Logger.hpp"

namespace {

// Local time is UTC in these tests, so that dates and midnights are the same everywhere.
struct UtcZone {
        UtcZone() {
                setenv("TZ", "UTC0", 1);
                tzset();
        }
        ~UtcZone() {
                unsetenv("TZ");
                tzset();
                vesk::Logger_setClock(nullptr);
                vesk::Logger_setFlushPeriod(0);
        }
};

time_t fakeNow;
time_t fakeClock() {
        return fakeNow;
}

// Runs the Reactor until `ms` have passed.
void runReactorFor(unsigned ms) {
        Reactor_T R = Reactor_getInstance();
        Timer_T stop = Reactor_createTimer(R);
        Timer_setData(stop, R);
        Timer_setHandler(stop,
                         [](Timer_T t) { Reactor_stop(static_cast<Reactor_T>(Timer_getData(t))); });
        Reactor_scheduleTimer(R, stop, ms, 0);
        Reactor_start(R);
}

// 2026-01-31 (a Saturday) at the given time of day, UTC.
time_t jan31(int hour, int min, int sec) {
        return 1769817600 + hour * 3600 + min * 60 + sec;
}

}  // namespace

TEST(Logger, LinesTimestampsAndFormats) {
        UtcZone utc;
        TempDir dir;
        vesk::Logger_setClock(fakeClock);
        fakeNow = jan31(12, 34, 56);
        Logger_T L = Logger_new((dir / "app.log").c_str());
        Logger_setUnbuffered(L);
        Logger_log(L, "hello %d\n", 1);
        EXPECT_EQ(readFile((dir / "app.log")), "2026-01-31 12:34:56 hello 1\n");
        const char* empty = "";
        Logger_log(L, empty);  // nothing, not even a timestamp
        Logger_log(L, nullptr);
        Logger_setTimestamp(L, 0);
        Logger_log(L, "bare\n");
        Logger_setTimestamp(L, 1);
        Logger_setTimeStampFormat(L, "[%H]");
        Logger_log(L, "hour\n");
        Logger_setTimeStampFormat(L, "");  // no timestamp text: only the timestamp is dropped
        Logger_log(L, "no stamp\n");
        EXPECT_EQ(readFile((dir / "app.log")),
                  "2026-01-31 12:34:56 hello 1\nbare\n[12] hour\nno stamp\n");
        Logger_free(&L);

        // Reopening appends.
        L = Logger_new((dir / "app.log").c_str());
        Logger_setTimestamp(L, 0);
        Logger_log(L, "more\n");
        Logger_free(&L);
        EXPECT_EQ(readFile((dir / "app.log")).substr(43), "no stamp\nmore\n");
}

TEST(Logger, BufferedUntilFlushedOrTimerFires) {
        TempDir dir;
        vesk::Logger_setFlushPeriod(200);
        Logger_T L = Logger_new((dir / "access.log").c_str());
        Logger_setTimestamp(L, 0);
        Logger_flog(L, "first\n");
        EXPECT_EQ(readFile((dir / "access.log")), "");
        Logger_flush(L);
        EXPECT_EQ(readFile((dir / "access.log")), "first\n");
        Logger_flog(L, "second\n");
        runReactorFor(500);
        EXPECT_EQ(readFile((dir / "access.log")), "first\nsecond\n");
        Logger_free(&L);
        vesk::Logger_setFlushPeriod(0);
}

TEST(Logger, ChecksAndOpenFailures) {
        EXPECT_EQ(
            raised([] { Logger_new("/no/such/dir/x.log"); }),
            "IOException: Error opening log file: /no/such/dir/x.log -- No such file or directory");
        TempDir dir;
        Logger_T L = Logger_new((dir / "a.log").c_str());
        EXPECT_EQ(assertion([&] { Logger_setRotate(L, "year"); }), "Invalid period year");
        EXPECT_FALSE(Logger_getRotate(L));
        Logger_free(&L);
}

TEST(Logger, DiskFullSilencesTheLoggerForGood) {
        Logger_T L = Logger_new("/dev/full");
        Logger_setUnbuffered(L);
        for (int i = 0; i < 3; i++)
                Logger_log(L, "lost %d\n", i);  // never raises
        Logger_flush(L);
        Logger_free(&L);
}

TEST(Logger, RotationPlansForTheNextPeriod) {
        UtcZone utc;
        EXPECT_EQ(vesk::Logger_secondsToRotation(1, jan31(23, 59, 59)), 1);
        EXPECT_EQ(vesk::Logger_secondsToRotation(1, jan31(0, 0, 0)), 86400);
        // Saturday to the coming Sunday's midnight, and from a Sunday a whole week.
        EXPECT_EQ(vesk::Logger_secondsToRotation(2, jan31(12, 0, 0)), 12 * 3600);
        EXPECT_EQ(vesk::Logger_secondsToRotation(2, jan31(0, 0, 0) + 86400), 7 * 86400);
        // From the 31st to the first of the next month, not skipping February.
        EXPECT_EQ(vesk::Logger_secondsToRotation(3, jan31(12, 0, 0)), 12 * 3600);
}

TEST(Logger, RotatesAcrossMidnightAndKeepsLogging) {
        UtcZone utc;
        TempDir dir;
        vesk::Logger_setClock(fakeClock);
        fakeNow = jan31(23, 59, 59);
        std::string name = (dir / "app.log");
        Logger_T L = Logger_new(name.c_str());
        Logger_setUnbuffered(L);
        Logger_setTimestamp(L, 0);
        Logger_log(L, "old day\n");
        Logger_setRotate(L, "DAY");
        EXPECT_TRUE(Logger_getRotate(L));
        fakeNow = jan31(0, 0, 1) + 86400;  // the timer fires after one second: it is 1 February
        runReactorFor(1500);
        EXPECT_EQ(readFile(name + ".20260201"), "old day\n");
        Logger_log(L, "new day\n");
        EXPECT_EQ(readFile(name), "new day\n");
        Logger_free(&L);
}

TEST(Logger, FailedRenameContinuesTheOldFile) {
        UtcZone utc;
        TempDir dir;
        vesk::Logger_setClock(fakeClock);
        fakeNow = jan31(23, 59, 59);
        std::string name = (dir / "app.log");
        // A non-empty directory in the way of the rotated name makes the rename fail.
        mkdir((name + ".20260201").c_str(), 0755);
        std::ofstream(name + ".20260201/x") << "x";
        Logger_T L = Logger_new(name.c_str());
        Logger_setUnbuffered(L);
        Logger_setTimestamp(L, 0);
        Logger_log(L, "before\n");
        Logger_setRotate(L, "day");
        fakeNow = jan31(0, 0, 1) + 86400;
        runReactorFor(1500);
        Logger_log(L, "after\n");
        EXPECT_EQ(readFile(name), "before\nafter\n");
        Logger_free(&L);
}

namespace {

std::string entry(const char* format, ...) {
        va_list ap;
        va_start(ap, format);
        int length = -1;
        char* text = vesk::Logger_formatEntry(format, ap, &length);
        va_end(ap);
        std::string result(text, static_cast<size_t>(length));
        FREE(text);
        return result;
}

}  // namespace

TEST(Logger, ArgumentsCannotBeginALine) {
        // Control bytes an argument brings are written as \xHH; the format's own line breaks
        // stay, and so does a newline that ends the entry, wherever it came from.
        EXPECT_EQ(entry("GET %s done\n", "/a\r\n127.0.0.1 forged"),
                  "GET /a\\x0D\\x0A127.0.0.1 forged done\n");
        EXPECT_EQ(entry("first\nsecond %s\n", "\x1b[2J\t\x7f"),
                  "first\nsecond \\x1B[2J\\x09\\x7F\n");
        EXPECT_EQ(entry("%s", "message\n"), "message\n");
        EXPECT_EQ(entry("%s%s", "a\n", "b\n\n"), "a\\x0Ab\\x0A\n");
        EXPECT_EQ(entry("%s!", "a\n"), "a\\x0A!");
        EXPECT_EQ(entry("tab\there\n"), "tab\\x09here\n");
        // Every conversion formats as printf would.
        char expected[256];
        int star = 6;
        void* p = &star;
#define CONVERSIONS "%d|%-4s|%5.2f|%x|%lld|%zu|%c|%p|%%|%.*s|%*d|%lu|%hhd|%Lg\n"
        snprintf(expected, sizeof expected, CONVERSIONS, -3, "ab", 3.14159, 255u, -9000000000LL,
                 static_cast<size_t>(7), 'q', p, 2, "xyz", star, 42, 99ul, 300, 2.5L);
        EXPECT_EQ(entry(CONVERSIONS, -3, "ab", 3.14159, 255u, -9000000000LL, static_cast<size_t>(7),
                        'q', p, 2, "xyz", star, 42, 99ul, 300, 2.5L),
                  expected);
#undef CONVERSIONS
        std::string wide(3000, 'w');
        EXPECT_EQ(entry("[%s]", wide.c_str()), "[" + wide + "]");
        errno = ENOENT;
        EXPECT_EQ(entry("%m\n"), std::string(strerror(ENOENT)) + "\n");
        // A numbered form is formatted whole and escaped as data.
        EXPECT_EQ(entry("%2$s %1$s\n", "a\n", "b"), "b a\\x0A\n");
}


TEST(Error, ErrorLogGetsErrorLinesWithTime) {
        TempDir dir;
        EXPECT_EQ(Error_getLogger(), nullptr);
        Error_init((dir / "first.log").c_str());
        Logger_T first = Error_getLogger();
        ASSERT_NE(first, nullptr);
        Error_init((dir / "error.log").c_str());  // closes the first
        Error_error("disk %s\n", "trou\nble");
        Error_warn("not in the log\n");
        Container_Debug = 0;
        Error_debug("nor this\n");
        std::string text = readFile((dir / "error.log"));
        EXPECT_EQ(text.size(), strlen("2026-01-31 12:34:56 disk trou\\x0Able\n")) << text;
        EXPECT_EQ(text.substr(20), "disk trou\\x0Able\n");
        Error_destroy();
        EXPECT_EQ(Error_getLogger(), nullptr);
        Error_error("only on standard error\n");
}
