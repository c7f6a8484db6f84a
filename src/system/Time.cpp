#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>

#include <string_view>

#include <vesk/Mem.h>
#include <vesk/System.h>
#include <vesk/Time.h>
#include <vesk/assert.h>

struct Time_S {
        int isgmt;
        struct tm tm;
        char string[128];
        time_t time;
        int usec;
};

namespace {

constexpr char kDays[] = "SunMonTueWedThuFriSat";
constexpr char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
constexpr int kMonthDays[2][12] = {{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
                                   {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31}};

// The message keeps "#v" as it stands: it names no field.
#define CHECK_RANGE(v, from, to)                                                              \
        do {                                                                                  \
                if ((v) < (from) || (v) > (to))                                               \
                        THROW(AssertException, "#v is outside the range (%d..%d)", from, to); \
        } while (0)

#define CHECK_FIELDS(year, month, day, hour, min, sec) \
        do {                                           \
                CHECK_RANGE(year, 1970, 2037);         \
                CHECK_RANGE(month, 1, 12);             \
                CHECK_RANGE(day, 1, 31);               \
                CHECK_RANGE(hour, 0, 23);              \
                CHECK_RANGE(min, 0, 59);               \
                CHECK_RANGE(sec, 0, 61);               \
        } while (0)

bool isLeap(long year) {
        return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

namespace own {

// The system's own conversion of GMT fields to a time, since the platform's cannot be relied on
// everywhere. Fields out of bounds give 0. Months below 0 borrow from the year so that adding a
// negative number of months keeps working.
time_t timegm(struct tm* tm) {
        if (tm->tm_mon > 12 || tm->tm_mday > 31 || tm->tm_min > 60 || tm->tm_sec > 60 ||
            tm->tm_hour > 24)
                return 0;
        long year = tm->tm_year + 1900L;
        int month = tm->tm_mon;
        if (month < 0) {
                year -= (11 - month) / 12;
                month = 11 - (11 - month) % 12;
        }
        long long days = 0;
        for (long y = 1970; y < year; y++)
                days += isLeap(y) ? 366 : 365;
        for (int m = 0; m < month; m++)
                days += kMonthDays[isLeap(year)][m % 12];
        return static_cast<time_t>(
            (((days + tm->tm_mday - 1) * 24 + tm->tm_hour) * 60 + tm->tm_min) * 60 + tm->tm_sec);
}

// GMT fields to a time with every field allowed out of range, so that a setter or adder on a
// GMT date rolls over (day 32 of January is 1 February) as it does for a local date.
time_t rollingGmt(const struct tm& tm) {
        long long year = tm.tm_year + 1900LL + tm.tm_mon / 12;
        int month = tm.tm_mon % 12;
        if (month < 0) {
                month += 12;
                year--;
        }
        // Days from 1970-01-01 to the first of the month, on the proleptic Gregorian calendar.
        long long y = month < 2 ? year - 1 : year;
        long long era = (y >= 0 ? y : y - 399) / 400;
        long long yoe = y - era * 400;
        long long mp = (month + 10) % 12;  // March is 0
        long long doy = (153 * mp + 2) / 5;
        long long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
        long long days = era * 146097 + doe - 719468;
        return static_cast<time_t>((days + tm.tm_mday - 1) * 86400LL + tm.tm_hour * 3600LL +
                                   tm.tm_min * 60LL + tm.tm_sec);
}

}  // namespace own

struct tm localFields(time_t time) {
        struct tm tm;
        localtime_r(&time, &tm);
        return tm;
}

struct timeval readClock() {
        struct timeval tv;
        if (gettimeofday(&tv, nullptr) != 0)
                THROW(AssertException, "%s", System_getLastError());
        return tv;
}

// Writes n as `width` digits, with leading zeros.
char* digits(char* p, long n, int width) {
        for (int i = width - 1; i >= 0; i--, n /= 10)
                p[i] = static_cast<char>('0' + n % 10);
        return p;
}

// Fills the common part of Time_string and Time_gmtstring from the template in result.
char* dateText(const struct tm& tm, char* result) {
        memcpy(result, kDays + 3 * tm.tm_wday, 3);
        digits(result + 5, tm.tm_mday, 2);
        memcpy(result + 8, kMonths + 3 * tm.tm_mon, 3);
        digits(result + 12, (tm.tm_year + 1900L) % 10000, 4);
        digits(result + 17, tm.tm_hour, 2);
        digits(result + 20, tm.tm_min, 2);
        digits(result + 23, tm.tm_sec, 2);
        return result;
}

// Brings `time` in line with the changed fields of D and fills the fields from it again, so that
// values out of range roll over.
void normalize(Time_T D) {
        D->tm.tm_isdst = -1;
        if (D->isgmt) {
                D->time = own::rollingGmt(D->tm);
                gmtime_r(&D->time, &D->tm);
        } else {
                D->time = mktime(&D->tm);
                localtime_r(&D->time, &D->tm);
        }
}

Time_T make(time_t time, int usec, bool gmt) {
        Time_T D;
        NEW0(D);
        D->time = time;
        D->usec = usec;
        D->isgmt = gmt;
        if (gmt)
                gmtime_r(&time, &D->tm);
        else
                localtime_r(&time, &D->tm);
        return D;
}

bool isDigit(char c) {
        return c >= '0' && c <= '9';
}

int number(std::string_view s) {
        int n = 0;
        for (char c : s)
                n = n * 10 + (c - '0');
        return n;
}

bool allDigits(std::string_view s, size_t n) {
        if (s.size() < n)
                return false;
        for (size_t i = 0; i < n; i++)
                if (!isDigit(s[i]))
                        return false;
        return true;
}

// The month (0 to 11) whose name, in either case, starts s; -1 if none.
int monthAt(std::string_view s) {
        if (s.size() < 3)
                return -1;
        for (int m = 0; m < 12; m++) {
                const char* name = kMonths + 3 * m;
                bool same = true;
                for (int i = 0; i < 3 && same; i++)
                        same = (s[static_cast<size_t>(i)] | 0x20) == (name[i] | 0x20);
                if (same)
                        return m;
        }
        return -1;
}

}  // namespace

time_t Time_now(void) {
        return readClock().tv_sec;
}

int64_t Time_milli(void) {
        struct timeval tv = readClock();
        return static_cast<int64_t>(tv.tv_sec) * 1000 + tv.tv_usec / 1000;
}

void Time_usleep(long u) {
        if (u <= 0)
                return;
        struct timespec left = {u / 1000000, (u % 1000000) * 1000};
        while (nanosleep(&left, &left) != 0 && errno == EINTR) {
        }
}

time_t Time_build(int year, int month, int day, int hour, int min, int sec) {
        CHECK_FIELDS(year, month, day, hour, min, sec);
        struct tm tm = {};
        tm.tm_year = year - 1900;
        tm.tm_mon = month - 1;
        tm.tm_mday = day;
        tm.tm_hour = hour;
        tm.tm_min = min;
        tm.tm_sec = sec;
        tm.tm_isdst = -1;
        return mktime(&tm);
}

time_t Time_parse(const char* date) {
        if (!date || !*date)
                return -1;
        int day = -1, month = -1, year = -1, hour = 0, min = 0, sec = 0;
        std::string_view s(date);
        while (!s.empty()) {
                // The longest pattern wins: a time of day, then a year, a month name, a day.
                if (allDigits(s, 2) && s.size() >= 8 && s[2] == ':' && allDigits(s.substr(3), 2) &&
                    s[5] == ':' && allDigits(s.substr(6), 2)) {
                        hour = number(s.substr(0, 2));
                        min = number(s.substr(3, 2));
                        sec = number(s.substr(6, 2));
                        s.remove_prefix(8);
                } else if (allDigits(s, 4)) {
                        year = number(s.substr(0, 4));
                        s.remove_prefix(4);
                } else if (int m = monthAt(s); m >= 0) {
                        month = m;
                        s.remove_prefix(3);
                } else if (allDigits(s, 2)) {
                        day = number(s.substr(0, 2));
                        s.remove_prefix(2);
                } else {
                        s.remove_prefix(1);
                }
        }
        if (month < 0 || year < 0 || day < 0)
                return -1;
        // Read as local time whatever zone the text names: callers compare with local times.
        struct tm tm = {};
        tm.tm_year = year - 1900;
        tm.tm_mon = month;
        tm.tm_mday = day;
        tm.tm_hour = hour;
        tm.tm_min = min;
        tm.tm_sec = sec;
        tm.tm_isdst = -1;
        return mktime(&tm);
}

time_t Time_gmt(time_t time) {
        struct tm tm;
        gmtime_r(&time, &tm);
        tm.tm_isdst = -1;
        return mktime(&tm);
}

time_t Time_add(time_t time, int years, int months, int days) {
        struct tm tm = localFields(time);
        tm.tm_year += years;
        tm.tm_mon += months;
        tm.tm_mday += days;
        tm.tm_isdst = -1;
        return mktime(&tm);
}

int Time_daysBetween(time_t a, time_t b) {
        long long d = static_cast<long long>(a) - b;
        return static_cast<int>(((d < 0 ? -d : d) + 43200) / 86400);
}

int Time_year(time_t time) {
        return localFields(time).tm_year + 1900;
}

int Time_month(time_t time) {
        return localFields(time).tm_mon + 1;
}

int Time_day(time_t time) {
        return localFields(time).tm_mday;
}

int Time_weekday(time_t time) {
        return localFields(time).tm_wday;
}

int Time_hour(time_t time) {
        return localFields(time).tm_hour;
}

int Time_minutes(time_t time) {
        return localFields(time).tm_min;
}

int Time_seconds(time_t time) {
        return localFields(time).tm_sec;
}

char* Time_string(time_t time, char* result) {
        if (!result)
                return nullptr;
        memcpy(result, "aaa, xx aaa xxxx xx:xx:xx", 26);
        return dateText(localFields(time), result);
}

char* Time_gmtstring(time_t time, char* result) {
        if (!result)
                return nullptr;
        struct tm tm;
        gmtime_r(&time, &tm);
        memcpy(result, "aaa, xx aaa xxxx xx:xx:xx GMT", 30);
        return dateText(tm, result);
}

char* Time_fmt(char* result, int size, const char* format, time_t time) {
        assert(result);
        assert(format);
        assert(size > 0);
        struct tm tm = localFields(time);
        if (strftime(result, static_cast<size_t>(size), format, &tm) == 0)
                *result = 0;
        return result;
}

char* Time_stamp(char* result) {
        assert(result);
        struct timeval tv = readClock();
        time_t sec = tv.tv_sec;
        int ms = static_cast<int>(tv.tv_usec / 1000.0 + 0.5);
        if (ms >= 1000) {
                sec++;
                ms -= 1000;
        }
        struct tm tm = localFields(sec);
        size_t n = strftime(result, 24, "%Y-%m-%dT%H:%M:%S", &tm);
        snprintf(result + n, 24 - n, ".%03d", ms);
        return result;
}

char* Time_uptime(long long sec, char* result) {
        if (!result)
                return nullptr;
        *result = 0;
        if (sec < 0)
                return result;
        long long days = sec / 86400, hours = sec % 86400 / 3600, minutes = sec % 3600 / 60;
        // Composed in room to spare, then cut to the caller's 24 bytes.
        char text[96];
        int n = 0;
        if (days)
                n = snprintf(text, sizeof text, "%lldd", days);
        if (hours)
                n += snprintf(text + n, sizeof text - static_cast<size_t>(n), "%s%lldh",
                              n ? ", " : "", hours);
        snprintf(text + n, sizeof text - static_cast<size_t>(n), "%s%lldm", n ? ", " : "", minutes);
        size_t length = strnlen(text, 23);
        memcpy(result, text, length);
        result[length] = 0;
        return result;
}

int Time_incron(const char* cron, time_t time) {
        assert(cron);
        struct tm tm = localFields(time);
        const int fields[5] = {tm.tm_min, tm.tm_hour, tm.tm_mday, tm.tm_mon + 1, tm.tm_wday};
        // A field past the fifth compares with nothing and so never matches.
        auto field = [&](int n) { return n >= 0 && n < 5 ? fields[n] : -1; };
        auto read = [](const char*& p) {
                long v = 0;
                for (; isDigit(*p); p++)
                        if (v < 1000000)
                                v = v * 10 + (*p - '0');
                return v;
        };
        int n = 0, count = 0;
        for (const char* p = cron; *p;) {
                if (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n') {
                        p++;
                } else if (*p == '*') {
                        p++;
                        n++;
                        count++;
                } else if (isDigit(*p)) {
                        long from = read(p), to = from;
                        if (*p == '-') {
                                if (!isDigit(*++p))
                                        return false;
                                to = read(p);
                        }
                        long v = field(n);
                        if (v >= 0 && v >= from && v <= to)
                                count++;
                        n++;
                } else if (*p == ',') {
                        p++;
                        n--;
                        assert(n < 5 && n >= 0);
                } else {
                        return false;
                }
        }
        return count == 5;
}

Time_T Time_new(void) {
        struct timeval tv = readClock();
        return make(tv.tv_sec, static_cast<int>(tv.tv_usec), false);
}

Time_T Time_at(time_t time) {
        return make(time, 0, false);
}

Time_T Time_gm(time_t time) {
        return make(time, 0, true);
}

Time_T Time_create(int year, int month, int day, int hour, int min, int sec, int usec) {
        return make(Time_build(year, month, day, hour, min, sec), usec, false);
}

void Time_free(Time_T* D) {
        assert(D && *D);
        FREE(*D);
}

time_t Time_getTime(Time_T D) {
        assert(D);
        return D->time;
}

int Time_getUsec(Time_T D) {
        assert(D);
        return D->usec;
}

int Time_isgmt(Time_T D) {
        assert(D);
        return D->isgmt;
}

int64_t Time_getTimeMilli(Time_T D) {
        assert(D);
        return static_cast<int64_t>(D->time) * 1000 + D->usec / 1000;
}

double Time_toFloat(Time_T D) {
        assert(D);
        return static_cast<double>(D->time) + D->usec / 1e6;
}

int Time_getYear(Time_T D) {
        assert(D);
        return D->tm.tm_year + 1900;
}

int Time_getMonth(Time_T D) {
        assert(D);
        return D->tm.tm_mon + 1;
}

int Time_getDay(Time_T D) {
        assert(D);
        return D->tm.tm_mday;
}

int Time_getWeekDay(Time_T D) {
        assert(D);
        return D->tm.tm_wday;
}

int Time_getHour(Time_T D) {
        assert(D);
        return D->tm.tm_hour;
}

int Time_getMinutes(Time_T D) {
        assert(D);
        return D->tm.tm_min;
}

int Time_getSeconds(Time_T D) {
        assert(D);
        return D->tm.tm_sec;
}

void Time_setYear(Time_T D, int v) {
        assert(D);
        CHECK_RANGE(v, 1970, 2037);
        D->tm.tm_year = v - 1900;
        normalize(D);
}

void Time_setMonth(Time_T D, int v) {
        assert(D);
        D->tm.tm_mon = v - 1;
        normalize(D);
}

void Time_setDay(Time_T D, int v) {
        assert(D);
        D->tm.tm_mday = v;
        normalize(D);
}

void Time_setHour(Time_T D, int v) {
        assert(D);
        D->tm.tm_hour = v;
        normalize(D);
}

void Time_setMinutes(Time_T D, int v) {
        assert(D);
        D->tm.tm_min = v;
        normalize(D);
}

void Time_setSeconds(Time_T D, int v) {
        assert(D);
        D->tm.tm_sec = v;
        normalize(D);
}

void Time_addYears(Time_T D, int n) {
        assert(D);
        D->tm.tm_year += n;
        normalize(D);
}

void Time_addMonths(Time_T D, int n) {
        assert(D);
        D->tm.tm_mon += n;
        normalize(D);
}

void Time_addDays(Time_T D, int n) {
        assert(D);
        D->tm.tm_mday += n;
        normalize(D);
}

void Time_gmtime(Time_T D) {
        assert(D);
        if (D->isgmt)
                return;
        gmtime_r(&D->time, &D->tm);
        D->tm.tm_isdst = -1;
        D->time = own::timegm(&D->tm);
        D->isgmt = 1;
}

void Time_localtime(Time_T D) {
        assert(D);
        if (D->isgmt != 1)
                return;
        localtime_r(&D->time, &D->tm);
        D->tm.tm_isdst = -1;
        D->time = mktime(&D->tm);
        D->isgmt = 0;
}

int Time_daysTo(Time_T D, Time_T time) {
        assert(D);
        assert(time);
        int days = Time_daysBetween(D->time, time->time);
        return time->time < D->time ? -days : days;
}

const char* Time_toString(Time_T D) {
        return Time_toStringFmt(D, "%a, %d %b %Y %H:%M:%S %z");
}

const char* Time_toStringFmt(Time_T D, const char* format) {
        assert(D);
        assert(format);
        if (strftime(D->string, sizeof D->string, format, &D->tm) == 0)
                D->string[0] = 0;
        return D->string;
}
