// The request head, form bodies and multipart bodies, scanned in place.
//
// Each scanner is a hand-shaped deterministic automaton: one function or loop per
// position in the grammar, with its actions inline. Bytes are classified by single
// lookups in a 256-entry table. Nothing is copied while scanning: texts are cut out of
// the buffer by writing NUL bytes, handed to the request (which copies them into its
// arena) and, where a later state still reads the byte, restored.
#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <array>
#include <string_view>

#include <vesk/Cookie.h>
#include <vesk/Error.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpLexer.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/InetAddress.h>
#include <vesk/InputStream.h>
#include <vesk/Map.h>
#include <vesk/Str.h>
#include <vesk/URL.h>
#include <vesk/assert.h>

#include "http/PartImpl.hpp"

namespace {

/* ------------------------------------------------------------ Character classes */

enum : uint16_t {
        kBlank = 1 << 0,        // tab, space
        kPath = 1 << 1,         // a byte of a raw path
        kHost = 1 << 2,         // letters, digits, '-', '.'
        kUserInfo = 1 << 3,     // a byte of user information before '@'
        kQueryName = 1 << 4,    // a byte of a query parameter's name
        kQueryValue = 1 << 5,   // a byte of a query parameter's value
        kParamValue = 1 << 6,   // a byte of a path parameter's value
        kHeaderName = 1 << 7,   // a byte of a header's name
        kHeaderValue = 1 << 8,  // a byte of a header's value
        kAlpha = 1 << 9,
        kDigit = 1 << 10,
        kNameStop = 1 << 11,   // ends a path parameter's name
        kRegName = 1 << 12,    // a byte of a registered host name, besides percent-encoding
        kIpLiteral = 1 << 13,  // a byte between the brackets of an IP address literal
};

constexpr bool in(int c, int lo, int hi) {
        return c >= lo && c <= hi;
}

constexpr std::array<uint16_t, 256> kClass = [] {
        std::array<uint16_t, 256> t{};
        for (int c = 0; c < 256; c++) {
                uint16_t m = 0;
                if (c == '\t' || c == ' ')
                        m |= kBlank;
                if (c == 0x21 || c == 0x22 || in(c, 0x24, 0x3A) || in(c, 0x3C, 0x3E) ||
                    in(c, 0x40, 0x7E))
                        m |= kPath;
                bool alpha = in(c, 'a', 'z') || in(c, 'A', 'Z');
                bool digit = in(c, '0', '9');
                if (alpha)
                        m |= kAlpha;
                if (digit)
                        m |= kDigit;
                if (alpha || digit || c == '-' || c == '.')
                        m |= kHost;
                if (in(c, 0x21, 0x3F) || in(c, 0x41, 0x7E))
                        m |= kUserInfo;
                if (c == 0x21 || c == 0x22 || c == 0x24 || c == 0x25 || in(c, 0x27, 0x3C) ||
                    in(c, 0x3E, 0xFF))
                        m |= kQueryName;
                if (c == 0x21 || c == 0x22 || c == 0x24 || c == 0x25 || in(c, 0x27, 0xFF))
                        m |= kQueryValue;
                if (c == 0x21 || c == 0x22 || c == 0x24 || c == 0x25 || in(c, 0x27, 0x2E) ||
                    in(c, 0x30, 0x3A) || c == 0x3C || c == 0x3E || in(c, 0x40, 0xFF))
                        m |= kParamValue;
                if (in(c, 0x21, 0x39) || in(c, 0x3B, 0x3E) || in(c, 0x40, 0xFF))
                        m |= kHeaderName;
                if (c == '\t' || in(c, 0x20, 0xFF))
                        m |= kHeaderValue;
                if (c <= 0x20 || c == '#' || c == '&' || c == '/' || c == ';' || c == '=' ||
                    c == '?')
                        m |= kNameStop;
                // Unreserved bytes and sub-delimiters.
                if (alpha || digit ||
                    std::string_view("-._~!$&'()*+,;=").find(char(c)) != std::string_view::npos)
                        m |= kRegName;
                if (digit || in(c, 'a', 'f') || in(c, 'A', 'F') || c == ':' || c == '.')
                        m |= kIpLiteral;
                t[static_cast<size_t>(c)] = m;
        }
        return t;
}();

inline bool is(char c, uint16_t cls) {
        return kClass[static_cast<unsigned char>(c)] & cls;
}

inline bool isControl(char c) {
        unsigned char u = static_cast<unsigned char>(c);
        return u < 0x20 || u == 0x7F;
}

constexpr const char* kMethods[] = {"GET", "POST", "HEAD", "PUT", "DELETE", "TRACE", "OPTIONS"};
constexpr long kPathMax = 4095;

// True if the len bytes of word stand at p, before limit, in any case.
bool keyword(const char* p, const char* limit, const char* word) {
        size_t n = strlen(word);
        return static_cast<size_t>(limit - p) >= n && strncasecmp(p, word, n) == 0;
}

// Cuts [s, e) down to the bytes above 0x20 at both ends and terminates it; *e must be
// writable.
char* trim(char* s, char* e) {
        while (s < e && static_cast<unsigned char>(*s) <= 0x20)
                s++;
        while (e > s && static_cast<unsigned char>(e[-1]) <= 0x20)
                e--;
        *e = 0;
        return s;
}

// The most parameters a request on connector may carry; negative for no limit.
int parameterCap(HttpConnector_T connector) {
        return connector ? HttpConnector_getMaxParameterCount(connector)
                         : HTTPCONNECTOR_MAX_PARAMETER_COUNT;
}

// The largest body a request on connector may declare.
long contentLengthLimit(HttpConnector_T connector) {
        return connector ? HttpConnector_getContentLengthLimit(connector)
                         : HTTPCONNECTOR_CONTENT_LENGTH_LIMIT;
}

// True if request, holding pending parameters not yet added, can take no more under cap.
bool full(HttpRequest_T request, int cap, int pending = 0) {
        return cap >= 0 && Map_count(HttpRequest_getParameterMap(request)) + pending >= cap;
}

constexpr const char* kTooManyParameters = "Too many parameters";

/* ------------------------------------------------------------------ The head */

enum class Header {
        Generic,
        AcceptEncoding,
        Connection,
        ContentEncoding,
        ContentLength,
        ContentType,
        Cookie,
        Host
};

struct Known {
        const char* name;
        Header kind;
        const char* message;
};

constexpr Known kKnown[] = {
    {"Accept-Encoding", Header::AcceptEncoding, "Invalid Accept-Encoding header"},
    {"Connection", Header::Connection, "Invalid Connection header"},
    // The message names the other header; clients have seen it so.
    {"Content-Encoding", Header::ContentEncoding, "Invalid Transfer-Encoding header"},
    {"Content-Length", Header::ContentLength, "Invalid Content-Length header"},
    {"Content-Type", Header::ContentType, "Invalid Content-Type header"},
    {"Cookie", Header::Cookie, "Invalid Cookie header"},
    {"Host", Header::Host, "Invalid Host header"},
};

class Lexer {
public:
        explicit Lexer(HttpLexer_T record)
            : L(record),
              p(record->cursor),
              limit(record->limit),
              request(record->request),
              connector(InetAddress_getConnector(record->inet)),
              strict(connector && HttpConnector_getStrict(connector)),
              cap(parameterCap(connector)) {}

