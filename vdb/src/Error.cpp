#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vdb/ConnectionPool.h>

#include "Error.hpp"
#include "Thread.hpp"

int VBDEBUG = 0;

namespace vdb {

namespace {

// Long enough to recognise a statement in a log line, short enough to keep the line one.
constexpr size_t kQuotedSQL = 160;

}  // namespace

std::string vformat(const char* format, va_list ap) {
        va_list copy;
        va_copy(copy, ap);
        int n = vsnprintf(nullptr, 0, format, copy);
        va_end(copy);
        if (n < 0)
                fail("vdb: cannot format \"%s\"", format);
        std::string s(static_cast<size_t>(n), '\0');
        vsnprintf(s.data(), s.size() + 1, format, ap);
        return s;
}

const char* vformatTo(std::string& into, const char* format, va_list ap) noexcept {
        if (!format)
                return "the SQL text is NULL";
        try {
                into = vformat(format, ap);
                return nullptr;
        } catch (const std::bad_alloc&) {
                return "out of memory";
        } catch (const SQLError&) {
                return "the format cannot be formatted";
        }
}

std::string format(const char* format, ...) {
        va_list ap;
        va_start(ap, format);
        std::string s = vformat(format, ap);
        va_end(ap);
        return s;
}

void fail(const char* format, ...) {
        va_list ap;
        va_start(ap, format);
        std::string message = vformat(format, ap);
        va_end(ap);
        throw SQLError(message);
}

std::string quote(std::string_view sql) {
        std::string s = "\"";
        for (char c : sql.substr(0, kQuotedSQL))
                s += (c == '\n' || c == '\r' || c == '\t') ? ' ' : c;
        if (sql.size() > kQuotedSQL)
                s += "...";
        return s + "\"";
}

void report(AbortHandler handler, const char* message) {
        if (handler) {
                handler(message);
                return;
        }
        fprintf(stderr, "%s\n", message);
        abort();
}

void trace(std::string_view sql) {
        if (VBDEBUG)
                fprintf(stderr, "vdb: %.*s\n", static_cast<int>(sql.size()), sql.data());
}

void checkFailed(const char* function, const char* check) {
        fprintf(stderr, "vdb: %s: check failed: %s\n", function, check);
        abort();
}

void threadFailed(const char* call, int status) {
        fprintf(stderr, "vdb: %s -- %s\n", call, strerror(status));
        abort();
}

}  // namespace vdb
