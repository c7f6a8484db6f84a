#include <stdarg.h>
#include <stdio.h>

#include <vesk/Container.h>
#include <vesk/Error.h>

namespace {

void emit(FILE* out, const char* format, va_list ap) {
        vfprintf(out, format, ap);
        fflush(out);
}

}  // namespace

void Error_verror(const char* format, va_list ap) {
        if (format)
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