        int run() {
                int status = requestLine();
                if (status == 0)
                        status = headers();
                if (status == 0 && strict)
                        status = strictHead();
                if (status == 0)
                        status = endOfHead();
                L->cursor = p;
                return status ? status : L->status;
        }

private:
        HttpLexer_T L;
        char*& p;
        char* limit;
        HttpRequest_T request;
        HttpConnector_T connector;  // NULL on a bare connection
        bool strict;
        int cap;

        int fail(int status, const char* message) {
                snprintf(L->message, sizeof L->message, "%s", message);
                L->status = status;
                return status;
        }

        // The head ended inside a line: the delimiter cut it early.
        int cut() { return fail(400, ""); }

        void skipBlanks() {
                while (p < limit && is(*p, kBlank))
                        p++;
        }

        // The length of the line end at q: 1 for LF, 2 for CR LF, 0 for none.
        int lineEnd(const char* q) const {
                if (q < limit && *q == '\n')
                        return 1;
                if (q + 1 < limit && q[0] == '\r' && q[1] == '\n')
                        return 2;
                return 0;
        }

        /* ---------------------------------------------------- The request line */

        int requestLine() {
                // Leading: blank lines and blanks before the method.
                for (;;) {
                        if (p >= limit)
                                return cut();
                        if (is(*p, kBlank) || *p == '\n') {
                                p++;
                        } else if (*p == '\r') {
                                if (p + 1 >= limit)
                                        return cut();
                                if (p[1] != '\n')
                                        return fail(400, "Invalid HTTP request");
                                p += 2;
                        } else if (!is(*p, kAlpha)) {
                                return fail(400, "Invalid HTTP request");
                        } else {
                                break;
                        }
                }
                // Method.
                L->token = p;
                while (p < limit && is(*p, kAlpha))
                        p++;
                if (p >= limit)
                        return cut();
                size_t n = static_cast<size_t>(p - L->token);
                L->method = -1;
                for (int i = HttpRequest_GET; i <= HttpRequest_OPTIONS; i++)
                        if (strlen(kMethods[i]) == n && strncasecmp(L->token, kMethods[i], n) == 0)
                                L->method = i;
                if (L->method < 0 || *p != ' ')
                        return fail(501, "");
                p++;
                HttpRequest_setMethod(request, L->method);
                return target(true);
        }

