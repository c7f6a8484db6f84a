/*
 * Cookie: a cookie received with a request or to be set by a response.
 *
 * A cookie lives in an Arena, the request's, and goes with it: there is no free.
 * Cookie_new takes the arena of the request being processed on this thread;
 * Cookie_alloc takes one explicitly. Texts are copied into the arena; getters
 * return the cookie's own texts. A name that could be read as a cookie attribute
 * (reserved words, names with ",; " or a leading '$') raises AssertException
 * "Invalid Cookie name '<name>'". Version 0 prints in the Netscape form with
 * Expires; any other version in the quoted form with Max-Age. A NULL cookie fails
 * the check "C".
 */
#ifndef VESK_COOKIE_INCLUDED
#define VESK_COOKIE_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Cookie_S* Cookie_T;

/* A cookie in the arena of the present request; checks "name" and "arena". */
VESK_API Cookie_T Cookie_new(const char* name, const char* value);
/* A cookie in arena with copies of name and value (NULL: no value); max age -1. */
VESK_API Cookie_T Cookie_alloc(Arena_T arena, const char* name, const char* value);
/* Replaces the value by a copy. */
VESK_API void Cookie_setValue(Cookie_T C, const char* value);
/* The value, or NULL. */
VESK_API const char* Cookie_getValue(Cookie_T C);
/* The name. */
VESK_API const char* Cookie_getName(Cookie_T C);
/* Sets a comment, printed in the quoted form only. */
VESK_API void Cookie_setComment(Cookie_T C, const char* comment);
/* The comment, or NULL. */
VESK_API const char* Cookie_getComment(Cookie_T C);
/* Sets the domain, stored in lower case. */
VESK_API void Cookie_setDomain(Cookie_T C, const char* domain);
/* The domain, or NULL. */
VESK_API const char* Cookie_getDomain(Cookie_T C);
/* Sets the path; NULL or empty gives "/". */
VESK_API void Cookie_setPath(Cookie_T C, const char* path);
/* The path, or NULL. */
VESK_API const char* Cookie_getPath(Cookie_T C);
/* Seconds to live: negative for the browser session, 0 to delete. */
VESK_API void Cookie_setMaxAge(Cookie_T C, int maxAge);
/* The max age in seconds; -1 by default. */
VESK_API int Cookie_getMaxAge(Cookie_T C);
/* 0 for the Netscape form, another value for the quoted form. */
VESK_API void Cookie_setVersion(Cookie_T C, int version);
/* The version. */
VESK_API int Cookie_getVersion(Cookie_T C);
/* Whether the cookie goes over secure connections only. */
VESK_API void Cookie_setSecure(Cookie_T C, int secure);
/* True for a secure-only cookie. */
VESK_API int Cookie_getSecure(Cookie_T C);
/* Whether scripts in the browser may not see the cookie. */
VESK_API void Cookie_setHttpOnly(Cookie_T C, int httpOnly);
/* True for an HttpOnly cookie. */
VESK_API int Cookie_getHttpOnly(Cookie_T C);
/* 1 for SameSite=strict, 2 for lax, anything else for none. */
VESK_API void Cookie_setSameSite(Cookie_T C, int sameSite);
/* The SameSite setting. */
VESK_API int Cookie_getSameSite(Cookie_T C);
/* The Set-Cookie header value, in the cookie's arena. */
VESK_API const char* Cookie_toString(Cookie_T C);

VESK_END_DECLS

#endif
