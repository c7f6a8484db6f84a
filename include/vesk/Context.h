/*
 * Context: one web application, a directory (docBase) served below a context path.
 *
 * It maps the rest of a request URI to a servlet: exact pattern, then the longest
 * path prefix ending in "/ *", then "*.extension", then the default "/", and runs the request
 * pipeline in Context_invoke: session touch, authentication, the servlet's entry for
 * the method. Every Context is born with the built-in servlets "DefaultServlet" on "/"
 * and "ServerPageServlet" on "*.csp". A Context owns its Loader, ServletContext,
 * session manager and everything built from its descriptor, all in its arena.
 * Mapping tables are written at start-up (and by Loader_load); requests read them
 * from many threads. Operations check "C" unless said otherwise.
 */
#ifndef VESK_CONTEXT_INCLUDED
#define VESK_CONTEXT_INCLUDED

#include <stdarg.h>

#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/List.h>
#include <vesk/LoginConfig.h>
#include <vesk/SecurityConstraint.h>

VESK_BEGIN_DECLS

typedef struct Context_S* Context_T;
typedef struct Host_S* Host_T;
typedef struct Loader_S* Loader_T;

/* A new Context with the built-in servlets mapped and no session manager. */
VESK_API Context_T Context_new(void);
/* Frees the Loader, session manager, ServletContext, arena and object; clears *C.
   Checks "C && *C". */
VESK_API void Context_free(Context_T* C);
/* Loads the modules and runs their init, reads WEB-INF/web.xml, then starts sessions.
   A bad web.xml raises. */
VESK_API void Context_start(Context_T C);
/* Stops sessions, then destroys and unloads every servlet. */
VESK_API void Context_stop(Context_T C);

/* Maps, authenticates and calls the servlet's entry for the request's method; a URL
   no servlet takes gets 404. Returns the servlet's (or authenticator's) result.
   Checks "C", "req" and "res". */
VESK_API int Context_invoke(Context_T C, HttpRequest_T req, HttpResponse_T res);
/* Sets context path and logger on req, touches its session (outside include and
   forward) and maps its URI; the Wrapper, or NULL. */
VESK_API Wrapper_T Context_map(Context_T C, HttpRequest_T req, HttpResponse_T res);
/* Maps req's URI and sets servlet path and path info, nothing else; the Wrapper or NULL.
   Both mappings see the URI below the context path, which always begins with "/", and
   map a private path (Context_isPrivatePath) to nothing. */
VESK_API Wrapper_T Context_dispatch(Context_T C, HttpRequest_T req);
/* True if path, taken below an application's directory, leads into a directory named
   WEB-INF in any letter case, once repeated separators and dot segments are resolved.
   Nothing there is ever served. NULL is not private; needs no Context. */
VESK_API int Context_isPrivatePath(const char* path);

/* Makes a built-in servlet with no entry points, maps pattern to it and returns it.
   Raises "Servlet name '%s' contains invalid characters" for an empty name or one
   with '.', '/' or characters unsafe in a URL. */
VESK_API Wrapper_T Context_createServlet(Context_T C, const char* name, const char* pattern);
/* Maps pattern to the servlet name, replacing an earlier mapping of pattern; false if
   no such servlet. Raises "Invalid URL pattern '%s'\n" unless pattern starts with '/'
   or is "*.ext" without '/'. */
VESK_API int Context_addServletMapping(Context_T C, const char* pattern, const char* name);
/* Maps "/name" to the servlet name. */
VESK_API void Context_createDefaultMapping(Context_T C, const char* name);

/* Adds a constraint (newest first), also to the CSRF list if it protects any path. */
VESK_API void Context_addSecurityConstraint(Context_T C, SecurityConstraint_T constraint);
/* The constraints, a List of SecurityConstraint_T, last declared first. */
VESK_API List_T Context_getSecurityConstraints(Context_T C);
/* The constraints with CSRF-protected paths. */
VESK_API List_T Context_getSecurityConstraintsWithCSRFProtection(Context_T C);
/* True if any constraint protects paths against CSRF. */
VESK_API int Context_containsCSRFProtection(Context_T C);
/* The login configuration, or NULL. */
VESK_API void Context_setLoginConfig(Context_T C, LoginConfig_T config);
VESK_API LoginConfig_T Context_getLoginConfig(Context_T C);
/* The page for a status code (only its first three digits count), copied. */
VESK_API void Context_setErrorPage(Context_T C, int code, const char* errorPage);
/* The error page for code, or NULL. */
VESK_API const char* Context_getErrorPage(Context_T C, int code);

/* Creates the session manager once; later calls do nothing. */
VESK_API void Context_activateSessionManager(Context_T C);
/* The session manager, or NULL: such a Context has no sessions. */
VESK_API SessionManager_T Context_getSessionManager(Context_T C);
/* Session timeout in seconds, -1 until configured. */
VESK_API void Context_setSessionTimeout(Context_T C, int timeout);
VESK_API int Context_getSessionTimeout(Context_T C);
/* Whether sessions are saved when the Context stops. */
VESK_API void Context_setSaveSessions(Context_T C, int saveSessions);
VESK_API int Context_getSaveSessions(Context_T C);
/* Sessions now active, 0 without a session manager. */
VESK_API int Context_getActiveSessions(Context_T C);
/* Most sessions allowed, 0 without a session manager. */
VESK_API int Context_getMaxActiveSessions(Context_T C);

/* Writes to the host's application log, if there is one; checks "C" and "m". */
VESK_API void Context_log(Context_T C, const char* m, ...) VESK_PRINTF(2, 3);
VESK_API void Context_vlog(Context_T C, const char* m, va_list ap) VESK_PRINTF(2, 0);

/* The application directory, copied without trailing separators. */
VESK_API void Context_setDocBase(Context_T C, const char* docBase);
/* The application directory, or NULL. */
VESK_API const char* Context_getDocBase(Context_T C);
/* "" or a path starting with '/', held with repeated separators and dot segments
   resolved and without trailing separators, so that "/app/", "/app//" and "/app" are
   one path and "/" is ""; checks "(path[0] == '\\0') || (path[0] == '/')". */
VESK_API void Context_setContextPath(Context_T C, const char* path);
/* The context path, or NULL before it is set. */
VESK_API const char* Context_getContextPath(Context_T C);
/* The Host; set by Host_addContext. */
VESK_API void Context_setHost(Context_T C, Host_T host);
VESK_API Host_T Context_getHost(Context_T C);
/* Whether changed modules are reloaded on the next request. */
VESK_API void Context_setReloadable(Context_T C, int reloadable);
VESK_API int Context_getReloadable(Context_T C);
/* The Loader. */
VESK_API Loader_T Context_getLoader(Context_T C);
/* The ServletContext. */
VESK_API ServletContext_T Context_getServletContext(Context_T C);

VESK_END_DECLS

#endif
