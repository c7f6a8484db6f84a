#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <vesk/Arena.h>
#include <vesk/Authenticator.h>
#include <vesk/Container.h>
#include <vesk/Context.h>
#include <vesk/CrashGuard.h>
#include <vesk/DefaultServlet.h>
#include <vesk/Error.h>
#include <vesk/File.h>
#include <vesk/Host.h>
#include <vesk/Loader.h>
#include <vesk/Metrics.h>
#include <vesk/Mem.h>
#include <vesk/ServerPageServlet.h>
#include <vesk/ServletContext.h>
#include <vesk/SessionManager.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/URL.h>
#include <vesk/assert.h>
#include "kernel/Context.hpp"
#include "servlets/DefaultServlet.hpp"

struct Context_S {
        Table_T servletMapping;
        char* docBase;
        Host_T host;
        int reloadable;
        Loader_T loader;
        char* contextPath;
        Table_T errorPages;
        int sessionTimeout;
        int contextPathLength;
        int saveSessions;
        SessionManager_T sessionManager;
        LoginConfig_T loginConfig;
        List_T securityConstraints;
        List_T securityConstraintsWithCSRFProtection;
        ServletContext_T servletContext;
        Wrapper_T defaultServlet;
        Arena_T arena;
};

namespace {

// A copy in the Context's arena without trailing separators; "/" becomes "".
char* copyPath(Context_T C, const char* path) {
        char* s = STR_DUP_ARENA(C->arena, path);
        size_t n = strlen(s);
        while (n > 0 && s[n - 1] == SEPARATOR_CHAR)
                s[--n] = 0;
        return s;
}

constexpr char kPrivate[] = "WEB-INF";
constexpr size_t kPrivateLength = sizeof kPrivate - 1;

// The servlet mapped to pattern, or NULL; `found` tells whether the pattern is mapped.
Wrapper_T servletFor(Context_T C, const char* pattern, bool& found) {
        const char* name = static_cast<const char*>(Table_get(C->servletMapping, pattern));
        found = name != nullptr;
        return name ? Loader_lookup(C->loader, name) : nullptr;
}

// Calls the service method of wrapper for the request's method.
int service(Wrapper_T wrapper, HttpRequest_T req, HttpResponse_T res) {
        switch (HttpRequest_method(req)) {
        case HttpRequest_GET:
                return Wrapper_doGet(wrapper, req, res);
        case HttpRequest_POST:
                return Wrapper_doPost(wrapper, req, res);
        case HttpRequest_HEAD:
                return Wrapper_doHead(wrapper, req, res);
        case HttpRequest_PUT:
                return Wrapper_doPut(wrapper, req, res);
        case HttpRequest_DELETE:
                return Wrapper_doDelete(wrapper, req, res);
        case HttpRequest_TRACE:
                return Wrapper_doTrace(wrapper, req, res);
        case HttpRequest_OPTIONS:
                return Wrapper_doOptions(wrapper, req, res);
        default:
                return 0;
        }
}

// Names a servlet module and its request to the crash handler for as long as the module
// runs, exceptions included.
struct Armed {
        Armed(Wrapper_T wrapper, HttpRequest_T req) { CrashGuard_enter(wrapper, req); }
        ~Armed() { CrashGuard_leave(); }
        Armed(const Armed&) = delete;
        Armed& operator=(const Armed&) = delete;
};

Wrapper_T cannotLoad(Context_T C, const char* path) {
        Error_debug("Warning: [Context %s] Cannot load servlet for URL '%s'\n",
                    C->contextPath ? C->contextPath : "", path);
        return nullptr;
}

// Maps path, the URI behind the context path: exact, longest prefix, extension, default.
// A pattern found whose servlet cannot be had ends the search.
Wrapper_T applyMap(Context_T C, HttpRequest_T req, const char* path) {
        // No servlet, built-in or the application's own, is ever handed such a path.
        if (Context_isPrivatePath(path)) {
                Error_debug("[Context %s] Refused the private URL '%s'\n",
                            C->contextPath ? C->contextPath : "", path);
                return nullptr;
        }
        bool found = false;
        Wrapper_T w = nullptr;
        if (path[0] && path[1]) {
                // Exact match.
                w = servletFor(C, path, found);
                if (found) {
                        if (!w)
                                return cannotLoad(C, path);
                        HttpRequest_setPathInfo(req, nullptr);
                        HttpRequest_setServletPath(req, path);
                        return w;
                }
                // Longest prefix match; positions 0 and 1 are never tried.
                char buf[PATH_MAX + 1];
                size_t i = strlen(path);
                assert(i <= PATH_MAX);
                memcpy(buf, path, i + 1);
                for (;;) {
                        if (i + 2 > PATH_MAX)
                                i = PATH_MAX - 2;
                        buf[i] = '/';
                        buf[i + 1] = '*';
                        buf[i + 2] = 0;
                        w = servletFor(C, buf, found);
                        if (found) {
                                if (!w)
                                        return cannotLoad(C, path);
                                buf[i] = 0;
                                HttpRequest_setPathInfo(req, path + i);
                                HttpRequest_setServletPath(req, buf);
                                return w;
                        }
                        do
                                i--;
                        while (i > 1 && buf[i] != '/');
                        if (i <= 1)
                                break;
                }
                // Extension match on the first '.' of the path.
                const char* dot = strchr(path + 1, '.');
                if (dot && dot[-1] != '/') {
                        const char* end = strchr(dot, '/');
                        size_t n = end ? static_cast<size_t>(end - dot) : strlen(dot);
                        if (n + 1 <= PATH_MAX) {
                                buf[0] = '*';
                                memcpy(buf + 1, dot, n);
                                buf[n + 1] = 0;
                                w = servletFor(C, buf, found);
                                if (found) {
                                        if (!w)
                                                return cannotLoad(C, path);
                                        HttpRequest_setPathInfo(req, end);
                                        size_t k =
                                            end ? static_cast<size_t>(end - path) : strlen(path);
                                        memcpy(buf, path, k);
                                        buf[k] = 0;
                                        HttpRequest_setServletPath(req, buf);
                                        return w;
                                }
                        }
                }
        }
        // Default.
        w = servletFor(C, "/", found);
        if (w) {
                HttpRequest_setPathInfo(req, nullptr);
                HttpRequest_setServletPath(req, path);
                return w;
        }
        return cannotLoad(C, path);
}

// Maps the URI below the context path, which always begins with "/": the context path
// itself maps as "/", and a URI outside it (the asterisk of OPTIONS, or a dispatch target
// that merely begins with the same letters) is taken as relative to the application.
Wrapper_T mapURI(Context_T C, HttpRequest_T req) {
        const char* uri = HttpRequest_getRequestURI(req);
        if (!uri)
                uri = "";
        size_t n = static_cast<size_t>(C->contextPathLength);
        const char* path = uri;
        if (n > 0 && strncmp(uri, C->contextPath, n) == 0 && (uri[n] == '/' || uri[n] == 0))
                path = uri + n;
        if (*path == '/')
                return applyMap(C, req, path);
        if (!*path)
                return applyMap(C, req, "/");
        char rooted[PATH_MAX + 1];
        if (snprintf(rooted, sizeof rooted, "/%s", path) >= static_cast<int>(sizeof rooted))
                return cannotLoad(C, path);
        return applyMap(C, req, rooted);
}

}  // namespace

