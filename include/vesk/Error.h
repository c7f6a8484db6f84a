/*
 * Error: the server's own log levels and its error log.
 *
 * Error_error and Error_verror go to the error log, if one is set up, and to
 * standard error; Error_warn to standard error; Error_info to standard output;
 * Error_debug to standard output only when Container_Debug is set. Messages
 * carry their own newline. An absent format does nothing.
 */
#ifndef VESK_ERROR_INCLUDED
#define VESK_ERROR_INCLUDED

#include <stdarg.h>

#include <vesk/Export.h>
#include <vesk/Logger.h>

VESK_BEGIN_DECLS

VESK_API void Error_error(const char* format, ...) VESK_PRINTF(1, 2);
VESK_API void Error_verror(const char* format, va_list ap) VESK_PRINTF(1, 0);
VESK_API void Error_warn(const char* format, ...) VESK_PRINTF(1, 2);
VESK_API void Error_info(const char* format, ...) VESK_PRINTF(1, 2);
VESK_API void Error_debug(const char* format, ...) VESK_PRINTF(1, 2);

/* Opens errorLogFile as the unbuffered error log, closing an earlier one. */
VESK_API void Error_init(const char* errorLogFile);
/* Closes the error log if there is one. */
VESK_API void Error_destroy(void);
/* The error log, or NULL. */
VESK_API Logger_T Error_getLogger(void);

VESK_END_DECLS

#endif
