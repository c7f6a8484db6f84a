/*
 * HttpRequest: a request as the container and servlets see it.
 *
 * A request is a record in its connection's Arena and goes with it: there is no
 * free. Every text handed out stays the request's and lives as long as the request;
 * setters that take text copy it into the arena. Headers, parameters, attributes and
 * cookies are maps whose names ignore case, with several values per name. Expensive
 * answers (query string, server URL, request URL, translated path, session,
 * principal) are computed on first use and kept. Parameter getters take the name as a
 * format: never pass a name from outside as one. A NULL request fails the check "H".
 * Method numbers: 0 GET, 1 POST, 2 HEAD, 3 PUT, 4 DELETE, 5 TRACE, 6 OPTIONS.
 */
#ifndef VESK_HTTPREQUEST_INCLUDED
#define VESK_HTTPREQUEST_INCLUDED

#include <stdarg.h>
#include <time.h>

#include <vesk/Arena.h>
#include <vesk/Cookie.h>
#include <vesk/Export.h>
#include <vesk/InetAddress.h>
#include <vesk/InputStream.h>
#include <vesk/List.h>
#include <vesk/Logger.h>
#include <vesk/Map.h>

VESK_BEGIN_DECLS

typedef struct HttpRequest_S* HttpRequest_T;
typedef struct HttpResponse_S* HttpResponse_T;
typedef struct HttpConnector_S* HttpConnector_T;
typedef struct HttpStore_S* HttpStore_T;
typedef struct Part_S* Part_T;
typedef struct Context_S* Context_T;
typedef struct ServletContext_S* ServletContext_T;
typedef struct ServletConfig_S* ServletConfig_T;
typedef struct SessionManager_S* SessionManager_T;
typedef struct HttpSession_S* HttpSession_T;
typedef struct Principal_S* Principal_T;
typedef struct Wrapper_S* Wrapper_T;
typedef struct RequestDispatcher_S* RequestDispatcher_T;

/* The method numbers of HttpRequest_method, in the order of their names. */
enum HttpRequest_Method {
        HttpRequest_GET = 0,
        HttpRequest_POST,
        HttpRequest_HEAD,
        HttpRequest_PUT,
        HttpRequest_DELETE,
        HttpRequest_TRACE,
        HttpRequest_OPTIONS
};

/* A new empty request in arena. */
VESK_API HttpRequest_T HttpRequest_new(Arena_T arena);

/* The connection's input stream. */
VESK_API InputStream_T HttpRequest_getInputStream(HttpRequest_T H);
/* The servlet's configuration, or NULL. */
VESK_API ServletConfig_T HttpRequest_getServletConfig(HttpRequest_T H);
/* The session id the client sent, or the bound session's id; NULL if none. */
VESK_API const char* HttpRequest_getRequestSessionId(HttpRequest_T H);
/* The connection. */
VESK_API InetAddress_T HttpRequest_getInetAddress(HttpRequest_T H);
/* True over TLS. */
VESK_API int HttpRequest_isSecure(HttpRequest_T H);
/* The server name in lower case, or NULL. */
VESK_API const char* HttpRequest_getServerName(HttpRequest_T H);
/* The declared body length, or -1. */
VESK_API int HttpRequest_getContentLength(HttpRequest_T H);
/* The path behind the servlet path, or NULL. */
VESK_API const char* HttpRequest_getPathInfo(HttpRequest_T H);
/* "HTTP/1.1" or "HTTP/1.0". */
VESK_API const char* HttpRequest_getProtocol(HttpRequest_T H);
/* The decoded, normalised path. */
VESK_API const char* HttpRequest_getRequestURI(HttpRequest_T H);
/* The servlet path, or NULL. */
VESK_API const char* HttpRequest_getServletPath(HttpRequest_T H);
/* The context path, or NULL. */
VESK_API const char* HttpRequest_getContextPath(HttpRequest_T H);
/* True when the client takes gzip. */
VESK_API int HttpRequest_getAcceptEncoding(HttpRequest_T H);
/* True when the body is gzip. */
VESK_API int HttpRequest_getContentEncoding(HttpRequest_T H);
/* The connector, or NULL. */
VESK_API HttpConnector_T HttpRequest_getConnector(HttpRequest_T H);
/* The method number, one of HttpRequest_Method. */
VESK_API int HttpRequest_method(HttpRequest_T H);
/* The request's arena. */
VESK_API Arena_T HttpRequest_getArena(HttpRequest_T H);
/* The servlet's wrapper, or NULL. */
VESK_API Wrapper_T HttpRequest_getWrapper(HttpRequest_T H);
/* The response. */
VESK_API HttpResponse_T HttpRequest_getResponse(HttpRequest_T H);
/* The context, or NULL. */
VESK_API Context_T HttpRequest_getContext(HttpRequest_T H);
/* The cookie map: name to Cookie_T. */
VESK_API Map_T HttpRequest_getCookieMap(HttpRequest_T H);
/* The attribute map. */
VESK_API Map_T HttpRequest_getAttributeMap(HttpRequest_T H);
/* The parameter map. */
VESK_API Map_T HttpRequest_getParameterMap(HttpRequest_T H);
/* The header map. */
VESK_API Map_T HttpRequest_getHeaderMap(HttpRequest_T H);

