#include <ctype.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <array>
#include <string_view>

#include <vesk/Exception.h>
#include <vesk/Mem.h>
#include <vesk/Str.h>
#include <vesk/URL.h>
#include <vesk/URLConnection.h>
#include <vesk/assert.h>

#include "net/URLConnectionImpl.hpp"

namespace {

// A path or query parameter; names and values lie in the URL's buffer.
struct Param {
        char* name;
        char* value;
        Param* next;
};

}  // namespace

struct URL_S {
        int ipv6;
        int port;
        char* ref;
        char* path;
        char* host;
        char* user;
        char* query;
        char* portText;
        char* protocol;
        char* password;
        char* toString;
        Param* params;
        const char** paramNames;
        char* buffer;
        URLConnection_T connection;
};

namespace {

constexpr int kMaxPort = 65535;
constexpr int kMaxPortDigits = 5;

struct Scheme {
        const char* name;
        int port;
};

// nntp takes 110, pop's port and not its own: callers rely on that value.
constexpr Scheme kSchemes[] = {
    {"ftp", 21},   {"ssh", 22},          {"telnet", 23}, {"gopher", 70},   {"http", 80},
    {"feed", 80},  {"https", 443},       {"nntp", 110},  {"oracle", 1521}, {"mysql", 3306},
    {"ldap", 389}, {"ldaps", 636},       {"imap", 143},  {"imaps", 993},   {"pop", 110},
    {"pops", 995}, {"postgresql", 5432}, {"file", -1},
};

constexpr std::array<bool, 256> makeUnsafe() {
        std::array<bool, 256> t{};
        for (int c = 0; c < 256; c++)
                t[c] = c < 33 || c >= 127;
        for (unsigned char c : std::string_view("\"#%<>[\\]^`{|}"))
                t[c] = true;
        return t;
}

constexpr std::array<bool, 256> kUnsafe = makeUnsafe();
constexpr char kHex[] = "0123456789ABCDEF";

int defaultPort(const char* protocol) {
        for (const Scheme& s : kSchemes)
                if (strcasecmp(s.name, protocol) == 0)
                        return s.port;
        return -1;
}

bool endsAuthority(char c) {
        return c == 0 || c == '/' || c == ';' || c == '?' || c == '#';
}

bool isAddressChar(char c) {
        return isxdigit(static_cast<unsigned char>(c)) || c == ':' || c == '.';
}

// Host and port are names on the wire: a blank or a control byte makes the URL unreadable.
bool isPlain(const char* from, const char* to) {
        for (; from < to; from++)
                if (static_cast<unsigned char>(*from) <= ' ' || *from == 127)
                        return false;
        return true;
}

char* copy(const char* from, const char* to) {
        return Str_ndup(from, static_cast<int>(to - from));
}

int hexValue(unsigned char c) {
        // No check that c is a hexadecimal digit: other bytes give other values.
        return c < 'A' ? c - '0' : (c & ~0x20) - 55;
}

void addParam(URL_T U, char* name, char* value) {
        if (!*name)
                return;
        Param* p;
        NEW(p);
        p->name = name;
        p->value = value ? URL_unescape(value) : nullptr;
        p->next = U->params;
        U->params = p;
}

// Finds the first word of letters and digits that is followed by "://", passing over
// whatever stands in front of it.
char* parseScheme(URL_T U) {
        for (char* s = U->buffer; *s;) {
                char* e = s;
                while (isalnum(static_cast<unsigned char>(*e)))
                        e++;
                if (e > s && strncmp(e, "://", 3) == 0) {
                        *e = 0;
                        U->protocol = s;
                        U->port = defaultPort(s);
                        return e + 3;
                }
                s = e > s ? e : s + 1;
        }
        return nullptr;
}

// Reads user information, host and port up to the end of the authority. The port's
// digits are cut out of the buffer only later, since the byte behind them starts the
// path; *portEnd says where.
char* parseAuthority(URL_T U, char* p, char** portEnd) {
        char* end = p;
        while (!endsAuthority(*end))
                end++;
        // The last '@' ends the user information, so that a password may hold one.
        char* at = nullptr;
        for (char* q = p; q < end; q++)
                if (*q == '@')
                        at = q;
        if (at) {
                char* colon = static_cast<char*>(memchr(p, ':', static_cast<size_t>(at - p)));
                U->user = URL_unescape(copy(p, colon ? colon : at));
                if (colon)
                        U->password = URL_unescape(copy(colon + 1, at));
                p = at + 1;
        }
        char* hostEnd = nullptr;
        if (*p == '[') {
                char* q = p + 1;
                while (q < end && isAddressChar(*q))
                        q++;
                if (q < end && *q == ']' && q > p + 1) {
                        U->ipv6 = 1;
                        U->host = copy(p + 1, q);
                        hostEnd = q + 1;
                }
        }
        if (!hostEnd) {
                hostEnd = p;
                while (hostEnd < end && *hostEnd != ':')
                        hostEnd++;
                if (!isPlain(p, hostEnd))
                        return nullptr;
                if (hostEnd > p)
                        U->host = copy(p, hostEnd);
        }
        p = hostEnd;
        if (p < end) {
                // Only a port may follow the host: ':' and up to five digits, or nothing.
                if (*p != ':')
                        return nullptr;
                char* digits = ++p;
                while (p < end && isdigit(static_cast<unsigned char>(*p)))
                        p++;
                if (p != end || p - digits > kMaxPortDigits)
                        return nullptr;
                if (p > digits) {
                        int port = 0;
                        for (char* d = digits; d < p; d++)
                                port = port * 10 + (*d - '0');
                        if (port > kMaxPort)
                                return nullptr;
                        U->port = port;
                        U->portText = digits;
                        *portEnd = p;
                }
        }
        return end;
}

// Reads ";name=value" pairs behind the path. Each pair is cut out of the buffer, so the
// byte that stopped the scan comes back in *stop.
char* parsePathParams(URL_T U, char* p, char* stop) {
        while (*stop == ';') {
                char* name = ++p;
                while (*p && !strchr("=;?#", *p))
                        p++;
                char* value = nullptr;
                if (*p == '=') {
                        *p++ = 0;
                        value = p;
                        while (*p && !strchr(";?#", *p))
                                p++;
                }
                *stop = *p;
                *p = 0;
                addParam(U, name, value);
        }
        return p;
}

// Keeps the raw query, then cuts the buffer's copy into "name=value" pairs. Returns
// where the query ended, with that byte in *stop.
char* parseQuery(URL_T U, char* p, char* stop) {
        char* end = p;
        while (*end && *end != '#')
                end++;
        U->query = copy(p, end);
        *stop = *end;
        *end = 0;
        while (p < end) {
                char* name = p;
                while (*p && *p != '=' && *p != '&')
                        p++;
                char* value = nullptr;
                if (*p == '=') {
                        *p++ = 0;
                        value = p;
                        while (*p && *p != '&')
                                p++;
                }
                if (*p)
                        *p++ = 0;
                addParam(U, name, value);
        }
        return end;
}

bool parse(URL_T U) {
        char* p = parseScheme(U);
        if (!p)
                return false;
        char* portEnd = nullptr;
        if (!(p = parseAuthority(U, p, &portEnd)))
                return false;
        if (*p == '/') {
                char* end = p;
                while (*end && !strchr(";?#", *end))
                        end++;
                U->path = URL_unescape(copy(p, end));
                p = end;
        }
        // Without a path the port's digits end where the parameters begin.
        char stop = *p;
        if (portEnd)
                *portEnd = 0;
        p = parsePathParams(U, p, &stop);
        if (stop == '?')
                p = parseQuery(U, p + 1, &stop);
        if (stop == '#')
                U->ref = p + 1;
        *p = 0;
        return true;
}

void clearCache(URL_T U) {
        FREE(U->toString);
}

void replace(URL_T U, char*& field, const char* value) {
        FREE(field);
        field = value ? Str_dup(value) : nullptr;
        clearCache(U);
}

}  // namespace

