// How libvdb reports: inside the library a failure throws SQLError with the finished
// message; each public function catches it at its boundary with `guard`, after every RAII
// holder on the way has released its handle or lock, and only then hands the message to
// the pool's abort handler. So a handler that throws unwinds through no half-done state.
#pragma once

#include <stdarg.h>

#include <new>
#include <stdexcept>
#include <string>
#include <string_view>

#include <vdb/Export.h>

namespace vdb {

using AbortHandler = void (*)(const char* error);

class SQLError : public std::runtime_error {
public:
        using std::runtime_error::runtime_error;
};

std::string vformat(const char* format, va_list ap) VDB_PRINTF(1, 0);
std::string format(const char* format, ...) VDB_PRINTF(1, 2);

// Formats into `into` without throwing: NULL on success, else what went wrong.
const char* vformatTo(std::string& into, const char* format, va_list ap) noexcept VDB_PRINTF(2, 0);

// Throws SQLError with the formatted message.
[[noreturn]] void fail(const char* format, ...) VDB_PRINTF(1, 2);

// SQL text for a message: quoted, on one line, and cut short if long.
std::string quote(std::string_view sql);

// Hands message to handler, or without one writes it to standard error and aborts.
void report(AbortHandler handler, const char* message);

// Writes sql to standard error when VBDEBUG is set.
void trace(std::string_view sql);

// A NULL handle: writes which check failed where, and aborts.
[[noreturn]] void checkFailed(const char* function, const char* check);

#define VDB_CHECK(e)                                      \
        do {                                              \
                if (!(e))                                 \
                        ::vdb::checkFailed(__func__, #e); \
        } while (0)

// Runs body and returns its result; a failure inside goes to handler, and then `failure`
// is returned if the handler returns.
template <typename R, typename Body>
R guard(AbortHandler handler, R failure, Body&& body) {
        std::string message;
        try {
                return body();
        } catch (const SQLError& e) {
                message = e.what();
        } catch (const std::bad_alloc&) {
                message = "vdb: out of memory";
        }
        report(handler, message.c_str());
        return failure;
}

}  // namespace vdb
