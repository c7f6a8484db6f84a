/*
 * URL: a parsed uniform resource locator, and the escaping and normalising of URL
 * text that requests, responses and authenticators use.
 *
 * URL_new parses a copy of its argument and gives NULL for anything it cannot read; it
 * never raises for bad text. A URL owns everything it hands out: texts from getters
 * stay the object's until URL_free(&U), which also frees its connection and clears the
 * caller's pointer. Absent parts are NULL, an absent port -1. Path, user, password and
 * parameter values are unescaped; the query string is kept as written. A NULL object
 * fails the check "U". URL_unescape and URL_normalize work in place and are safe on
 * hostile input: no escape yields a NUL byte, and no normalised path climbs above its
 * start.
 */
#ifndef VESK_URL_INCLUDED
#define VESK_URL_INCLUDED

#include <vesk/Export.h>
#include <vesk/InputStream.h>

VESK_BEGIN_DECLS

typedef struct URL_S* URL_T;
typedef struct URLConnection_S* URLConnection_T;

/* The parsed form of url, or NULL for a NULL or empty text or one without a scheme. */
VESK_API URL_T URL_new(const char* url);
/* URL_new of the text formatted from format. */
VESK_API URL_T URL_create(const char* format, ...) VESK_PRINTF(1, 2);
/* Frees U, its texts and its connection; clears *U. */
VESK_API void URL_free(URL_T* U);
/* The scheme as written, without "://". */
VESK_API const char* URL_getProtocol(URL_T U);
/* The unescaped user, or NULL. */
VESK_API const char* URL_getUser(URL_T U);
/* The unescaped password, or NULL. */
VESK_API const char* URL_getPassword(URL_T U);
/* The host without brackets, or NULL. */
VESK_API const char* URL_getHost(URL_T U);
/* The explicit port, else the scheme's default, else -1. */
VESK_API int URL_getPort(URL_T U);
/* The unescaped path, or NULL. */
VESK_API const char* URL_getPath(URL_T U);
/* The query as written, without "?", or NULL. */
VESK_API const char* URL_getQueryString(URL_T U);
/* What follows "#", or NULL. */
VESK_API const char* URL_getRef(URL_T U);
/* Replaces the path by a copy of path (NULL: none). */
VESK_API void URL_setPath(URL_T U, const char* path);
/* Replaces the user by a copy of user (NULL: none). */
VESK_API void URL_setUser(URL_T U, const char* user);
/* Replaces the password by a copy of password (NULL: none). */
VESK_API void URL_setPassword(URL_T U, const char* password);
/* The unescaped value of the newest path or query parameter name, case counting; NULL if
   there is none or it has no value. */
VESK_API const char* URL_getParameter(URL_T U, const char* name);
/* The parameter names, each once, newest first, closed by NULL; U's own array, or NULL
   when there are no parameters. */
VESK_API const char** URL_getParameterNames(URL_T U);
/* The URL as text without the fragment; U's own text. */
VESK_API const char* URL_toString(URL_T U);
/* The connection of U, made on first call; raises IOException for a protocol other than
   "http..." or "file". */
VESK_API URLConnection_T URL_getConnection(URL_T U);
/* The input stream of U's connection, connecting on first call; raises IOException. */
VESK_API InputStream_T URL_getInputStream(URL_T U);
/* Decodes '+' and %XX escapes of s in place and returns s. An escape that would give a NUL
   byte is left as written; a '%' with fewer than two bytes behind it ends s. */
VESK_API char* URL_unescape(char* s);
/* A new escaped copy of s, to be freed by the caller, in which every unsafe byte is %XX;
   NULL for NULL. */
VESK_API char* URL_escape(const char* s);
/* Collapses slashes and resolves "." and ".." segments of path in place, never above the
   start of path; a path emptied this way becomes "/", an empty one stays. Returns path. */
VESK_API char* URL_normalize(char* path);
/* True if the first ':' of s stands behind at least one byte and is followed by "//". */
VESK_API int URL_isabsolute(const char* s);
/* True if URL_escape encodes the byte c. */
VESK_API int URL_isunsafe(int c);

VESK_END_DECLS

#endif
