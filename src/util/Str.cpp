#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <math.h>
#include <regex.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>

#include <vesk/Mem.h>
#include <vesk/Str.h>
#include <vesk/assert.h>

#include "util/Replace.hpp"

namespace {

inline int upper(char c) {
        return toupper(static_cast<unsigned char>(c));
}

inline bool space(char c) {
        return isspace(static_cast<unsigned char>(c));
}

inline bool asciiAlnum(char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

inline bool quoteOrSpace(char c) {
        return c == '"' || c == '\'' || space(c);
}

// Which of the 256 byte values occur in a text; one pass to build, one load per test.
class ByteSet {
public:
        explicit ByteSet(const char* chars) {
                for (const unsigned char* p = reinterpret_cast<const unsigned char*>(chars); *p;
                     p++)
                        bits_[*p >> 6] |= 1ULL << (*p & 63);
        }
        bool has(char c) const {
                unsigned char u = static_cast<unsigned char>(c);
                return bits_[u >> 6] >> (u & 63) & 1;
        }

private:
        std::array<unsigned long long, 4> bits_{};
};

// Lengths are int at the allocators; a text too long for that is the caller's error.
int size(size_t n) {
        if (n > static_cast<size_t>(INT_MAX) - 1)
                THROW(AssertException, "text of %zu bytes is too long", n);
        return static_cast<int>(n);
}

int formatted(int n) {
        if (n < 0)
                THROW(AssertException, "format error -- %s", strerror(errno));
        return n;
}

// Runs a base-10 conversion the way all four parsers share: errno cleared, then any
// error or nothing consumed raises.
template <typename T, typename Convert>
T parse(const char* s, Convert convert) {
        if (STR_UNDEF(s))
                THROW(NumberFormatException, "For input string null");
        char* end;
        errno = 0;
        T value = convert(s, &end);
        if (errno || end == s)
                THROW(NumberFormatException, "For input string %s", s);
        return value;
}

// True if the ampersand at p starts an entity such as "&amp;" or "&#34;": letters, digits
// and '#' up to a semicolon. "&;" counts too, so it passes unchanged.
bool beginsEntity(const char* p) {
        for (p++; isalnum(static_cast<unsigned char>(*p)) || *p == '#'; p++)
                ;
        return *p == ';';
}

}  // namespace

/* ------------------------------------------------------------------ Comparison */

bool Str_isEqual(const char* a, const char* b) {
        return a && b && strcasecmp(a, b) == 0;
}

bool Str_isByteEqual(const char* a, const char* b) {
        return a && b && strcmp(a, b) == 0;
}

int Str_cmp(const void* x, const void* y) {
        return strcmp(static_cast<const char*>(x), static_cast<const char*>(y));
}

int Str_compareConstantTime(const char* a, const char* b) {
        // Both texts are laid into zeroed blocks of equal size and every byte is compared,
        // so the time taken does not tell where they differ.
        constexpr size_t kLimit = 64;
        char x[kLimit + 1] = {};
        char y[kLimit + 1] = {};
        a = a ? a : "";
        b = b ? b : "";
        size_t la = strnlen(a, kLimit + 1);
        if (la > kLimit)
                return 1;
        size_t lb = strnlen(b, kLimit + 1);
        if (lb > kLimit)
                return 1;
        memcpy(x, a, la);
        memcpy(y, b, lb);
        int result = 0;
        for (size_t i = 0; i < sizeof x; i++)
                result |= x[i] ^ y[i];
        return result;
}

bool Str_startsWith(const char* a, const char* b) {
        if (!a || !b)
                return false;
        // The empty b is compared at its terminator, so only the empty a starts with it.
        if (!*b)
                return !*a;
        // A shorter a fails at its terminator, before the walk can pass it.
        for (; *b; a++, b++)
                if (upper(*a) != upper(*b))
                        return false;
        return true;
}

bool Str_endsWith(const char* a, const char* b) {
        if (!a || !b)
                return false;
        if (!*b)
                return true;
        if (!*a)
                return false;
        size_t la = strlen(a);
        size_t lb = strlen(b);
        // The walk starts at the two terminators and makes lb comparisons at most, so the
        // first byte of b is never looked at. Callers match suffixes such as ".csp" this way.
        for (; la > 0 && lb > 0; la--, lb--)
                if (upper(a[la]) != upper(b[lb]))
                        return false;
        return la >= lb;
}

char* Str_sub(const char* a, const char* b) {
        if (STR_UNDEF(a) || STR_UNDEF(b))
                return nullptr;
        return const_cast<char*>(strcasestr(a, b));
}

bool Str_has(const char* set, const char* s) {
        return set && STR_DEF(s) && strpbrk(s, set);
}

bool Str_isalnum(const char* s) {
        if (STR_UNDEF(s))
                return false;
        for (; *s; s++)
                if (!asciiAlnum(*s))
                        return false;
        return true;
}

bool Str_lim(const char* s, int limit) {
        assert(limit >= 0);
        return STR_DEF(s) &&
               strnlen(s, static_cast<size_t>(limit) + 1) > static_cast<size_t>(limit);
}

bool Str_match(const char* pattern, const char* s) {
        assert(pattern);
        if (STR_UNDEF(s))
                return false;
        regex_t regex;
        int status = regcomp(&regex, pattern, REG_EXTENDED | REG_NOSUB);
        if (status != 0) {
                char reason[256];
                regerror(status, &regex, reason, sizeof reason);
                regfree(&regex);
                THROW(AssertException, "regular expression error -- %s", reason);
        }
        bool matched = regexec(&regex, s, 0, nullptr, 0) == 0;
        regfree(&regex);
        return matched;
}

/* ------------------------------------------------------------ In-place editing */

char* Str_chomp(char* s) {
        if (STR_DEF(s))
                s[strcspn(s, "\r\n")] = 0;
        return s;
}

char* Str_trim(char* s) {
        return Str_ltrim(Str_rtrim(s));
}

char* Str_ltrim(char* s) {
        if (STR_DEF(s) && space(*s)) {
                char* p = s;
                while (space(*p))
                        p++;
                memmove(s, p, strlen(p) + 1);
        }
        return s;
}

char* Str_rtrim(char* s) {
        if (STR_DEF(s)) {
                char* p = s + strlen(s);
                while (p > s && space(p[-1]))
                        p--;
                *p = 0;
        }
        return s;
}

char* Str_wtrim(char* s) {
        if (STR_UNDEF(s))
                return s;
        char* w = s;
        for (const char* r = s; *r;) {
                if (space(r[0]) && space(r[1])) {
                        while (space(*r))
                                r++;
                        *w++ = ' ';
                } else {
                        *w++ = *r++;
                }
        }
        *w = 0;
        return s;
}

char* Str_unquote(char* s) {
        if (STR_UNDEF(s))
                return s;
        char* p = s;
        while (quoteOrSpace(*p))
                p++;
        size_t length = strlen(p);
        if (p != s)
                memmove(s, p, length + 1);
        // The first byte is never cleared here; the left pass has dealt with it.
        for (size_t i = length; i > 1 && quoteOrSpace(s[i - 1]); i--)
                s[i - 1] = 0;
        return s;
}

char* Str_toLower(char* s) {
        if (s)
                for (char* p = s; *p; p++)
                        *p = static_cast<char>(tolower(static_cast<unsigned char>(*p)));
        return s;
}

char* Str_toUpper(char* s) {
        if (s)
                for (char* p = s; *p; p++)
                        *p = static_cast<char>(upper(*p));
        return s;
}

char* Str_toalnum(char* s) {
        if (STR_UNDEF(s))
                return s;
        char* w = s;
        for (const char* r = s; *r; r++)
                if (asciiAlnum(*r))
                        *w++ = *r;
        *w = 0;
        return s;
}

char* Str_replaceChar(char* s, char from, char to) {
        if (s)
                for (char* p = s; *p; p++)
                        if (*p == from)
                                *p = to;
        return s;
}

char* Str_curtail(char* s, const char* t) {
        char* p = Str_sub(s, t);
        if (p)
                *p = 0;
        return s;
}

char* Str_trunc(char* s, int n) {
        assert(n >= 0);
        if (s && strnlen(s, static_cast<size_t>(n) + 1) > static_cast<size_t>(n)) {
                if (n > 2)
                        memcpy(s + n - 3, "...", 3);
                s[n] = 0;
        }
        return s;
}

/* ------------------------------------------------------------- Heap creation */

char* Str_dup(const char* s) {
        if (!s)
                return nullptr;
        int n = size(strlen(s));
        char* t = static_cast<char*>(ALLOC(n + 1));
        memcpy(t, s, static_cast<size_t>(n) + 1);
        return t;
}

char* Str_ndup(const char* s, int n) {
        assert(n >= 0);
        if (!s)
                return nullptr;
        size_t length = strnlen(s, static_cast<size_t>(n));
        char* t = static_cast<char*>(ALLOC(size(length) + 1));
        memcpy(t, s, length);
        t[length] = 0;
        return t;
}

char* Str_cat(const char* fmt, ...) {
        if (!fmt)
                return nullptr;
        va_list ap;
        va_start(ap, fmt);
        char* t = Str_vcat(fmt, ap);
        va_end(ap);
        return t;
}

char* Str_vcat(const char* fmt, va_list ap) {
        if (!fmt)
                return nullptr;
        va_list measure;
        va_copy(measure, ap);
        int n = vsnprintf(nullptr, 0, fmt, measure);
        va_end(measure);
        formatted(n);
        char* t = static_cast<char*>(ALLOC(size(static_cast<size_t>(n)) + 1));
        vsnprintf(t, static_cast<size_t>(n) + 1, fmt, ap);
        return t;
}

/* ----------------------------------------------------------- Caller's buffer */

char* Str_copy(char* dest, const char* src, int n) {
        if (!dest)
                return dest;
        if (src && n > 0) {
                size_t length = strnlen(src, static_cast<size_t>(n));
                memcpy(dest, src, length);
                dest[length] = 0;
        } else {
                *dest = 0;
        }
        return dest;
}

char* _Str_join(char* dest, int n, ...) {
        assert(dest);
        char* p = dest;
        if (n > 0) {
                char* end = dest + n;
                va_list ap;
                va_start(ap, n);
                for (const char* s = va_arg(ap, const char*); s && p < end;
                     s = va_arg(ap, const char*))
                        while (*s && p < end)
                                *p++ = *s++;
                va_end(ap);
        }
        *p = 0;
        return dest;
}

char* Str_ton(long n, char* buf) {
        assert(buf);
        char* p = buf + STR_TON_SIZE - 1;
        *p = 0;
        // Works on the magnitude as unsigned, so LONG_MIN needs no special case.
        unsigned long u =
            n < 0 ? 0UL - static_cast<unsigned long>(n) : static_cast<unsigned long>(n);
        do {
                *--p = static_cast<char>('0' + u % 10);
        } while (u /= 10);
        if (n < 0)
                *--p = '-';
        return p;
}

/* ------------------------------------------------------------ Arena creation */

char* Str_dup_arena(Arena_T A, const char* s, const char* func, const char* file, int line) {
        assert(A);
        if (!s)
                return nullptr;
        int n = size(strlen(s));
        char* t = static_cast<char*>(Arena_alloc(A, n + 1, func, file, line));
        memcpy(t, s, static_cast<size_t>(n) + 1);
        return t;
}

char* Str_ndup_arena(Arena_T A, const char* s, int n, const char* func, const char* file,
                     int line) {
        assert(A);
        assert(n >= 0);
        if (!s)
                return nullptr;
        size_t length = strnlen(s, static_cast<size_t>(n));
        char* t = static_cast<char*>(Arena_alloc(A, size(length) + 1, func, file, line));
        memcpy(t, s, length);
        t[length] = 0;
        return t;
}

char* Str_cat_arena(Arena_T A, const char* func, const char* file, int line, const char* fmt, ...) {
        assert(A);
        if (!fmt)
                return nullptr;
        va_list ap;
        va_start(ap, fmt);
        char* t = Str_vcat_arena(A, func, file, line, fmt, ap);
        va_end(ap);
        return t;
}

char* Str_vcat_arena(Arena_T A, const char* func, const char* file, int line, const char* fmt,
                     va_list ap) {
        assert(A);
        if (!fmt)
                return nullptr;
        // Most texts are short: format once on the stack and copy, formatting again only
        // for the long ones.
        char local[256];
        va_list again;
        va_copy(again, ap);
        int n = vsnprintf(local, sizeof local, fmt, ap);
        if (n < 0) {
                va_end(again);
                formatted(n);
        }
        if (n < static_cast<int>(sizeof local)) {
                va_end(again);
                return Str_ndup_arena(A, local, n, func, file, line);
        }
        char* t =
            static_cast<char*>(Arena_alloc(A, size(static_cast<size_t>(n)) + 1, func, file, line));
        vsnprintf(t, static_cast<size_t>(n) + 1, fmt, again);
        va_end(again);
        return t;
}

char* Str_escape_arena(Arena_T A, const char* chars, const char* s, const char* func,
                       const char* file, int line) {
        assert(A);
        if (STR_UNDEF(s) || STR_UNDEF(chars))
                return const_cast<char*>(s);
        ByteSet escaped(chars);
        size_t length = 0;
        size_t count = 0;
        for (const char* p = s; *p; p++, length++)
                count += escaped.has(*p);
        if (count == 0)
                return const_cast<char*>(s);
        char* t = static_cast<char*>(Arena_alloc(A, size(length + count) + 1, func, file, line));
        char* w = t;
        for (const char* p = s; *p; p++) {
                if (escaped.has(*p))
                        *w++ = '\\';
                *w++ = *p;
        }
        *w = 0;
        return t;
}

char* Str_replace_arena(Arena_T A, char* s, const char* old, const char* new_, const char* func,
                        const char* file, int line) {
        assert(A);
        if (STR_UNDEF(s) || STR_UNDEF(old) || !new_)
                return s;
        size_t length = strlen(s);
        size_t oldLength = strlen(old);
        long count = vesk::countMatches(s, length, old, oldLength);
        if (count == 0)
                return s;
        size_t newLength = strlen(new_);
        char* w;
        if (newLength > oldLength) {
                size_t room = length + static_cast<size_t>(count) * (newLength - oldLength);
                w = static_cast<char*>(Arena_alloc(A, size(room) + 1, func, file, line));
        } else {
                w = s;  // the text shrinks or keeps its length: the writer never passes the reader
        }
        vesk::replaceMatches(w, s, s + length, old, oldLength, new_, newLength);
        return w;
}

char* Str_entityify_arena(Arena_T A, const char* s, const char* func, const char* file, int line) {
        assert(A);
        if (STR_UNDEF(s))
                return const_cast<char*>(s);
        size_t length = 0;
        size_t extra = 0;
        for (const char* p = s; *p; p++, length++) {
                switch (*p) {
                case '"':
                case '\'':
                case '&':
                        extra += 4;
                        break;
                case '<':
                case '>':
                        extra += 3;
                        break;
                default:
                        break;
                }
        }
        if (extra == 0)
                return const_cast<char*>(s);
        char* t = static_cast<char*>(Arena_alloc(A, size(length + extra) + 1, func, file, line));
        char* w = t;
        auto put = [&w](const char* entity, size_t n) {
                memcpy(w, entity, n);
                w += n;
        };
        for (const char* p = s; *p; p++) {
                switch (*p) {
                case '"':
                        put("&#34;", 5);
                        break;
                case '\'':
                        put("&#39;", 5);
                        break;
                case '<':
                        put("&lt;", 4);
                        break;
                case '>':
                        put("&gt;", 4);
                        break;
                case '&':
                        if (beginsEntity(p))
                                *w++ = '&';
                        else
                                put("&amp;", 5);
                        break;
                default:
                        *w++ = *p;
                        break;
                }
        }
        *w = 0;
        return t;
}

/* ---------------------------------------------------------- Numbers and sizes */

int Str_parseInt(const char* s) {
        // long is wider than int here; a value beyond int is out of range like any other.
        long value = parse<long>(s, [](const char* t, char** end) { return strtol(t, end, 10); });
        if (value < INT_MIN || value > INT_MAX)
                THROW(NumberFormatException, "For input string %s", s);
        return static_cast<int>(value);
}

long long Str_parseLLong(const char* s) {
        return parse<long long>(s, [](const char* t, char** end) { return strtoll(t, end, 10); });
}

float Str_parseFloat(const char* s) {
        return parse<float>(s, [](const char* t, char** end) { return strtof(t, end); });
}

double Str_parseDouble(const char* s) {
        return parse<double>(s, [](const char* t, char** end) { return strtod(t, end); });
}

unsigned int Str_hash(const void* x) {
        assert(x);
        unsigned int h = 0;
        for (const unsigned char* p = static_cast<const unsigned char*>(x); *p; p++) {
                h = (h << 4) + *p;
                unsigned int g = h & 0xf0000000U;
                if (g)
                        h ^= g >> 24;
                h &= ~g;
        }
        return h;
}

char* Str_bytesToSize(double bytes, char* s) {
        assert(s);
        assert(bytes < 1e+24);
        static const char* const kUnits[] = {"B", "kB", "MB", "GB", "TB", "PB", "EB", "ZB"};
        size_t i = 0;
        while (bytes >= 1024 && i + 1 < sizeof kUnits / sizeof *kUnits) {
                bytes *= 1.0 / 1024;
                i++;
        }
        double whole;
        snprintf(s, 10, modf(bytes, &whole) == 0 ? "%.0lf %s" : "%.1lf %s", bytes, kUnits[i]);
        return s;
}

char* Str_milliToTime(double milli, char* s) {
        assert(s);
        static const double kLimits[] = {1000, 60, 60};
        static const char* const kUnits[] = {"ms", "s", "m"};
        int i = 0;
        while (i < 2 && fabs(milli) >= kLimits[i]) {
                milli /= kLimits[i];
                i++;
        }
        double whole;
        snprintf(s, 23, modf(milli, &whole) == 0 ? "%.0lf %s" : "%.3lf %s", milli, kUnits[i]);
        return s;
}