        int target(bool first) {
                skipBlanks();
                if (p >= limit)
                        return cut();
                if (first && *p == '*') {
                        if (L->method != HttpRequest_OPTIONS)
                                return fail(400, "Invalid path");
                        p++;
                        HttpRequest_setRequestURI(request, "*");
                        return protocol();
                }
                if (first && (keyword(p, limit, "http://") || keyword(p, limit, "https://"))) {
                        p = static_cast<char*>(memchr(p, ':', static_cast<size_t>(limit - p))) + 3;
                        authority();
                        return target(false);
                }
                if (*p == '/')
                        return path();
                return fail(400, "Invalid path");
        }

        // The authority of an absolute target is read over and not used: the host comes
        // from the "Host" header.
        void authority() {
                L->marker = p;
                while (p < limit && is(*p, kUserInfo))
                        p++;
                if (p < limit && *p == '@')
                        p++;
                else
                        p = L->marker;
                while (p < limit && is(*p, kHost))
                        p++;
                if (p < limit && *p == ':') {
                        p++;
                        while (p < limit && is(*p, kDigit))
                                p++;
                }
        }

        int path() {
                L->token = p++;
                while (p < limit && is(*p, kPath))
                        p++;
                if (p >= limit)
                        return cut();
                if (p - L->token > kPathMax)
                        return fail(414, "Path too long");
                char stop = *p;
                char* uri = trim(L->token, p);
                HttpRequest_setRequestURI(request, URL_normalize(URL_unescape(uri)));
                *p = stop;
                return stop == ';' ? pathParameters() : afterPath();
        }

        int pathParameters() {
                char* name = nullptr;
                for (;;) {
                        if (p >= limit)
                                return cut();
                        if (*p == ';') {
                                if (keyword(p + 1, limit, "vsessionid=")) {
                                        char* v = p + 12;
                                        char* e = v;
                                        while (e < limit && is(*e, kAlpha | kDigit))
                                                e++;
                                        if (e > v && e < limit) {
                                                char stop = *e;
                                                *e = 0;
                                                HttpRequest_setRequestSessionId(request, v);
                                                HttpRequest_setRequestedSessionURL(request, 1);
                                                *e = stop;
                                                p = e;
                                                name = nullptr;
                                                continue;
                                        }
                                }
                                name = ++p;
                                while (p < limit && !is(*p, kNameStop))
                                        p++;
                                L->contextMarker = p;
                                if (p == name)
                                        name = nullptr;
                        } else if (*p == '=') {
                                char* equals = p++;
                                char* v = p;
                                while (p < limit && is(*p, kParamValue))
                                        p++;
                                if (p >= limit)
                                        return cut();
                                if (name && L->contextMarker == equals) {
                                        if (full(request, cap))
                                                return fail(400, kTooManyParameters);
                                        char stop = *p;
                                        *equals = 0;
                                        *p = 0;
                                        HttpRequest_addParameter(request, URL_unescape(name),
                                                                 URL_unescape(v));
                                        *p = stop;
                                }
                                name = nullptr;
                        } else {
                                return afterPath();
                        }
                }
        }

        int afterPath() {
                if (p >= limit)
                        return cut();
                if (*p == '?') {
                        p++;
                        return query();
                }
                if (*p == '#')
                        return fragment();
                if (is(*p, kBlank)) {
                        p++;
                        return protocol();
                }
                return fail(400, "Invalid query part");
        }

        int query() {
                char* name = nullptr;
                bool decoded = false;
                for (;;) {
                        if (p >= limit)
                                return cut();
                        L->token = p;
                        unsigned char c = static_cast<unsigned char>(*p);
                        if (c <= 0x20 || c == '#' || c == '&')
                                return fragment();
                        if (c == '=') {
                                char* equals = p++;
                                char* v = p;
                                while (p < limit && is(*p, kQueryValue))
                                        p++;
                                if (p >= limit)
                                        return cut();
                                char* end = p;
                                char stop = *end;
                                if (stop == '&')
                                        p++;
                                if (name) {
                                        if (full(request, cap))
                                                return fail(400, kTooManyParameters);
                                        *equals = 0;
                                        *end = 0;
                                        URL_unescape(v);
                                        // A name stays pending for "&=" and is decoded once.
                                        if (!decoded)
                                                URL_unescape(name);
                                        decoded = true;
                                        HttpRequest_addParameter(request, name, v);
                                        if (stop != '&')
                                                *end = stop;
                                }
                                continue;
                        }
                        p++;
                        while (p < limit && is(*p, kQueryName))
                                p++;
                        if (p >= limit)
                                return cut();
                        if (*p != '=')
                                return fragment();
                        name = L->token;
                        decoded = false;
                }
        }

        int fragment() {
                if (p >= limit)
                        return cut();
                if (is(*p, kBlank)) {
                        p++;
                        return protocol();
                }
                if (*p == '#') {
                        char* hash = p++;
                        while (p<limit&& static_cast<unsigned char>(*p)> 0x20)
                                p++;
                        *hash = 0;
                        return protocol();
                }
                return fail(400, "Invalid ref part");
        }

