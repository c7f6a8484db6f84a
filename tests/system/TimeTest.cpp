#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <optional>
#include <string>

#include <vesk/Time.h>

#include "support/Support.hpp"

namespace {

// Sun, 06 Nov 1994 08:49:37 GMT.
constexpr time_t kRfcExample = 784111777;

// Central European time with its summer rule, written out so that no zone files are needed.
constexpr const char* kCet = "CET-1CEST,M3.5.0,M10.5.0/3";

// Runs each test in a fixed time zone and puts the machine's own back afterwards.
class TimeTest : public ::testing::Test {
protected:
        void SetUp() override {
                if (const char* tz = getenv("TZ"))
                        saved = tz;
                zone(kCet);
        }
        void TearDown() override {
                if (saved)
                        setenv("TZ", saved->c_str(), 1);
                else
                        unsetenv("TZ");
                tzset();
        }
        static void zone(const char* tz) {
                setenv("TZ", tz, 1);
                tzset();
        }

private:
        std::optional<std::string> saved;
};

// A Time_T freed at the end of the test.
struct Date {
        Time_T D;
        explicit Date(Time_T d) : D(d) {}
        ~Date() { Time_free(&D); }
        operator Time_T() const { return D; }
};

std::string ymdhms(Time_T D) {
        return Time_toStringFmt(D, "%Y-%m-%d %H:%M:%S");
}

}  // namespace

TEST_F(TimeTest, HttpDatesOnTheFastPath) {
        char buf[30];
        EXPECT_STREQ(Time_gmtstring(kRfcExample, buf), "Sun, 06 Nov 1994 08:49:37 GMT");
        EXPECT_STREQ(Time_gmtstring(0, buf), "Thu, 01 Jan 1970 00:00:00 GMT");
        EXPECT_STREQ(Time_gmtstring(2147483647, buf), "Tue, 19 Jan 2038 03:14:07 GMT");
        char local[26];
        EXPECT_STREQ(Time_string(kRfcExample, local), "Sun, 06 Nov 1994 09:49:37");
        EXPECT_EQ(Time_gmtstring(0, nullptr), nullptr);
        EXPECT_EQ(Time_string(0, nullptr), nullptr);
        // Agrees with the formatter in every month and on every weekday.
        for (time_t t = 0; t < 2000000000; t += 86400 * 37 + 3671) {
                struct tm tm;
                gmtime_r(&t, &tm);
                char expect[64];
                strftime(expect, sizeof expect, "%a, %d %b %Y %H:%M:%S GMT", &tm);
                ASSERT_STREQ(Time_gmtstring(t, buf), expect);
        }
}

TEST_F(TimeTest, ParseFindsDatesInFreeTextAsLocalTime) {
        // The zone named in the text is ignored: the fields are local time.
        EXPECT_EQ(Time_parse("Sun, 06 Nov 1994 08:49:37 GMT"), kRfcExample - 3600);
        EXPECT_EQ(Time_parse("Sunday, 06-nov-1994 08:49:37 GMT"), kRfcExample - 3600);
        EXPECT_EQ(Time_parse("06 Nov 1994"), Time_build(1994, 11, 6, 0, 0, 0));
        EXPECT_EQ(Time_parse("JuJul 04 2001"), Time_build(2001, 7, 4, 0, 0, 0));  // "JuJ" skips one
        EXPECT_EQ(Time_parse("123 Nov 1994"), Time_build(1994, 11, 12, 0, 0, 0));
        EXPECT_EQ(Time_parse("01 Nov 1994 03 Dec 2001"), Time_build(2001, 12, 3, 0, 0, 0));
        EXPECT_EQ(Time_parse("Jan 6 1994"), -1);  // a day needs two digits
        EXPECT_EQ(Time_parse("Sun Nov  6 08:49:37 1994"), -1);
        EXPECT_EQ(Time_parse("06 Nov 08:49:37"), -1);
        EXPECT_EQ(Time_parse("Nov 1994"), -1);
        EXPECT_EQ(Time_parse("no date here"), -1);
        EXPECT_EQ(Time_parse(""), -1);
        EXPECT_EQ(Time_parse(nullptr), -1);
}

TEST_F(TimeTest, BuildChecksRangesInOrder) {
        EXPECT_EQ(Time_build(1994, 11, 6, 9, 49, 37), kRfcExample);
        EXPECT_EQ(assertion([] { Time_build(2038, 1, 1, 0, 0, 0); }),
                  "#v is outside the range (1970..2037)");
        EXPECT_EQ(assertion([] { Time_build(2000, 13, 32, 0, 0, 0); }),
                  "#v is outside the range (1..12)");
        EXPECT_EQ(assertion([] { Time_build(2000, 1, 1, 0, 0, 62); }),
                  "#v is outside the range (0..61)");
}