/* Attaches the body store. */
VESK_API void HttpRequest_setStore(HttpRequest_T H, HttpStore_T store);
/* Whether the client takes gzip. */
VESK_API void HttpRequest_setAcceptEncoding(HttpRequest_T H, int acceptEncoding);
/* Whether the body is gzip. */
VESK_API void HttpRequest_setContentEncoding(HttpRequest_T H, int contentEncoding);
/* Stores the servlet's configuration. */
VESK_API void HttpRequest_setServletConfig(HttpRequest_T H, ServletConfig_T config);
/* Stores the connector. */
VESK_API void HttpRequest_setConnector(HttpRequest_T H, HttpConnector_T connector);
/* Whether the session id came from the URL. */
VESK_API void HttpRequest_setRequestedSessionURL(HttpRequest_T H, int fromURL);
/* The server port; 0 means ask the connection. */
VESK_API void HttpRequest_setServerPort(HttpRequest_T H, int port);
/* Stores the connection. */
VESK_API void HttpRequest_setInetAddress(HttpRequest_T H, InetAddress_T inet);
/* Stores the principal; the caller's reference passes to the request. */
VESK_API void HttpRequest_setUserPrincipal(HttpRequest_T H, Principal_T principal);
/* The declared body length, -1 for none. */
VESK_API void HttpRequest_setContentLength(HttpRequest_T H, int length);
/* Sets the method number, one of HttpRequest_Method. */
VESK_API void HttpRequest_setMethod(HttpRequest_T H, int method);
/* Whether the connection is TLS. */
VESK_API void HttpRequest_setSecure(HttpRequest_T H, int secure);
/* The logger of HttpRequest_log. */
VESK_API void HttpRequest_setLogger(HttpRequest_T H, Logger_T logger);
/* Stores the servlet's wrapper. */
VESK_API void HttpRequest_setWrapper(HttpRequest_T H, Wrapper_T wrapper);
/* Stores the input stream. */
VESK_API void HttpRequest_setInputStream(HttpRequest_T H, InputStream_T in);
/* Copies the requested session id (NULL clears it). */
VESK_API void HttpRequest_setRequestSessionId(HttpRequest_T H, const char* id);
/* Copies the servlet path. */
VESK_API void HttpRequest_setServletPath(HttpRequest_T H, const char* path);
/* Copies the context path. */
VESK_API void HttpRequest_setContextPath(HttpRequest_T H, const char* path);
/* Copies the authentication type. */
VESK_API void HttpRequest_setAuthType(HttpRequest_T H, const char* authType);
/* Copies the scheme, which overrides the connector's. */
VESK_API void HttpRequest_setScheme(HttpRequest_T H, const char* scheme);
/* Copies the path info. */
VESK_API void HttpRequest_setPathInfo(HttpRequest_T H, const char* pathInfo);
/* Copies the protocol text. */
VESK_API void HttpRequest_setProtocol(HttpRequest_T H, const char* protocol);
/* Copies the request path. */
VESK_API void HttpRequest_setRequestURI(HttpRequest_T H, const char* uri);
/* Copies the server name in lower case. */
VESK_API void HttpRequest_setServerName(HttpRequest_T H, const char* name);
/* Stores the response; checks "response". */
VESK_API void HttpRequest_setResponse(HttpRequest_T H, HttpResponse_T response);
/* Stores the context and its session manager; checks "context". */
VESK_API void HttpRequest_setContext(HttpRequest_T H, Context_T context);