        int protocol() {
                skipBlanks();
                for (const char* k = "HTTP/"; *k; k++, p++) {
                        if (p >= limit)
                                return cut();
                        if (toupper(static_cast<unsigned char>(*p)) != *k)
                                return fail(400, "Invalid protocol part");
                }
                if (p >= limit)
                        return cut();
                if (!is(*p, kDigit) && *p != '.')
                        return fail(400, "Invalid protocol part");
                L->token = p;
                while (p < limit && (is(*p, kDigit) || *p == '.'))
                        p++;
                if (p >= limit)
                        return cut();
                bool v11 = p - L->token == 3 && memcmp(L->token, "1.1", 3) == 0;
                bool v10 = p - L->token == 3 && memcmp(L->token, "1.0", 3) == 0;
                if (!v11 && !v10)
                        return fail(505, "");
                skipBlanks();
                if (p >= limit || (*p == '\r' && p + 1 >= limit))
                        return cut();
                int n = lineEnd(p);
                if (n == 0)
                        return fail(505, "");
                p += n;
                L->http11 = v11;
                L->keepAlive = v11;
                HttpRequest_setProtocol(request, v11 ? "HTTP/1.1" : "HTTP/1.0");
                return 0;
        }

        /* ------------------------------------------------------------ Headers */

        int headers() {
                for (bool first = true;; first = false) {
                        if (p >= limit)
                                return cut();
                        // A line that begins with a blank continues the one before. Generic
                        // and Cookie values take such lines in (unless strict), so one seen
                        // here follows the request line or a header whose value is a single
                        // line: it must not pass for a header of its own.
                        if (is(*p, kBlank))
                                return fail(400, strict && !first
                                                     ? "Obsolete line folding in header"
                                                     : "Invalid request header");
                        int n = lineEnd(p);
                        if (n) {
                                p += n;
                                return 0;
                        }
                        char* name = p;
                        while (p < limit && is(*p, kHeaderName))
                                p++;
                        char* nameEnd = p;
                        skipBlanks();
                        if (p >= limit)
                                return cut();
                        if (nameEnd == name || *p != ':')
                                return fail(400, "Invalid request header");
                        if (strict && p != nameEnd)
                                return fail(400, "Whitespace before colon in header");
                        char* colon = p++;
                        const Known* known = nullptr;
                        size_t length = static_cast<size_t>(nameEnd - name);
                        for (const Known& k : kKnown)
                                if (strlen(k.name) == length &&
                                    strncasecmp(name, k.name, length) == 0)
                                        known = &k;
                        int status = known ? knownHeader(*known) : genericHeader(name, colon);
                        if (status)
                                return status;
                }
        }

        // Takes the value's lines from p, continuation lines too if asked; the end of the
        // last line's bytes in *end, or false for a control byte or a line with no end.
        bool valueLines(bool continued, char** end) {
                for (;;) {
                        while (p < limit && is(*p, kHeaderValue))
                                p++;
                        int n = lineEnd(p);
                        if (n == 0)
                                return false;
                        *end = p;
                        p += n;
                        if (!continued || p >= limit || !is(*p, kBlank))
                                return true;
                }
        }

        int genericHeader(char* name, char* colon) {
                char* v = p;
                char* end;
                if (p >= limit || !is(*p, kHeaderValue) || !valueLines(!strict, &end))
                        return fail(400, "Invalid request header");
                *colon = 0;
                name = trim(name, colon);
                char* value = trim(v, end);
                HttpRequest_addHeader(request, name, value);
                if (Str_startsWith(name, "X-Forwarded-Proto")) {
                        if (Str_isEqual(value, "https"))
                                HttpRequest_setScheme(request, "https");
                        else if (Str_isEqual(value, "http"))
                                HttpRequest_setScheme(request, "http");
                } else if (Str_startsWith(name, "X-Forwarded-Port") && is(*value, kDigit)) {
                        long port = strtol(value, nullptr, 10);
                        if (port <= 65535)
                                HttpRequest_setServerPort(request, static_cast<int>(port));
                }
                return 0;
        }