TEST_F(TimeTest, FieldsAddAndGmt) {
        EXPECT_EQ(Time_weekday(kRfcExample), 0);
        EXPECT_EQ(Time_hour(kRfcExample), 9);
        EXPECT_EQ(Time_gmt(kRfcExample), kRfcExample - 3600);

        time_t jan31 = Time_build(2024, 1, 31, 12, 0, 0);
        EXPECT_EQ(Time_add(jan31, 0, 1, 0), Time_build(2024, 3, 2, 12, 0, 0));
        EXPECT_EQ(Time_add(jan31, 1, 0, -30), Time_build(2025, 1, 1, 12, 0, 0));
        // Across the change to summer time a day has 23 hours, and stays a day.
        time_t before = Time_build(2024, 3, 30, 12, 0, 0);
        EXPECT_EQ(Time_add(before, 0, 0, 1) - before, 23 * 3600);

        EXPECT_EQ(Time_daysBetween(0, 36 * 3600), 2);
        EXPECT_EQ(Time_daysBetween(11 * 3600, 0), 0);
        EXPECT_EQ(Time_daysBetween(0, 12 * 3600), 1);
}

TEST_F(TimeTest, FmtStampAndUptime) {
        char buf[64];
        EXPECT_STREQ(Time_fmt(buf, sizeof buf, "%Y-%m-%d %H:%M %Z", kRfcExample),
                     "1994-11-06 09:49 CET");
        EXPECT_STREQ(Time_fmt(buf, 4, "%Y-%m-%d", kRfcExample), "");

        char stamp[24];
        ASSERT_EQ(Time_stamp(stamp), stamp);
        EXPECT_EQ(strlen(stamp), 23u);
        EXPECT_EQ(std::string(stamp).find_first_not_of("0123456789-T:."), std::string::npos);
        EXPECT_EQ(stamp[10], 'T');

        char up[24];
        EXPECT_STREQ(Time_uptime(59, up), "0m");
        EXPECT_STREQ(Time_uptime(86400 + 2 * 3600 + 3 * 60 + 59, up), "1d, 2h, 3m");
        EXPECT_STREQ(Time_uptime(86400 + 3 * 60, up), "1d, 3m");
        EXPECT_STREQ(Time_uptime(2 * 3600, up), "2h, 0m");
        EXPECT_STREQ(Time_uptime(-1, up), "");
        EXPECT_STREQ(Time_uptime(0x7fffffffffffffffLL, up), "106751991167300d, 15h, ");
}

TEST_F(TimeTest, CronMatchingCountsMatches) {
        time_t t = Time_build(2024, 5, 15, 10, 30, 0);  // a Wednesday
        EXPECT_TRUE(Time_incron("* * * * *", t));
        EXPECT_TRUE(Time_incron("30 10 15 5 3", t));
        EXPECT_TRUE(Time_incron("\t25-35 9-11\r\n* 5 1-5", t));
        EXPECT_TRUE(Time_incron("1,30 * * * *", t));
        EXPECT_FALSE(Time_incron("31 10 15 5 3", t));
        EXPECT_FALSE(Time_incron("* * * *", t));
        EXPECT_FALSE(Time_incron("*/5 * * * *", t));
        EXPECT_FALSE(Time_incron("", t));
        EXPECT_FALSE(Time_incron("5- * * * *", t));
        // A sixth field never matches: the five before it decide, and a sixth star is one too many.
        EXPECT_TRUE(Time_incron("* * * * * 7", t));
        EXPECT_FALSE(Time_incron("* * * * * *", t));
        // The count alone decides: a minute that matches twice makes up for the weekday.
        EXPECT_TRUE(Time_incron("25-35,30 * * * 0", t));
        EXPECT_EQ(assertion([&] { Time_incron(",1 * * * *", t); }), "n < 5 && n >= 0");
        EXPECT_EQ(assertion([&] { Time_incron("* * * * * * ,1", t); }), "n < 5 && n >= 0");
}