URL_T URL_new(const char* url) {
        if (!url || !*url)
                return nullptr;
        URL_T U;
        NEW0(U);
        U->port = -1;
        U->buffer = Str_dup(url);
        if (!parse(U))
                URL_free(&U);
        return U;
}

URL_T URL_create(const char* format, ...) {
        if (!format)
                return nullptr;
        va_list ap;
        va_start(ap, format);
        char* url = Str_vcat(format, ap);
        va_end(ap);
        URL_T U = URL_new(url);
        FREE(url);
        return U;
}

void URL_free(URL_T* U) {
        assert(U && *U);
        URL_T u = *U;
        if (u->connection)
                URLConnection_free(&u->connection);
        for (Param* p = u->params; p;) {
                Param* next = p->next;
                FREE(p);
                p = next;
        }
        FREE(u->paramNames);
        FREE(u->toString);
        FREE(u->path);
        FREE(u->host);
        FREE(u->user);
        FREE(u->password);
        FREE(u->query);
        FREE(u->buffer);
        FREE(*U);
}

const char* URL_getProtocol(URL_T U) {
        assert(U);
        return U->protocol;
}

const char* URL_getUser(URL_T U) {
        assert(U);
        return U->user;
}

const char* URL_getPassword(URL_T U) {
        assert(U);
        return U->password;
}

