/*
 * Error: the server's own log levels.
 *
 * Error_error and Error_verror go to standard error; Error_warn to standard
 * error; Error_info to standard output; Error_debug to standard output only when
 * Container_Debug is set. Messages carry their own newline. An absent format
 * does nothing.
 */
#ifndef VESK_ERROR_INCLUDED
#define VESK_ERROR_INCLUDED

#include <stdarg.h>

#include <vesk/Export.h>

VESK_BEGIN_DECLS

VESK_API void Error_error(const char* format, ...) VESK_PRINTF(1, 2);
VESK_API void Error_verror(const char* format, va_list ap) VESK_PRINTF(1, 0);
VESK_API void Error_warn(const char* format, ...) VESK_PRINTF(1, 2);
VESK_API void Error_info(const char* format, ...) VESK_PRINTF(1, 2);
VESK_API void Error_debug(const char* format, ...) VESK_PRINTF(1, 2);

VESK_END_DECLS

#endif