Context_T Context_new(void) {
        Context_T C;
        NEW0(C);
        C->sessionManager = nullptr;
        C->sessionTimeout = -1;
        C->arena = Arena_new();
        C->loader = Loader_new(C->arena);
        Loader_setContext(C->loader, C);
        C->securityConstraints = List_alloc(C->arena);
        C->securityConstraintsWithCSRFProtection = List_alloc(C->arena);
        C->servletContext = ServletContext_new(C->arena);
        ServletContext_setContext(C->servletContext, C);
        C->servletMapping = Table_alloc(C->arena, 5, Str_cmp, Str_hash);
        C->contextPath = STR_DUP_ARENA(C->arena, "");
        C->errorPages = Table_alloc(C->arena, 2, Str_cmp, Str_hash);
        C->defaultServlet = Context_createServlet(C, "DefaultServlet", "/");
        CreateDefaultServlet(C->defaultServlet);
        CreateServerPageServlet(Context_createServlet(C, "ServerPageServlet", "*.csp"));
        return C;
}

void Context_free(Context_T* C) {
        assert(C && *C);
        Loader_free(&(*C)->loader);
        if ((*C)->sessionManager)
                SessionManager_free(&(*C)->sessionManager);
        ServletContext_free(&(*C)->servletContext);
        Arena_dispose(&(*C)->arena);
        FREE(*C);
}

