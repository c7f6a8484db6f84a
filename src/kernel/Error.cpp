#include <stdarg.h>
#include <stdio.h>

#include <vesk/Container.h>
#include <vesk/Error.h>
#include <vesk/Logger.h>
#include <vesk/assert.h>

namespace {

Logger_T errorLogger = nullptr;

// Set while this thread writes to the error log, so that the log reporting its own
// failure goes to standard error instead of taking its own lock a second time.
thread_local bool inErrorLog = false;

void emit(FILE* out, const char* format, va_list ap) {
        vfprintf(out, format, ap);
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
