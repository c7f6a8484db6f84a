/*
 * Time: the clock, dates as plain Unix times, and the date object Time_T.
 *
 * Plain times are whole seconds since the epoch in a time_t; Time_milli gives
 * milliseconds. Broken-down fields are read in local time unless said
 * otherwise, with the year in full, the month from 1 and the weekday from 0 for
 * Sunday. Operations that write text take the caller's buffer and return it;
 * the buffer sizes are given with each. Years run from 1970 to 2037: a field
 * outside its range raises AssertException "#v is outside the range (lo..hi)".
 *
 * Time_T is an opaque date on the heap, in local time or in GMT, with
 * microseconds. Time_free(&D) frees it and clears the caller's reference.
 * Setters and adders normalise, so day 32 of January becomes 1 February.
 * The class-level operations are safe on any thread; a Time_T is not shared.
 */
#ifndef VESK_TIME_INCLUDED
#define VESK_TIME_INCLUDED

#include <stdint.h>
#include <time.h>

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Time_S* Time_T;

/* The present time in seconds. */
VESK_API time_t Time_now(void);

/* The present time in milliseconds. */
VESK_API int64_t Time_milli(void);

/* Sleeps for u microseconds, resuming after signals. */
VESK_API void Time_usleep(long u);

/* The time of these local fields, after the range checks. */
VESK_API time_t Time_build(int year, int month, int day, int hour, int min, int sec);

/* The date found in free text, such as an HTTP date, read as local time; -1 if none. */
VESK_API time_t Time_parse(const char* date);

/* The GMT clock reading of `time` taken as a local time. */
VESK_API time_t Time_gmt(time_t time);

/* `time` with years, months and days added to its local fields. */
VESK_API time_t Time_add(time_t time, int years, int months, int days);

/* The whole days between a and b, rounded to the nearest. */
VESK_API int Time_daysBetween(time_t a, time_t b);

/* The full year of `time`. */
VESK_API int Time_year(time_t time);

/* The month of `time`, 1 to 12. */
VESK_API int Time_month(time_t time);

/* The day of the month of `time`, 1 to 31. */
VESK_API int Time_day(time_t time);

/* The weekday of `time`, 0 (Sunday) to 6. */
VESK_API int Time_weekday(time_t time);

/* The hour of `time`, 0 to 23. */
VESK_API int Time_hour(time_t time);

/* The minutes of `time`, 0 to 59. */
VESK_API int Time_minutes(time_t time);

/* The seconds of `time`, 0 to 61. */
VESK_API int Time_seconds(time_t time);

/* "Sun, 06 Nov 1994 08:49:37" in local time into result (26 bytes); NULL if result is NULL. */
VESK_API char* Time_string(time_t time, char* result);

/* The HTTP date "Sun, 06 Nov 1994 08:49:37 GMT" into result (30 bytes); NULL if result is NULL. */
VESK_API char* Time_gmtstring(time_t time, char* result);

/* strftime of local `time` into result of `size` bytes; empty if it does not fit. */
VESK_API char* Time_fmt(char* result, int size, const char* format, time_t time);

/* The present local time as "2024-01-31T23:59:59.123" into result (24 bytes). */
VESK_API char* Time_stamp(char* result);

/* A span such as "1d, 2h, 3m" into result (24 bytes); empty if sec is negative. */
VESK_API char* Time_uptime(long long sec, char* result);

/* True if local `time` falls under the five-field crontab expression `cron`. */
VESK_API int Time_incron(const char* cron, time_t time);

/* The present moment in local time, with microseconds. */
VESK_API Time_T Time_new(void);

/* The moment `time` in local time. */
VESK_API Time_T Time_at(time_t time);

/* The moment `time` in GMT. */
VESK_API Time_T Time_gm(time_t time);

/* The moment of these local fields, after the range checks. */
VESK_API Time_T Time_create(int year, int month, int day, int hour, int min, int sec, int usec);

/* Frees the date and clears *D. */
VESK_API void Time_free(Time_T* D);

/* Seconds since the epoch. */
VESK_API time_t Time_getTime(Time_T D);

/* The microseconds. */
VESK_API int Time_getUsec(Time_T D);

/* 1 if the fields are in GMT, 0 if in local time. */
VESK_API int Time_isgmt(Time_T D);

/* Milliseconds since the epoch. */
VESK_API int64_t Time_getTimeMilli(Time_T D);

/* Seconds since the epoch with the microseconds as a fraction. */
VESK_API double Time_toFloat(Time_T D);

/* The full year. */
VESK_API int Time_getYear(Time_T D);

/* The month, 1 to 12. */
VESK_API int Time_getMonth(Time_T D);

/* The day of the month. */
VESK_API int Time_getDay(Time_T D);

/* The weekday, 0 (Sunday) to 6. */
VESK_API int Time_getWeekDay(Time_T D);

/* The hour. */
VESK_API int Time_getHour(Time_T D);

/* The minutes. */
VESK_API int Time_getMinutes(Time_T D);

/* The seconds. */
VESK_API int Time_getSeconds(Time_T D);

/* Sets the full year, 1970 to 2037. */
VESK_API void Time_setYear(Time_T D, int v);

/* Sets the month from 1; 13 is January of the next year. */
VESK_API void Time_setMonth(Time_T D, int v);

/* Sets the day of the month. */
VESK_API void Time_setDay(Time_T D, int v);

/* Sets the hour. */
VESK_API void Time_setHour(Time_T D, int v);

/* Sets the minutes. */
VESK_API void Time_setMinutes(Time_T D, int v);

/* Sets the seconds. */
VESK_API void Time_setSeconds(Time_T D, int v);

/* Adds n years. */
VESK_API void Time_addYears(Time_T D, int n);

/* Adds n months. */
VESK_API void Time_addMonths(Time_T D, int n);

/* Adds n days. */
VESK_API void Time_addDays(Time_T D, int n);

/* Turns D's fields to GMT; the moment stays. */
VESK_API void Time_gmtime(Time_T D);

/* Turns D's fields to local time; the moment stays. */
VESK_API void Time_localtime(Time_T D);

/* The whole days from D to `time`, rounded to the nearest; negative if `time` is earlier. */
VESK_API int Time_daysTo(Time_T D, Time_T time);

/* D as "Sun, 06 Nov 1994 08:49:37 +0100"; the text is D's, valid until its next use. */
VESK_API const char* Time_toString(Time_T D);

/* strftime of D's fields in D's own buffer of 128 bytes; empty if it does not fit. */
VESK_API const char* Time_toStringFmt(Time_T D, const char* format);

VESK_END_DECLS

#endif