/* The local port of the connection. */
VESK_API int HttpRequest_getLocalPort(HttpRequest_T H);
/* The local address of the connection. */
VESK_API const char* HttpRequest_getLocalAddr(HttpRequest_T H);
/* The local host name of the connection. */
VESK_API const char* HttpRequest_getLocalName(HttpRequest_T H);
/* The client's host name, or its address without lookups. */
VESK_API const char* HttpRequest_getRemoteHost(HttpRequest_T H);
/* The client's port. */
VESK_API int HttpRequest_getRemotePort(HttpRequest_T H);
/* The client's address. */
VESK_API const char* HttpRequest_getRemoteAddr(HttpRequest_T H);

/* The method's name; "?" for an unknown number. Never NULL. */
VESK_API const char* HttpRequest_getMethod(HttpRequest_T H);
/* The scheme set on the request, else the connector's. */
VESK_API const char* HttpRequest_getScheme(HttpRequest_T H);
/* The server port; asks the connection once when none is known. */
VESK_API int HttpRequest_getServerPort(HttpRequest_T H);
/* The "Content-Type" header, or NULL. */
VESK_API const char* HttpRequest_getContentType(HttpRequest_T H);
/* The "Authorization" header, or NULL. */
VESK_API const char* HttpRequest_getAuthorization(HttpRequest_T H);
/* A header's value, name in any case; NULL if absent. */
VESK_API const char* HttpRequest_getHeader(HttpRequest_T H, const char* name);
/* The cookie of that name, or NULL. */
VESK_API Cookie_T HttpRequest_getCookie(HttpRequest_T H, const char* name);
/* An attribute's value, or NULL. */
VESK_API const char* HttpRequest_getAttribute(HttpRequest_T H, const char* name);
/* The header names, closed by NULL, in the arena; NULL when there are none. */
VESK_API const char** HttpRequest_getHeaderNames(HttpRequest_T H);
/* The parameter names, closed by NULL, in the arena; NULL when there are none. */
VESK_API const char** HttpRequest_getParameterNames(HttpRequest_T H);
/* The attribute names, closed by NULL, in the arena; NULL when there are none. */
VESK_API const char** HttpRequest_getAttributeNames(HttpRequest_T H);
/* All values of a header, closed by NULL, in the arena; NULL if absent. */
VESK_API const char** HttpRequest_getHeaderValues(HttpRequest_T H, const char* name);
/* All values of an attribute, closed by NULL, in the arena; NULL if absent. */
VESK_API const char** HttpRequest_getAttributeValues(HttpRequest_T H, const char* name);
/* All cookies, closed by NULL, in the arena; NULL when there are none. */
VESK_API Cookie_T* HttpRequest_getCookies(HttpRequest_T H);
/* The value of the parameter named by the format, or NULL. */
VESK_API const char* HttpRequest_getParameter(HttpRequest_T H, const char* format, ...)
    VESK_PRINTF(2, 3);
/* All values of the parameter named by the format, closed by NULL; NULL if absent. */
VESK_API const char** HttpRequest_getParameterValues(HttpRequest_T H, const char* format, ...)
    VESK_PRINTF(2, 3);
/* The parameter's value, or defaultValue when missing or empty. */
VESK_API const char* HttpRequest_getParameterDefault(HttpRequest_T H, const char* name,
                                                     const char* defaultValue);
/* The parameter named by the format as a number; -1 when missing. Raises
   NumberFormatException for a value that is no number. */
VESK_API int HttpRequest_getIntParameter(HttpRequest_T H, const char* format, ...)
    VESK_PRINTF(2, 3);