void Context_start(Context_T C) {
        assert(C);
        Error_debug("Context '%s' for Host '%s' started\n", C->contextPath ? C->contextPath : "",
                    C->host ? Host_getName(C->host) : "?");
        Loader_start(C->loader);
        ServletContext_parseConf(C->servletContext);
        if (C->sessionManager) {
                if (C->sessionTimeout > 0)
                        SessionManager_setMaxInactiveInterval(C->sessionManager, C->sessionTimeout);
                SessionManager_saveSessions(C->sessionManager, C->saveSessions);
                SessionManager_start(C->sessionManager);
        }
}

void Context_stop(Context_T C) {
        assert(C);
        if (C->sessionManager)
                SessionManager_stop(C->sessionManager);
        Loader_stop(C->loader);
        Error_debug("Context '%s' for Host '%s' stopped\n", C->contextPath ? C->contextPath : "",
                    C->host ? Host_getName(C->host) : "?");
}

int Context_invoke(Context_T C, HttpRequest_T req, HttpResponse_T res) {
        assert(C);
        assert(req);
        assert(res);
        if (Metrics_isEndpoint(req)) {
                Metrics_serve(req, res);
                return 0;
        }
        Wrapper_T wrapper = Context_map(C, req, res);
        int answered = Authenticator_invoke(req, res);
        if (answered)
                return answered;
        if (!wrapper) {
                HttpResponse_sendError(res, 404, "The requested URL was not found on this server");
                return 0;
        }
        HttpRequest_setServletConfig(req, Wrapper_getServletConfig(wrapper));
        if (Wrapper_isVirtual(wrapper))
                return service(wrapper, req, res);
        if (CrashGuard_isDisabled(wrapper)) {
                HttpResponse_setHeader(res, "Retry-After", "%d", CrashGuard_RetryAfter);
                HttpResponse_sendError(res, 503, "The service is disabled after repeated crashes");
                return 0;
        }
        Armed armed(wrapper, req);
        return service(wrapper, req, res);
}

int Context_invokeCached(Context_T C, HttpRequest_T req, HttpResponse_T res) {
        assert(C);
        assert(req);
        assert(res);
        int method = HttpRequest_method(req);
        if (method != HttpRequest_GET && method != HttpRequest_HEAD)
                return 0;
        // Whatever the authenticator or a session would do may wait on a database, a
        // directory server or a lock: a context with constraints, and a request that names a
        // session, take the usual way. Without them Authenticator_invoke answers nothing.
        if (List_length(C->securityConstraints) > 0 || Context_containsCSRFProtection(C) ||
            (C->sessionManager && HttpRequest_getRequestSessionId(req)))
                return 0;
        // A private path is refused, and logged, by the usual way only.
        if (Metrics_isEndpoint(req) || Context_isPrivatePath(HttpRequest_getRequestURI(req)))
                return 0;
        Wrapper_T wrapper = Context_map(C, req, res);
        if (!wrapper || wrapper != C->defaultServlet)
                return 0;
        HttpRequest_setServletConfig(req, Wrapper_getServletConfig(wrapper));
        return DefaultServlet_serveCached(req, res);
}