        int knownHeader(const Known& k) {
                char* v = p;
                char* end;
                if (p >= limit || !(*p == '\t' || static_cast<unsigned char>(*p) >= 0x20) ||
                    !valueLines(k.kind == Header::Cookie && !strict, &end))
                        return fail(400, k.message);
                char* value = trim(v, end);
                switch (k.kind) {
                case Header::AcceptEncoding:
                        HttpRequest_setAcceptEncoding(request,
                                                      *value == '*' || Str_sub(value, "gzip"));
                        break;
                case Header::Connection:
                        if (Str_isEqual(value, "close"))
                                L->keepAlive = 0;
                        else if (Str_isEqual(value, "keep-alive"))
                                L->keepAlive = 1;
                        break;
                case Header::ContentEncoding:
                        HttpRequest_setContentEncoding(request, Str_sub(value, "gzip") != nullptr);
                        break;
                case Header::ContentLength: {
                        long n;
                        if (strict) {
                                if (L->hasContentLength)
                                        return fail(400, "Duplicate Content-Length header");
                                if (!digits(value, &n))
                                        return fail(400, k.message);
                        } else if (sscanf(value, "%ld", &n) != 1 || n < 0) {
                                return fail(400, "Invalid Content-Length");
                        }
                        L->contentLength = n;
                        L->hasContentLength = 1;
                        break;
                }
                case Header::ContentType:
                        if (Str_startsWith(value, "application/x-www-form-urlencoded"))
                                L->contentKind = 0;
                        else if (Str_startsWith(value, "multipart/form-data"))
                                L->contentKind = 1;
                        else if (Str_startsWith(value, "text/xml"))
                                L->contentKind = 2;
                        break;
                case Header::Host:
                        if (strict && L->host)
                                return fail(400, "Duplicate Host header");
                        if (strict && !hostName(value))
                                return fail(400, k.message);
                        return host(value);
                case Header::Cookie:
                        HttpRequest_addHeader(request, k.name, value);
                        return cookies(value, value + strlen(value));
                default:
                        break;
                }
                HttpRequest_addHeader(request, k.name, value);
                if (k.kind == Header::ContentType)
                        L->contentType = HttpRequest_getHeader(request, k.name);
                return 0;
        }

        // The last colon separates the port, brackets or not: "[::1]" gives port 1. A strict
        // connector has checked the form, so it can tell a colon inside the brackets.
        int host(char* value) {
                char* colon = strrchr(value, ':');
                if (strict && colon && strchr(colon, ']'))
                        colon = nullptr;
                if (colon) {
                        *colon = 0;
                        char* digits = colon + 1;
                        char* end;
                        errno = 0;
                        long port = strtol(digits, &end, 10);
                        if (end == digits || errno || port < 0 || port > 65535)
                                return fail(400, "Invalid port in Host header");
                        L->port = static_cast<int>(port);
                        HttpRequest_setServerPort(request, L->port);
                }
                char* open = strchr(value, '[');
                char* close = open ? strchr(open, ']') : nullptr;
                if (close) {
                        *close = 0;
                        HttpRequest_setServerName(request, open + 1);
                        *close = ']';
                } else {
                        HttpRequest_setServerName(request, value);
                }
                if (colon)
                        *colon = ':';
                HttpRequest_addHeader(request, "Host", value);
                L->host = HttpRequest_getHeader(request, "Host");
                return 0;
        }

        /* ------------------------------------------------------- Strict rules */

        // A length of digits only that fits in n.
        static bool digits(const char* s, long* n) {
                long v = 0;
                if (!*s)
                        return false;
                for (; *s; s++) {
                        if (!is(*s, kDigit) || v > (LONG_MAX - (*s - '0')) / 10)
                                return false;
                        v = v * 10 + (*s - '0');
                }
                *n = v;
                return true;
        }

        // A registered name or IPv4 address, or an IP literal in brackets, each with an
        // optional port of digits; an empty name is what a client sends for a target
        // without one.
        static bool hostName(const char* s) {
                if (*s == '[') {
                        const char* literal = ++s;
                        while (is(*s, kIpLiteral))
                                s++;
                        if (s == literal || *s++ != ']')
                                return false;
                } else {
                        while (*s && *s != ':') {
                                if (*s == '%') {
                                        if (!isxdigit(static_cast<unsigned char>(s[1])) ||
                                            !isxdigit(static_cast<unsigned char>(s[2])))
                                                return false;
                                        s += 3;
                                } else if (is(*s, kRegName)) {
                                        s++;
                                } else {
                                        return false;
                                }
                        }
                }
                if (*s == ':')
                        while (is(*++s, kDigit))
                                ;
                return *s == 0;
        }

        // What a strict connector checks once all headers are read: a body framed one way
        // only, and by no coding but chunked.
        int strictHead() {
                const char** codings =
                    Map_gets(HttpRequest_getHeaderMap(request), "Transfer-Encoding");
                if (!codings)
                        return 0;
                if (L->hasContentLength)
                        return fail(400, "Content-Length with Transfer-Encoding");
                if (!codings[0] || codings[1] || strcasecmp(codings[0], "chunked") != 0)
                        return fail(400, "Unsupported Transfer-Encoding");
                return 0;
        }

        /* ------------------------------------------------------------ Cookies */

        static bool cookieStop(char c) {
                return is(c, kBlank) || c == ',' || c == ';' || c == '\r' || c == '\n';
        }

        // A quoted string or a run without blanks, ',' and ';', which must end at one of
        // those, a line end or e. [*vs, *ve) is the value, quotes included.
        static bool cookieValue(char*& q, char* e, char** vs, char** ve) {
                *vs = q;
                if (q < e && *q == '"') {
                        char* close =
                            static_cast<char*>(memchr(q + 1, '"', static_cast<size_t>(e - q - 1)));
                        if (!close)
                                return false;
                        q = close + 1;
                } else {
                        while (q < e && !cookieStop(*q) && !isControl(*q))
                                q++;
                }
                *ve = q;
                return q == e || cookieStop(*q);
        }