/* The header as a number; -1 when missing. Raises NumberFormatException like above. */
VESK_API int HttpRequest_getIntHeader(HttpRequest_T H, const char* name);
/* The header as a date; -1 when missing or unreadable. */
VESK_API time_t HttpRequest_getDateHeader(HttpRequest_T H, const char* name);
/* True if the header was sent. */
VESK_API int HttpRequest_containsHeader(HttpRequest_T H, const char* name);
/* True if a value of the header contains value, ignoring case. */
VESK_API int HttpRequest_containsHeaderValue(HttpRequest_T H, const char* name, const char* value);
/* Adds copies of name and value as a parameter. */
VESK_API void HttpRequest_addParameter(HttpRequest_T H, const char* name, const char* value);
/* Adds copies of name and value as a header. */
VESK_API void HttpRequest_addHeader(HttpRequest_T H, const char* name, const char* value);
/* Adds the cookie under its name; checks "cookie". */
VESK_API void HttpRequest_addCookie(HttpRequest_T H, Cookie_T cookie);
/* Adds a part of the body; checks "part". */
VESK_API void HttpRequest_addPart(HttpRequest_T H, Part_T part);
/* Adds the formatted text as a value of the attribute; nothing when name or format is
   NULL. */
VESK_API void HttpRequest_setAttribute(HttpRequest_T H, const char* name, const char* format, ...)
    VESK_PRINTF(3, 4);
/* Removes the attribute. */
VESK_API void HttpRequest_removeAttribute(HttpRequest_T H, const char* name);
/* Writes a line to the host's log, if there is one. */
VESK_API void HttpRequest_log(HttpRequest_T H, const char* format, ...) VESK_PRINTF(2, 3);
/* Writes a line to the host's log, if there is one. */
VESK_API void HttpRequest_vlog(HttpRequest_T H, const char* format, va_list ap) VESK_PRINTF(2, 0);
/* The context's servlet context, or NULL. */
VESK_API ServletContext_T HttpRequest_getServletContext(HttpRequest_T H);
/* True when a session id is known and came from a cookie. */
VESK_API int HttpRequest_isRequestedSessionIdFromCookie(HttpRequest_T H);
/* True when a session id is known and came from the URL. */
VESK_API int HttpRequest_isRequestedSessionIdFromURL(HttpRequest_T H);
/* The session, found or, with create, made; NULL without a session manager. */
VESK_API HttpSession_T HttpRequest_getSession(HttpRequest_T H, int create);
/* The authenticated user, or NULL. */
VESK_API Principal_T HttpRequest_getUserPrincipal(HttpRequest_T H);
/* True when the user has the role. */
VESK_API int HttpRequest_isUserInRole(HttpRequest_T H, const char* role);
/* The user's name, or NULL. */
VESK_API const char* HttpRequest_getRemoteUser(HttpRequest_T H);
/* The authentication type, or NULL. */
VESK_API const char* HttpRequest_getAuthType(HttpRequest_T H);
/* "name=value&..." rebuilt from the parameters, decoded; NULL without parameters. */
VESK_API const char* HttpRequest_getQueryString(HttpRequest_T H);
/* "scheme://name" with ":port" unless the port is 80. */
VESK_API const char* HttpRequest_getServerURL(HttpRequest_T H);
/* The server URL and the path, spaces shown as "+". */
VESK_API const char* HttpRequest_getRequestURL(HttpRequest_T H);
/* The file system path of the path info, or NULL. */
VESK_API const char* HttpRequest_getPathTranslated(HttpRequest_T H);
/* A dispatcher for path (with an optional query) in this context, or NULL; NULL also when
   the query would bring the parameters over the connector's cap. */
VESK_API RequestDispatcher_T HttpRequest_getRequestDispatcher(HttpRequest_T H, const char* path);
/* The parts of a multipart or XML body, parsed on first call; a List of Part_T. */
VESK_API List_T HttpRequest_getParts(HttpRequest_T H);
/* The first part named name, ignoring case, or NULL; checks "name". */
VESK_API Part_T HttpRequest_getPart(HttpRequest_T H, const char* name);
/* Parses a form body into parameters and a multipart body into parts; an XML body waits for
   HttpRequest_getParts. 0, or -1 when the request then holds more parameters and fields
   than its connector allows: it is to be answered with 400 and not served. */
VESK_API int HttpRequest_parseStore(HttpRequest_T H);
/* Ends the request: gives back principal and session and removes the body store. */
VESK_API void HttpRequest_end(HttpRequest_T H);

VESK_END_DECLS

#endif
