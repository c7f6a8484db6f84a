#include <pthread.h>
#include <string.h>
#include <strings.h>

#include <vesk/Arena.h>
#include <vesk/Build.h>
#include <vesk/Cookie.h>
#include <vesk/Str.h>
#include <vesk/StringBuffer.h>
#include <vesk/Time.h>
#include <vesk/assert.h>

struct Cookie_S {
        int secure;
        int version;
        char* path;
        char* name;
        char* value;
        char* domain;
        int httpOnly;
        char* comment;
        int maxAge;
        Arena_T arena;
        int sameSite;
};

namespace {

// Attribute words that a browser would take for part of the cookie's syntax.
constexpr const char* kReserved[] = {"Comment", "Discard", "Domain",  "Expires",  "Max-Age",
                                     "Path",    "Secure",  "Version", "HttpOnly", "SameSite"};

// The date browsers take as long past, for a cookie to be deleted at once.
constexpr const char* kPastDate = "Sun, 21 Feb 1993 00:29:55 GMT";

// A name with a separator, a blank, '=' or a control byte would be read as another
// cookie, an attribute or, with a line break, another header.
bool isReserved(const char* name) {
        if (*name == '$' || strpbrk(name, ",; ="))
                return true;
        for (const char* p = name; *p; p++)
                if (static_cast<unsigned char>(*p) < 0x20 || *p == 0x7F)
                        return true;
        for (const char* word : kReserved)
                if (strcasecmp(name, word) == 0)
                        return true;
        return false;
}

char* copy(Cookie_T C, const char* s) {
        return s ? STR_DUP_ARENA(C->arena, s) : nullptr;
}

}  // namespace

Cookie_T Cookie_new(const char* name, const char* value) {
        // The arena of the request this thread serves; none outside a request.
        auto arena = static_cast<Arena_T>(pthread_getspecific(Request_Arena));
        return Cookie_alloc(arena, name, value);
}

Cookie_T Cookie_alloc(Arena_T arena, const char* name, const char* value) {
        assert(name);
        if (isReserved(name))
                THROW(AssertException, "Invalid Cookie name '%s'", name);
        assert(arena);
        Cookie_T C = static_cast<Cookie_T>(ARENA_CALLOC(arena, 1, sizeof *C));
        C->arena = arena;
        C->maxAge = -1;
        C->name = copy(C, name);
        C->value = copy(C, value);
        return C;
}

void Cookie_setValue(Cookie_T C, const char* value) {
        assert(C);
        C->value = copy(C, value);
}

const char* Cookie_getValue(Cookie_T C) {
        assert(C);
        return C->value;
}

const char* Cookie_getName(Cookie_T C) {
        assert(C);
        return C->name;
}

void Cookie_setComment(Cookie_T C, const char* comment) {
        assert(C);
        C->comment = copy(C, comment);
}

const char* Cookie_getComment(Cookie_T C) {
        assert(C);
        return C->comment;
}

void Cookie_setDomain(Cookie_T C, const char* domain) {
        assert(C);
        C->domain = Str_toLower(copy(C, domain));
}

const char* Cookie_getDomain(Cookie_T C) {
        assert(C);
        return C->domain;
}

void Cookie_setPath(Cookie_T C, const char* path) {
        assert(C);
        C->path = copy(C, STR_DEF(path) ? path : "/");
}

const char* Cookie_getPath(Cookie_T C) {
        assert(C);
        return C->path;
}

void Cookie_setMaxAge(Cookie_T C, int maxAge) {
        assert(C);
        C->maxAge = maxAge;
}

int Cookie_getMaxAge(Cookie_T C) {
        assert(C);
        return C->maxAge;
}

void Cookie_setVersion(Cookie_T C, int version) {
        assert(C);
        C->version = version;
}

int Cookie_getVersion(Cookie_T C) {
        assert(C);
        return C->version;
}

void Cookie_setSecure(Cookie_T C, int secure) {
        assert(C);
        C->secure = secure;
}

int Cookie_getSecure(Cookie_T C) {
        assert(C);
        return C->secure;
}

void Cookie_setHttpOnly(Cookie_T C, int httpOnly) {
        assert(C);
        C->httpOnly = httpOnly;
}

int Cookie_getHttpOnly(Cookie_T C) {
        assert(C);
        return C->httpOnly;
}

void Cookie_setSameSite(Cookie_T C, int sameSite) {
        assert(C);
        C->sameSite = sameSite;
}

int Cookie_getSameSite(Cookie_T C) {
        assert(C);
        return C->sameSite;
}

const char* Cookie_toString(Cookie_T C) {
        assert(C);
        const char* q = C->version ? "\"" : "";
        StringBuffer_T b = StringBuffer_create(256);
        char* result = nullptr;
        TRY
                StringBuffer_append(b, "%s=%s%s%s", C->name, q, C->value ? C->value : "", q);
                if (C->version) {
                        StringBuffer_append(b, "; Version=\"%d\"", C->version);
                        if (C->comment)
                                StringBuffer_append(b, "; Comment=\"%s\"", C->comment);
                }
                if (C->domain)
                        StringBuffer_append(b, "; Domain=%s%s%s", q, C->domain, q);
                if (C->maxAge >= 0) {
                        if (C->version) {
                                StringBuffer_append(b, "; Max-Age=\"%lld\"",
                                                    static_cast<long long>(C->maxAge));
                        } else {
                                char date[30];
                                StringBuffer_append(b, "; Expires=%s",
                                                    C->maxAge == 0
                                                        ? kPastDate
                                                        : Time_gmtstring(Time_now() + C->maxAge, date));
                        }
                }
                if (C->path)
                        StringBuffer_append(b, "; Path=%s%s%s", q, C->path, q);
                if (C->secure)
                        StringBuffer_append(b, "; Secure");
                if (C->httpOnly)
                        StringBuffer_append(b, "; HttpOnly");
                if (C->sameSite == 1)
                        StringBuffer_append(b, "; SameSite=strict");
                else if (C->sameSite == 2)
                        StringBuffer_append(b, "; SameSite=lax");
                result = STR_DUP_ARENA(C->arena, StringBuffer_toString(b));
        FINALLY
                StringBuffer_free(&b);
        END_TRY;
        return result;
}