        // The attribute at q ("$Version", "$Path", "$Domain"), followed by optional blanks
        // and '='; q moves behind the '='. 0 when none stands there.
        static int attribute(char*& q, char* e) {
                static constexpr const char* words[] = {"$Version", "$Path", "$Domain"};
                for (int i = 0; i < 3; i++) {
                        if (!keyword(q, e, words[i]))
                                continue;
                        char* r = q + strlen(words[i]);
                        while (r < e && is(*r, kBlank))
                                r++;
                        if (r < e && *r == '=') {
                                q = r + 1;
                                return i + 1;
                        }
                }
                return 0;
        }

        int cookies(char* s, char* e) {
                Arena_T arena = HttpRequest_getArena(request);
                int version = 0;
                char* name = nullptr;
                Cookie_T current = nullptr;
                char* q = s;
                while (q < e) {
                        char c = *q;
                        if (is(c, kBlank) || c == '\r' || c == '\n' || c == ',' || c == ';') {
                                q++;
                                continue;
                        }
                        if (isControl(c))
                                return fail(400, "Invalid Cookie header");
                        char *vs, *ve;
                        if (int a = attribute(q, e)) {
                                static constexpr const char* messages[] = {"Invalid Cookie version",
                                                                           "Invalid Cookie path",
                                                                           "Invalid Cookie domain"};
                                while (q < e && is(*q, kBlank))
                                        q++;
                                if (!cookieValue(q, e, &vs, &ve) || ve == vs)
                                        return fail(400, messages[a - 1]);
                                char stop = *ve;
                                *ve = 0;
                                char* value = Str_unquote(trim(vs, ve));
                                if (a == 1) {
                                        if (sscanf(value, "%d", &version) != 1) {
                                                *ve = stop;
                                                return fail(400, messages[0]);
                                        }
                                } else if (current) {
                                        if (a == 2)
                                                Cookie_setPath(current, value);
                                        else
                                                Cookie_setDomain(current, value);
                                }
                                *ve = stop;
                                name = nullptr;
                                continue;
                        }
                        if (keyword(q, e, "vsessionid=")) {
                                char* v = q + 11;
                                char* r = v;
                                while (r < e && is(*r, kAlpha | kDigit))
                                        r++;
                                if (r > v && (r == e || cookieStop(*r))) {
                                        char stop = *r;
                                        *r = 0;
                                        HttpRequest_setRequestSessionId(request, v);
                                        HttpRequest_setRequestedSessionURL(request, 0);
                                        *r = stop;
                                        q = r;
                                        name = nullptr;
                                        continue;
                                }
                        }
                        if (c == '=') {
                                *q++ = 0;
                                if (!cookieValue(q, e, &vs, &ve))
                                        return fail(400, "Invalid Cookie header");
                                if (name) {
                                        char stop = *ve;
                                        *ve = 0;
                                        current = addCookie(arena, trim(name, name + strlen(name)),
                                                            trim(vs, ve), version, current);
                                        *ve = stop;
                                }
                                name = nullptr;
                                continue;
                        }
                        // A name runs to '='; one that ends otherwise is dropped.
                        name = q;
                        while (q < e && *q != '=' && !isControl(*q))
                                q++;
                        if (q == e || *q != '=')
                                name = nullptr;
                }
                return 0;
        }

        Cookie_T addCookie(Arena_T arena, char* name, char* value, int version, Cookie_T current) {
                TRY
                        Str_unquote(value);
                        Cookie_T cookie = Cookie_alloc(arena, name, value);
                        Cookie_setVersion(cookie, version);
                        HttpRequest_addCookie(request, cookie);
                        current = cookie;
                CATCH(AssertException)
                        Error_debug("Invalid Cookie '%s' ignored\n", value);
                END_TRY;
                return current;
        }

        /* -------------------------------------------------------- End of head */

