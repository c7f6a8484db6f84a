/*
 * Logger: lines to one file, with optional timestamps, a buffer that a Reactor
 * timer flushes every 10 seconds, and optional rotation by day, week or month.
 *
 * Logging never fails its caller: a write error makes the logger silent for
 * good. Only Logger_new (a file that cannot be opened: IOException) and
 * Logger_setRotate (a bad period) raise. Logger_log and Logger_vlog are safe
 * from any thread; Logger_flog takes no lock and is for the Reactor thread.
 * Every operation checks "L".
 */
#ifndef VESK_LOGGER_INCLUDED
#define VESK_LOGGER_INCLUDED

#include <stdarg.h>

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Logger_S* Logger_T;

/* Opens filename for appending; raises IOException if it cannot. */
VESK_API Logger_T Logger_new(const char* filename);
/* Flushes and closes the log, cancels its timers, frees it and clears *L. */
VESK_API void Logger_free(Logger_T* L);
/* Writes one entry under the logger's lock. */
VESK_API void Logger_log(Logger_T L, const char* format, ...) VESK_PRINTF(2, 3);
VESK_API void Logger_vlog(Logger_T L, const char* format, va_list ap) VESK_PRINTF(2, 0);
/* Writes one entry without taking the lock; for the Reactor thread only. */
VESK_API void Logger_flog(Logger_T L, const char* format, ...) VESK_PRINTF(2, 3);
/* Writes out what is buffered. */
VESK_API void Logger_flush(Logger_T L);
/* Rotates the file every "day", "week" (Sunday midnight) or "month"; case is ignored. */
VESK_API void Logger_setRotate(Logger_T L, const char* period);
/* Whether rotation is on. */
VESK_API int Logger_getRotate(Logger_T L);
/* Whether each line starts with the time; on by default. */
VESK_API void Logger_setTimestamp(Logger_T L, int on);
VESK_API int Logger_getTimestamp(Logger_T L);
/* The strftime format of the timestamp; "%Y-%m-%d %H:%M:%S" by default. */
VESK_API void Logger_setTimeStampFormat(Logger_T L, const char* format);
VESK_API const char* Logger_getTimeStampFormat(Logger_T L);
/* Makes every entry reach the file at once, and stops the flush timer. */
VESK_API void Logger_setUnbuffered(Logger_T L);
/* Despite its name, turns buffering off and returns 0; not a query. */
VESK_API int Logger_isUnbuffered(Logger_T L);
/* The log's path. */
VESK_API const char* Logger_getFileName(Logger_T L);

VESK_END_DECLS

#endif