Wrapper_T Context_map(Context_T C, HttpRequest_T req, HttpResponse_T res) {
        assert(C);
        assert(req);
        HttpRequest_setContextPath(req, C->contextPath ? C->contextPath : "");
        HttpRequest_setLogger(req, Host_getLogger(C->host));
        if (C->sessionManager && res && !HttpResponse_isProcessingInclude(res) &&
            !HttpResponse_isProcessingForward(res)) {
                // Only the outermost pass through a Context counts as an access.
                HttpSession_T session = HttpRequest_getSession(req, 0);
                if (session && HttpSession_isValid(session))
                        HttpSession_access(session);
        }
        return mapURI(C, req);
}

Wrapper_T Context_dispatch(Context_T C, HttpRequest_T req) {
        assert(C);
        assert(req);
        return mapURI(C, req);
}

Wrapper_T Context_createServlet(Context_T C, const char* name, const char* pattern) {
        assert(C);
        assert(name);
        assert(pattern);
        bool valid = *name;
        for (const char* p = name; *p && valid; p++)
                valid = *p != '.' && *p != '/' && !URL_isunsafe(static_cast<unsigned char>(*p));
        if (!valid)
                THROW(AssertException, "Servlet name '%s' contains invalid characters", name);
        Wrapper_T servlet = Loader_createServlet(C->loader, name);
        Wrapper_setContext(servlet, C);
        Context_addServletMapping(C, pattern, name);
        return servlet;
}

int Context_addServletMapping(Context_T C, const char* pattern, const char* name) {
        assert(C);
        assert(name);
        assert(pattern);
        if (!Loader_lookup(C->loader, name))
                return false;
        bool valid =
            (pattern[0] == '*' && pattern[1] == '.' && !strchr(pattern, '/')) || pattern[0] == '/';
        if (!valid)
                THROW(AssertException, "Invalid URL pattern '%s'\n", pattern);
        Table_put(C->servletMapping, STR_DUP_ARENA(C->arena, pattern),
                  STR_DUP_ARENA(C->arena, name));
        return true;
}

void Context_createDefaultMapping(Context_T C, const char* name) {
        assert(C);
        assert(name);
        char pattern[256];
        snprintf(pattern, sizeof pattern, "/%s", name);
        Context_addServletMapping(C, pattern, name);
}

void Context_addSecurityConstraint(Context_T C, SecurityConstraint_T constraint) {
        assert(C);
        assert(constraint);
        List_push(C->securityConstraints, constraint);
        if (SecurityConstraint_containsCSRFProtection(constraint))
                List_push(C->securityConstraintsWithCSRFProtection, constraint);
}

List_T Context_getSecurityConstraints(Context_T C) {
        assert(C);
        return C->securityConstraints;
}

List_T Context_getSecurityConstraintsWithCSRFProtection(Context_T C) {
        assert(C);
        return C->securityConstraintsWithCSRFProtection;
}

int Context_containsCSRFProtection(Context_T C) {
        assert(C);
        return List_length(C->securityConstraintsWithCSRFProtection) > 0;
}

void Context_setLoginConfig(Context_T C, LoginConfig_T config) {
        assert(C);
        C->loginConfig = config;
}

LoginConfig_T Context_getLoginConfig(Context_T C) {
        assert(C);
        return C->loginConfig;
}

void Context_setErrorPage(Context_T C, int code, const char* errorPage) {
        assert(C);
        assert(errorPage);
        char key[4];
        snprintf(key, sizeof key, "%d", code);
        Table_put(C->errorPages, STR_DUP_ARENA(C->arena, key), STR_DUP_ARENA(C->arena, errorPage));
}