const char* URL_getHost(URL_T U) {
        assert(U);
        return U->host;
}

int URL_getPort(URL_T U) {
        assert(U);
        return U->port;
}

const char* URL_getPath(URL_T U) {
        assert(U);
        return U->path;
}

const char* URL_getQueryString(URL_T U) {
        assert(U);
        return U->query;
}

const char* URL_getRef(URL_T U) {
        assert(U);
        return U->ref;
}

void URL_setPath(URL_T U, const char* path) {
        assert(U);
        replace(U, U->path, path);
}

void URL_setUser(URL_T U, const char* user) {
        assert(U);
        replace(U, U->user, user);
}

void URL_setPassword(URL_T U, const char* password) {
        assert(U);
        replace(U, U->password, password);
}

const char* URL_getParameter(URL_T U, const char* name) {
        assert(U);
        if (name)
                for (Param* p = U->params; p; p = p->next)
                        if (strcmp(p->name, name) == 0)
                                return p->value;
        return nullptr;
}

const char** URL_getParameterNames(URL_T U) {
        assert(U);
        if (!U->params || U->paramNames)
                return U->paramNames;
        int n = 0;
        for (Param* p = U->params; p; p = p->next)
                n++;
        U->paramNames = static_cast<const char**>(CALLOC(n + 1, sizeof(char*)));
        int count = 0;
        for (Param* p = U->params; p; p = p->next) {
                int i = 0;
                while (i < count && strcmp(U->paramNames[i], p->name) != 0)
                        i++;
                if (i == count)
                        U->paramNames[count++] = p->name;
        }
        return U->paramNames;
}

const char* URL_toString(URL_T U) {
        assert(U);
        if (!U->toString) {
                char port[16] = "";
                if (U->portText)
                        snprintf(port, sizeof port, ":%d", U->port);
                U->toString = Str_cat(
                    "%s://%s%s%s%s%s%s%s%s%s%s%s", U->protocol, U->user ? U->user : "",
                    U->password ? ":" : "", U->password ? U->password : "", U->user ? "@" : "",
                    U->ipv6 ? "[" : "", U->host ? U->host : "", U->ipv6 ? "]" : "", port,
                    U->path ? U->path : "", U->query ? "?" : "", U->query ? U->query : "");
        }
        return U->toString;
}