        int endOfHead() {
                if (L->http11 && !L->host)
                        return fail(400, "Host required");
                InetAddress_T inet = L->inet;
                // Any method may declare a body, and the connector reads every declared body
                // (a GET's only to drop it), so the limit holds for all of them.
                if (L->hasContentLength && L->contentLength > contentLengthLimit(connector))
                        return fail(413, "");
                if (L->method == HttpRequest_POST || L->method == HttpRequest_PUT) {
                        if (!L->hasContentLength)
                                return fail(400, "Content-Length required");
                        if (L->contentLength > 0)
                                L->hasBody = 1;
                        if (L->method == HttpRequest_PUT &&
                            HttpRequest_containsHeader(request, "Content-Range"))
                                return fail(400, "Content-Range not allowed in PUT request");
                        if (HttpRequest_containsHeaderValue(request, "transfer-encoding",
                                                            "chunked"))
                                InputStream_setChunked(InetAddress_getInputStream(inet), 1);
                }
                // A body framed by Transfer-Encoding is never read to its very end (a GET's is not
                // read at all), so what follows it cannot be trusted as the next request.
                if (HttpRequest_containsHeader(request, "Transfer-Encoding"))
                        L->keepAlive = 0;
                long length = L->hasContentLength ? L->contentLength : -1;
                HttpRequest_setContentLength(
                    request, length > INT32_MAX ? INT32_MAX : static_cast<int>(length));
                HttpResponse_T response = HttpResponse_new(InetAddress_getArena(inet));
                L->response = response;
                HttpRequest_setResponse(request, response);
                HttpResponse_setRequest(response, request);
                HttpRequest_setInetAddress(request, inet);
                InetAddress_setRequest(inet, request);
                InetAddress_setResponse(inet, response);
                HttpRequest_setInputStream(request, InetAddress_getInputStream(inet));
                HttpResponse_setOutputStream(response, InetAddress_getOutputStream(inet));
                HttpRequest_setConnector(request, InetAddress_getConnector(inet));
                HttpResponse_setConnector(response, InetAddress_getConnector(inet));
                HttpResponse_setProtocol(response, "HTTP/1.1");
                HttpRequest_setSecure(request, InetAddress_isSecure(inet));
                HttpResponse_setKeepAlive(response, InetAddress_setKeepAlive(inet, L->keepAlive));
                L->status = 200;
                return 0;
        }
};

/* ------------------------------------------------------------------ Multipart */

// The multipart scanner over [p, e); e is writable.
class Multipart {
public:
        Multipart(HttpRequest_T request, char* data, int length)
            : request(request), p(data), e(data + length) {}

        // 0, or -1 when the fields and the request's parameters together exceed the cap.
        int run() {
                if (!boundaryOf())
                        return 0;
                if (!preamble())
                        return 0;
                int cap = parameterCap(HttpRequest_getConnector(request));
                int fields = 0;
                Part_T part = Part_alloc(HttpRequest_getArena(request));
                for (;;) {
                        if (!headers(part))
                                return 0;
                        if (!part->name) {
                                Error_debug("Invalid header format\n");
                                return 0;
                        }
                        part->content = p;
                        char* end = nextBoundary();
                        if (!end)
                                return 0;
                        part->size = static_cast<int>(end - part->content);
                        *end = 0;
                        // An empty file field is sent as a part without a file name.
                        bool kept =
                            STR_DEF(part->name) && !(part->isFile && STR_UNDEF(part->fileName));
                        if (kept) {
                                if (full(request, cap, fields++))
                                        return -1;
                                HttpRequest_addPart(request, part);
                        }
                        p = end + 4 + boundaryLength;
                        if (e - p >= 2 && p[0] == '-' && p[1] == '-')
                                return 0;
                        if (kept)
                                part = Part_alloc(HttpRequest_getArena(request));
                        else
                                Part_reset(part);
                        if (!nextLine())
                                return 0;
                }
        }

private:
        HttpRequest_T request;
        char* p;
        char* e;
        char* boundary = nullptr;
        size_t boundaryLength = 0;

        bool boundaryOf() {
                const char* b = Str_sub(HttpRequest_getContentType(request), "boundary");
                if (b && strlen(b) > 9) {
                        char* copy = STR_DUP_ARENA(HttpRequest_getArena(request), b + 9);
                        while (*copy && (static_cast<unsigned char>(*copy) <= 0x20 || *copy == '='))
                                copy++;
                        Str_curtail(copy, ";");
                        // Quotes are allowed around a boundary and are not part of it.
                        boundary = Str_unquote(copy);
                        boundaryLength = strlen(boundary);
                }
                if (!boundaryLength) {
                        Error_debug("Invalid Content-Type, boundary token not found\n");
                        return false;
                }
                return true;
        }

        // Moves p behind the next LF; false at the end of the data.
        bool nextLine() {
                char* lf = static_cast<char*>(memchr(p, '\n', static_cast<size_t>(e - p)));
                if (!lf)
                        return false;
                p = lf + 1;
                return p < e;
        }

        bool startsBoundary(const char* q) const {
                return static_cast<size_t>(e - q) >= boundaryLength &&
                       memcmp(q, boundary, boundaryLength) == 0;
        }

        bool preamble() {
                while (p < e) {
                        if (is(*p, kBlank) || *p == '\r' || *p == '\n') {
                                p++;
                                continue;
                        }
                        char* lf = static_cast<char*>(memchr(p, '\n', static_cast<size_t>(e - p)));
                        if (e - p >= 3 && p[0] == '-' && p[1] == '-' &&
                            static_cast<unsigned char>(p[2]) >= 0x20 && lf && lf[-1] == '\r') {
                                bool found = startsBoundary(p + 2);
                                p = lf + 1;
                                if (found)
                                        return true;
                                continue;
                        }
                        break;
                }
                Error_debug("Invalid multipart/form-data format\n");
                return false;
        }

