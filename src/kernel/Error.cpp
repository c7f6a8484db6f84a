#include <stdarg.h>
#include <stdio.h>

#include <vesk/Container.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/Logger.h>
#include <vesk/Mem.h>
#include <vesk/assert.h>

#include "kernel/Logger.hpp"

namespace {

Logger_T errorLogger = nullptr;

// Set while this thread writes to the error log, so that the log reporting its own
// failure goes to standard error instead of taking its own lock a second time.
thread_local bool inErrorLog = false;

// The console gets what the error log gets, escaped the same way: a terminal would take a
// client's escape sequences as orders. With no memory left the text goes out unescaped
// rather than not at all.
void emit(FILE* out, const char* format, va_list ap) {
        va_list copy;
        va_copy(copy, ap);
        char* entry = nullptr;
        int length = 0;
        TRY
                entry = vesk::Logger_formatEntry(format, copy, &length);
        ELSE
                entry = nullptr;
        END_TRY;
        va_end(copy);
        if (entry) {
                fwrite(entry, 1, static_cast<size_t>(length), out);
                FREE(entry);
        } else {
                vfprintf(out, format, ap);
        }
        fflush(out);
}

}  // namespace

void Error_verror(const char* format, va_list ap) {
        if (!format)
                return;
        if (errorLogger && !inErrorLog) {
                va_list copy;
                va_copy(copy, ap);
                inErrorLog = true;
                Logger_vlog(errorLogger, format, copy);
                inErrorLog = false;
                va_end(copy);
        }
        emit(stderr, format, ap);
}

void Error_error(const char* format, ...) {
        va_list ap;
        va_start(ap, format);
        Error_verror(format, ap);
        va_end(ap);
}

void Error_warn(const char* format, ...) {
        if (!format)
                return;
        va_list ap;
        va_start(ap, format);
        emit(stderr, format, ap);
        va_end(ap);
}

void Error_info(const char* format, ...) {
        if (!format)
                return;
        va_list ap;
        va_start(ap, format);
        emit(stdout, format, ap);
        va_end(ap);
}

void Error_debug(const char* format, ...) {
        if (!format || !Container_Debug)
                return;
        va_list ap;
        va_start(ap, format);
        emit(stdout, format, ap);
        va_end(ap);
}

void Error_init(const char* errorLogFile) {
        assert(errorLogFile);
        if (errorLogger)
                Logger_free(&errorLogger);
        errorLogger = Logger_new(errorLogFile);
        Logger_setUnbuffered(errorLogger);
}

void Error_destroy(void) {
        if (errorLogger)
                Logger_free(&errorLogger);
}

Logger_T Error_getLogger(void) {
        return errorLogger;
}
