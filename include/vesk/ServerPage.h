/*
 * ServerPage: one template file (.csp) bound to one data set for one response.
 *
 * A page is made from the response's arena and freed with the response. On creation the
 * data set holds a view of the request: Request.URI, Request.ServletPath,
 * Request.PathInfo, Request.PathLevel, Request.QueryString, Request.ContextPath,
 * Request.PathTranslated, Request.Method, Request.Protocol, Request.RemoteAddr,
 * Request.ServerName, Request.ServerPort, Request.Secure, Request.AuthType,
 * Request.RemoteUser, Request.SessionId, Request.CSRFToken, and one name per entry under
 * Request.Attr., Request.Cookie., Request.Header. (the name without characters such as
 * '-', so User-Agent is Request.Header.UserAgent) and Request.Param. (values cut at 32767
 * characters). A servlet may add its own values before ServerPage_write renders the page
 * to the response. Templates may call url_escape, html_escape, text_html, js_escape,
 * html_strip and url_validate. After rendering, Response.redirect asks for a redirect,
 * Session.invalidate for the session's end, and Error.status_code with Error.message for
 * an error response. The operations that may fail log the error and return false; an
 * empty or NULL name returns false at once.
 */
#ifndef VESK_SERVERPAGE_INCLUDED
#define VESK_SERVERPAGE_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>
#include <vesk/HttpResponse.h>

VESK_BEGIN_DECLS

/* The page for the template at path, rendered to res; NULL if the template cannot be read
   or the data set not made (logged). Checks "res", "arena". */
VESK_API ServerPage_T ServerPage_new(Arena_T arena, const char* path, HttpResponse_T res);
/* Destroys the page's data set and clears *P. */
VESK_API void ServerPage_free(ServerPage_T* P);
/* Renders the page to the response and acts on the reserved names; true on success. */
VESK_API int ServerPage_write(ServerPage_T P);
/* Sets name to value; an empty value stores no text. */
VESK_API int ServerPage_add(ServerPage_T P, const char* name, const char* value);
/* Sets a value from the formatted text "name=value". */
VESK_API int ServerPage_vadd(ServerPage_T P, const char* format, ...) VESK_PRINTF(2, 3);
/* Sets name to an integer value. */
VESK_API int ServerPage_addInt(ServerPage_T P, const char* name, int value);
/* The value of name, or def. */
VESK_API const char* ServerPage_get(ServerPage_T P, const char* name, const char* def);
/* The integer value of name, or def. */
VESK_API int ServerPage_getInt(ServerPage_T P, const char* name, int def);
/* Reads values from a data file. */
VESK_API int ServerPage_loadFromFile(ServerPage_T P, const char* file);
/* Reads values from data text; false without a log line for an empty text. */
VESK_API int ServerPage_loadFromString(ServerPage_T P, const char* text);
/* Marks P as an error page, which never sends a second error. */
VESK_API void ServerPage_setErrorPage(ServerPage_T P);

VESK_END_DECLS

#endif