TEST_F(TimeTest, DateObjectFieldsAndText) {
        Date at(Time_at(kRfcExample));
        EXPECT_EQ(Time_isgmt(at), 0);
        EXPECT_EQ(Time_getHour(at), 9);
        EXPECT_STREQ(Time_toString(at), "Sun, 06 Nov 1994 09:49:37 +0100");
        EXPECT_STREQ(Time_toStringFmt(at, std::string(200, 'x').c_str()), "");

        Date gm(Time_gm(kRfcExample));
        EXPECT_EQ(Time_isgmt(gm), 1);
        EXPECT_STREQ(Time_toString(gm), "Sun, 06 Nov 1994 08:49:37 +0000");

        Date c(Time_create(2020, 2, 29, 23, 59, 58, 123456));
        EXPECT_EQ(Time_getTimeMilli(c), static_cast<int64_t>(Time_getTime(c)) * 1000 + 123);
        EXPECT_DOUBLE_EQ(Time_toFloat(c), Time_getTime(c) + 0.123456);
        EXPECT_EQ(ymdhms(c), "2020-02-29 23:59:58");
}

TEST_F(TimeTest, SettersAndAddersRollOver) {
        Date d(Time_create(2023, 5, 10, 12, 0, 0, 0));
        Time_setMonth(d, 13);
        EXPECT_EQ(ymdhms(d), "2024-01-10 12:00:00");
        Time_setDay(d, 32);
        EXPECT_EQ(ymdhms(d), "2024-02-01 12:00:00");
        Time_setHour(d, 25);
        Time_setMinutes(d, 61);
        Time_setSeconds(d, -1);
        EXPECT_EQ(ymdhms(d), "2024-02-02 02:00:59");
        Time_addMonths(d, -3);
        Time_addDays(d, 30);
        Time_addYears(d, 2);
        EXPECT_EQ(ymdhms(d), "2025-12-02 02:00:59");
        Time_setYear(d, 2000);
        EXPECT_EQ(Time_getTime(d), Time_build(2000, 12, 2, 2, 0, 59));
        EXPECT_EQ(assertion([&] { Time_setYear(d, 2038); }),
                  "#v is outside the range (1970..2037)");

        // Days between are signed and rounded, across the change to summer time too.
        Date a(Time_create(2024, 3, 30, 12, 0, 0, 0));
        Date b(Time_create(2024, 4, 2, 12, 0, 0, 0));
        EXPECT_EQ(Time_daysTo(a, b), 3);
        EXPECT_EQ(Time_daysTo(b, a), -3);
}

TEST_F(TimeTest, GmtAndLocalConversionsKeepTheMoment) {
        Date d(Time_at(kRfcExample));
        Time_gmtime(d);
        EXPECT_EQ(Time_isgmt(d), 1);
        EXPECT_EQ(Time_getTime(d), kRfcExample);
        EXPECT_EQ(Time_getHour(d), 8);
        Time_gmtime(d);  // already GMT: nothing changes
        EXPECT_EQ(Time_getHour(d), 8);
        Time_localtime(d);
        EXPECT_EQ(Time_isgmt(d), 0);
        EXPECT_EQ(Time_getTime(d), kRfcExample);
        EXPECT_EQ(Time_getHour(d), 9);

        // A GMT date rolls over by the system's own conversion, leap years included.
        Date g(Time_gm(kRfcExample));
        Time_setMonth(g, 13);
        EXPECT_EQ(ymdhms(g), "1995-01-06 08:49:37");
        Time_addMonths(g, -11);
        Time_addDays(g, 23);
        EXPECT_EQ(ymdhms(g), "1994-03-01 08:49:37");  // 1994 has no 29 February
        EXPECT_EQ(Time_getTime(g), 762511777);
        Date leap(Time_gm(951782400));  // 2000-02-29 00:00:00 GMT
        Time_addYears(leap, 4);
        EXPECT_EQ(ymdhms(leap), "2004-02-29 00:00:00");
        // Any field rolls over, however far out of range.
        Time_setMinutes(leap, 61);
        EXPECT_EQ(ymdhms(leap), "2004-02-29 01:01:00");
        Time_addDays(leap, 366);
        EXPECT_EQ(ymdhms(leap), "2005-03-01 01:01:00");
        Time_setDay(leap, 0);
        EXPECT_EQ(ymdhms(leap), "2005-02-28 01:01:00");
}

TEST_F(TimeTest, ClockReadings) {
        zone("UTC0");
        time_t before = Time_now();
        Date now(Time_new());
        int64_t milli = Time_milli();
        EXPECT_GE(Time_getTime(now), before);
        EXPECT_LE(Time_getTime(now), before + 2);
        EXPECT_GE(milli, static_cast<int64_t>(before) * 1000);
        EXPECT_LE(milli, static_cast<int64_t>(before + 2) * 1000);
        int64_t start = Time_milli();
        Time_usleep(2000);
        EXPECT_GE(Time_milli() - start, 1);
        Time_usleep(-5);  // nothing to wait for
}