const char* Context_getErrorPage(Context_T C, int code) {
        assert(C);
        char key[4];
        snprintf(key, sizeof key, "%d", code);
        return static_cast<const char*>(Table_get(C->errorPages, key));
}

void Context_activateSessionManager(Context_T C) {
        assert(C);
        if (!C->sessionManager)
                C->sessionManager = SessionManager_new(C->arena, C);
}

SessionManager_T Context_getSessionManager(Context_T C) {
        assert(C);
        return C->sessionManager;
}

void Context_setSessionTimeout(Context_T C, int timeout) {
        assert(C);
        C->sessionTimeout = timeout;
}

int Context_getSessionTimeout(Context_T C) {
        assert(C);
        return C->sessionTimeout;
}

void Context_setSaveSessions(Context_T C, int saveSessions) {
        assert(C);
        C->saveSessions = saveSessions;
}

int Context_getSaveSessions(Context_T C) {
        assert(C);
        return C->saveSessions;
}

int Context_getActiveSessions(Context_T C) {
        assert(C);
        return C->sessionManager ? SessionManager_getActiveSessions(C->sessionManager) : 0;
}

int Context_getMaxActiveSessions(Context_T C) {
        assert(C);
        return C->sessionManager ? SessionManager_getMaxActiveSessions(C->sessionManager) : 0;
}

void Context_log(Context_T C, const char* m, ...) {
        assert(C);
        assert(m);
        va_list ap;
        va_start(ap, m);
        Context_vlog(C, m, ap);
        va_end(ap);
}

void Context_vlog(Context_T C, const char* m, va_list ap) {
        assert(C);
        assert(m);
        Logger_T logger = Host_getLogger(C->host);
        if (logger)
                Logger_vlog(logger, m, ap);
}

void Context_setDocBase(Context_T C, const char* docBase) {
        assert(C);
        assert(docBase);
        C->docBase = copyPath(C, docBase);
}

const char* Context_getDocBase(Context_T C) {
        assert(C);
        return C->docBase;
}

void Context_setContextPath(Context_T C, const char* path) {
        assert(C);
        assert(path);
        assert((path[0] == '\0') || (path[0] == '/'));
        // Request URIs arrive with repeated separators and dot segments resolved, so the
        // context path is held the same way, and its length is that of the text held.
        char* s = URL_normalize(STR_DUP_ARENA(C->arena, path));
        size_t n = strlen(s);
        while (n > 0 && s[n - 1] == SEPARATOR_CHAR)
                s[--n] = 0;
        C->contextPath = s;
        C->contextPathLength = static_cast<int>(n);
}

const char* Context_getContextPath(Context_T C) {
        assert(C);
        return C->contextPath;
}

void Context_setHost(Context_T C, Host_T host) {
        assert(C);
        C->host = host;
}

Host_T Context_getHost(Context_T C) {
        assert(C);
        return C->host;
}

void Context_setReloadable(Context_T C, int reloadable) {
        assert(C);
        C->reloadable = reloadable;
}

int Context_getReloadable(Context_T C) {
        assert(C);
        return C->reloadable;
}

Loader_T Context_getLoader(Context_T C) {
        assert(C);
        return C->loader;
}

ServletContext_T Context_getServletContext(Context_T C) {
        assert(C);
        return C->servletContext;
}

int Context_isPrivatePath(const char* path) {
        if (!path)
                return false;
        char normal[PATH_MAX + 1];
        size_t n = strlen(path);
        // Too long to be resolved here is too long to be trusted.
        if (n > PATH_MAX)
                return true;
        memcpy(normal, path, n + 1);
        URL_normalize(normal);
        for (const char* segment = normal; *segment;) {
                while (*segment == '/')
                        segment++;
                size_t length = strcspn(segment, "/");
                if (length == kPrivateLength && strncasecmp(segment, kPrivate, length) == 0)
                        return true;
                segment += length;
        }
        return false;
}