URLConnection_T URL_getConnection(URL_T U) {
        assert(U);
        if (!U->connection) {
                if (!Str_startsWith(U->protocol, "http") && !Str_isEqual(U->protocol, "file"))
                        THROW(IOException,
                              "Cannot create URLConnection -- Protocol '%s' not supported",
                              U->protocol);
                U->connection = URLConnection_new(U);
        }
        return U->connection;
}

InputStream_T URL_getInputStream(URL_T U) {
        return URLConnection_getInputStream(URL_getConnection(U));
}

char* URL_unescape(char* s) {
        if (!s || !*s)
                return s;
        char* w = s;
        for (const char* r = s; *r; r++) {
                if (*r == '+') {
                        *w++ = ' ';
                } else if (*r == '%') {
                        if (!r[1] || !r[2])
                                break;
                        auto c = static_cast<unsigned char>(
                            hexValue(static_cast<unsigned char>(r[1])) * 16 +
                            hexValue(static_cast<unsigned char>(r[2])));
                        // A NUL byte would cut the text short behind every later check,
                        // as in "secret%00.html": such an escape stays as written.
                        if (c == 0) {
                                *w++ = '%';
                        } else {
                                *w++ = static_cast<char>(c);
                                r += 2;
                        }
                } else {
                        *w++ = *r;
                }
        }
        *w = 0;
        return s;
}

char* URL_escape(const char* s) {
        if (!s)
                return nullptr;
        size_t n = 0;
        for (const char* p = s; *p; p++)
                n += kUnsafe[static_cast<unsigned char>(*p)] ? 3 : 1;
        char* escaped = static_cast<char*>(ALLOC(n + 1));
        char* w = escaped;
        for (const char* p = s; *p; p++) {
                auto c = static_cast<unsigned char>(*p);
                if (kUnsafe[c]) {
                        *w++ = '%';
                        *w++ = kHex[c >> 4];
                        *w++ = kHex[c & 0x0f];
                } else {
                        *w++ = *p;
                }
        }
        *w = 0;
        return escaped;
}

char* URL_normalize(char* path) {
        // The empty text has no room for the "/" that an emptied path becomes.
        if (!path || !*path)
                return path;
        size_t w = 0;
        for (size_t r = 0; path[r];) {
                char c = path[r];
                if (c == '/') {
                        path[w++] = '/';
                        while (path[++r] == '/')
                                ;
                        continue;
                }
                // A dot segment counts at the start too, so that a relative "../" cannot
                // climb either.
                if (c == '.' && (w == 0 || path[w - 1] == '/')) {
                        char next = path[r + 1];
                        if (next == '.' && (path[r + 2] == '/' || path[r + 2] == 0)) {
                                // Back over the last written segment and its slash, never
                                // below the start; the slash still written stays the one.
                                if (w > 0)
                                        w--;
                                while (w > 0 && path[w - 1] != '/')
                                        w--;
                                r += 2;
                                if (w > 0)
                                        while (path[r] == '/')
                                                r++;
                                continue;
                        }
                        if (next == '/' || next == 0) {
                                r++;
                                while (path[r] == '/')
                                        r++;
                                continue;
                        }
                }
                path[w++] = path[r++];
        }
        if (w == 0)
                path[w++] = '/';
        path[w] = 0;
        if (path[0] == '/' && path[1] == '/') {
                size_t out = 0;
                for (size_t r = 0; path[r]; r++)
                        if (path[r] != '/' || out == 0 || path[out - 1] != '/')
                                path[out++] = path[r];
                path[out] = 0;
        }
        return path;
}

int URL_isabsolute(const char* s) {
        if (!s || !*s)
                return 0;
        const char* colon = strchr(s, ':');
        return colon && colon > s && colon[1] == '/' && colon[2] == '/';
}

int URL_isunsafe(int c) {
        return kUnsafe[static_cast<unsigned char>(c)];
}