        // The part's header lines up to the empty line; p ends at the first content byte.
        bool headers(Part_T part) {
                while (p < e) {
                        if (*p == '\n') {
                                p++;
                                return true;
                        }
                        if (e - p >= 2 && p[0] == '\r' && p[1] == '\n') {
                                p += 2;
                                return true;
                        }
                        char* lf = static_cast<char*>(memchr(p, '\n', static_cast<size_t>(e - p)));
                        char* end = lf ? lf : e;
                        if (keyword(p, end, "Content-Type") && (p[12] == ' ' || p[12] == ':')) {
                                char* v = p + 12;
                                while (v < end && (*v == ' ' || *v == ':'))
                                        v++;
                                if (keyword(v, end, "multipart/mixed")) {
                                        Error_debug("multipart/mixed is not supported\n");
                                        return false;
                                }
                                part->contentType = trim(v, end);
                        } else if (keyword(p, end, "Content-Disposition")) {
                                char* v = p + 19;
                                while (v < end && (*v == ' ' || *v == ':'))
                                        v++;
                                if (keyword(v, end, "form-data;"))
                                        disposition(part, v + 10, end);
                        }
                        if (!lf)
                                break;
                        p = lf + 1;
                }
                return false;
        }

        void disposition(Part_T part, char* q, char* end) {
                while (q < end) {
                        const char* word = keyword(q, end, "filename") ? "filename"
                                           : keyword(q, end, "name")   ? "name"
                                                                       : nullptr;
                        if (!word) {
                                q++;
                                continue;
                        }
                        char first = *q;
                        char* r = q + strlen(word);
                        while (r < end && is(*r, kBlank))
                                r++;
                        if (r < end && *r == '=') {
                                r++;
                                while (r < end && is(*r, kBlank))
                                        r++;
                        } else {
                                q = r;
                                continue;
                        }
                        if (r >= end || *r != '"') {
                                q = r;
                                continue;
                        }
                        char* v = r + 1;
                        char* close =
                            static_cast<char*>(memchr(v, '"', static_cast<size_t>(end - v)));
                        if (!close) {
                                q = v;
                                continue;
                        }
                        *close = 0;
                        q = close + 1;
                        if (q < end && *q == ';')
                                q++;
                        // Only the keyword as written in lower case counts.
                        if (first == 'f') {
                                part->isFile = 1;
                                part->fileName = v;
                        } else if (first == 'n') {
                                part->name = v;
                        }
                }
        }

        // The CR of the next CR LF "--" boundary behind p, or NULL.
        char* nextBoundary() {
                char* q = p;
                while (q < e) {
                        char* cr = static_cast<char*>(memchr(q, '\r', static_cast<size_t>(e - q)));
                        if (!cr)
                                break;
                        if (e - cr >= 4 && cr[1] == '\n' && cr[2] == '-' && cr[3] == '-' &&
                            startsBoundary(cr + 4))
                                return cr;
                        q = cr + 1;
                }
                Error_debug("Invalid multipart/form-data format\n");
                return nullptr;
        }
};

}  // namespace

int HttpLexer_parse(HttpLexer_T L) {
        assert(L);
        assert(L->request);
        assert(L->inet);
        assert(L->cursor && L->limit && L->cursor <= L->limit);
        L->message[0] = 0;
        return Lexer(L).run();
}

int HttpLexer_parseUrlencoded(HttpRequest_T request, char* buffer, int length) {
        assert(request);
        if (!buffer || length <= 0)
                return 0;
        int cap = parameterCap(HttpRequest_getConnector(request));
        char* p = buffer;
        char* e = buffer + length;
        char* name = nullptr;
        while (p < e) {
                unsigned char c = static_cast<unsigned char>(*p);
                if (c <= 0x20 || c == '#' || c == '&') {
                        p++;
                        continue;
                }
                if (c == '=') {
                        char* equals = p++;
                        char* v = p;
                        while (p < e && is(*p, kQueryValue))
                                p++;
                        bool amp = p < e && *p == '&';
                        if (!name) {
                                p += amp;
                                continue;
                        }
                        if (full(request, cap))
                                return -1;
                        *equals = 0;
                        if (amp) {
                                *p++ = 0;
                                HttpRequest_addParameter(request, name, URL_unescape(v));
                                name = nullptr;
                                continue;
                        }
                        // The value stopped at a blank, a control byte or '#': it takes the
                        // rest of the data.
                        *e = 0;
                        HttpRequest_addParameter(request, name, URL_unescape(v));
                        return 0;
                }
                name = p++;
                while (p < e && is(*p, kQueryName))
                        p++;
                // A name not followed by '=' ends at a byte that is skipped anyway.
                if (p == e || *p != '=')
                        *p = 0;
        }
        return 0;
}

int HttpLexer_parseMultipart(HttpRequest_T request, char* buffer, int length) {
        assert(request);
        if (!buffer || length <= 0)
                return 0;
        return Multipart(request, buffer, length).run();
}
