#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <vesk/Context.h>
#include <vesk/Cookie.h>
#include <vesk/Error.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpLexer.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpSession.h>
#include <vesk/HttpStore.h>
#include <vesk/InetAddress.h>
#include <vesk/List.h>
#include <vesk/Logger.h>
#include <vesk/Map.h>
#include <vesk/Part.h>
#include <vesk/Principal.h>
#include <vesk/RequestDispatcher.h>
#include <vesk/ServletContext.h>
#include <vesk/SessionManager.h>
#include <vesk/Str.h>
#include <vesk/Time.h>
#include <vesk/assert.h>


struct HttpRequest_S {
        char* requestURL;
        char* requestURI;
        int secure;
        int method;
        int serverPort;
        char* authType;
        char* pathInfo;
        char* protocol;
        char* serverURL;
        char* requestedSessionId;
        char* scheme;
        char* serverName;
        char* contextPath;
        char* servletPath;
        char* queryString;
        int contentEncoding;
        int acceptEncoding;
        HttpSession_T session;
        int contentLength;
        Map_T attributes;
        const char* pathTranslated;
        Map_T parameters;
        Map_T headers;
        Map_T cookies;
        Principal_T userPrincipal;
        int requestedSessionURL;
        InetAddress_T inetAddress;
        InputStream_T inputStream;
        HttpConnector_T connector;
        HttpResponse_T response;
        Context_T context;
        SessionManager_T sessionManager;
        Logger_T logger;
        Wrapper_T wrapper;
        ServletConfig_T servletConfig;
        HttpStore_T store;
        int partsParsed;
        List_T parts;
        Arena_T arena;
        // The request a dispatched copy was made from, which holds the counted references.
        HttpRequest_T origin;
};

namespace {

constexpr const char* kMethods[] = {"GET", "POST", "HEAD", "PUT", "DELETE", "TRACE", "OPTIONS"};
constexpr int kPathMax = 4096;

char* copy(HttpRequest_T H, const char* s) {
        return s ? STR_DUP_ARENA(H->arena, s) : nullptr;
}

void getQueryStringLength(const char* key, const char* value, void* cl) {
        *static_cast<long*>(cl) += static_cast<long>(strlen(key) + (value ? strlen(value) : 0) + 2);
}

void buildQueryString(const char* key, const char* value, void* cl) {
        char** p = static_cast<char**>(cl);
        *p = stpcpy(stpcpy(stpcpy(stpcpy(*p, key), "="), value ? value : ""), "&");
}

}  // namespace

HttpRequest_T HttpRequest_new(Arena_T arena) {
        assert(arena);
        HttpRequest_T H = static_cast<HttpRequest_T>(ARENA_CALLOC(arena, 1, sizeof *H));
        H->arena = arena;
        H->parts = List_alloc(arena);
        H->parameters = Map_alloc(arena);
        H->cookies = Map_alloc(arena);
        H->headers = Map_alloc(arena);
        H->attributes = Map_alloc(arena);
        H->contentLength = -1;
        return H;
}

/* ------------------------------------------------------------------ Plain accessors */

InputStream_T HttpRequest_getInputStream(HttpRequest_T H) {
        assert(H);
        return H->inputStream;
}

ServletConfig_T HttpRequest_getServletConfig(HttpRequest_T H) {
        assert(H);
        return H->servletConfig;
}

const char* HttpRequest_getRequestSessionId(HttpRequest_T H) {
        assert(H);
        return H->requestedSessionId;
}

InetAddress_T HttpRequest_getInetAddress(HttpRequest_T H) {
        assert(H);
        return H->inetAddress;
}

int HttpRequest_isSecure(HttpRequest_T H) {
        assert(H);
        return H->secure;
}

const char* HttpRequest_getServerName(HttpRequest_T H) {
        assert(H);
        return H->serverName;
}

int HttpRequest_getContentLength(HttpRequest_T H) {
        assert(H);
        return H->contentLength;
}

const char* HttpRequest_getPathInfo(HttpRequest_T H) {
        assert(H);
        return H->pathInfo;
}

const char* HttpRequest_getProtocol(HttpRequest_T H) {
        assert(H);
        return H->protocol;
}

const char* HttpRequest_getRequestURI(HttpRequest_T H) {
        assert(H);
        return H->requestURI;
}

const char* HttpRequest_getServletPath(HttpRequest_T H) {
        assert(H);
        return H->servletPath;
}

const char* HttpRequest_getContextPath(HttpRequest_T H) {
        assert(H);
        return H->contextPath;
}

int HttpRequest_getAcceptEncoding(HttpRequest_T H) {
        assert(H);
        return H->acceptEncoding;
}

int HttpRequest_getContentEncoding(HttpRequest_T H) {
        assert(H);
        return H->contentEncoding;
}

HttpConnector_T HttpRequest_getConnector(HttpRequest_T H) {
        assert(H);
        return H->connector;
}

int HttpRequest_method(HttpRequest_T H) {
        assert(H);
        return H->method;
}

Arena_T HttpRequest_getArena(HttpRequest_T H) {
        assert(H);
        return H->arena;
}

Wrapper_T HttpRequest_getWrapper(HttpRequest_T H) {
        assert(H);
        return H->wrapper;
}

HttpResponse_T HttpRequest_getResponse(HttpRequest_T H) {
        assert(H);
        return H->response;
}

Context_T HttpRequest_getContext(HttpRequest_T H) {
        assert(H);
        return H->context;
}

Map_T HttpRequest_getCookieMap(HttpRequest_T H) {
        assert(H);
        return H->cookies;
}

Map_T HttpRequest_getAttributeMap(HttpRequest_T H) {
        assert(H);
        return H->attributes;
}

Map_T HttpRequest_getParameterMap(HttpRequest_T H) {
        assert(H);
        return H->parameters;
}

Map_T HttpRequest_getHeaderMap(HttpRequest_T H) {
        assert(H);
        return H->headers;
}

void HttpRequest_setStore(HttpRequest_T H, HttpStore_T store) {
        assert(H);
        H->store = store;
}

void HttpRequest_setAcceptEncoding(HttpRequest_T H, int acceptEncoding) {
        assert(H);
        H->acceptEncoding = acceptEncoding;
}

void HttpRequest_setContentEncoding(HttpRequest_T H, int contentEncoding) {
        assert(H);
        H->contentEncoding = contentEncoding;
}

void HttpRequest_setServletConfig(HttpRequest_T H, ServletConfig_T config) {
        assert(H);
        H->servletConfig = config;
}

void HttpRequest_setConnector(HttpRequest_T H, HttpConnector_T connector) {
        assert(H);
        H->connector = connector;
}

void HttpRequest_setRequestedSessionURL(HttpRequest_T H, int fromURL) {
        assert(H);
        H->requestedSessionURL = fromURL;
}

void HttpRequest_setServerPort(HttpRequest_T H, int port) {
        assert(H);
        H->serverPort = port;
}

void HttpRequest_setInetAddress(HttpRequest_T H, InetAddress_T inet) {
        assert(H);
        H->inetAddress = inet;
}

void HttpRequest_setUserPrincipal(HttpRequest_T H, Principal_T principal) {
        assert(H);
        H->userPrincipal = principal;
        if (H->origin)
                H->origin->userPrincipal = principal;
}

void HttpRequest_setContentLength(HttpRequest_T H, int length) {
        assert(H);
        H->contentLength = length;
}

void HttpRequest_setMethod(HttpRequest_T H, int method) {
        assert(H);
        H->method = method;
}

void HttpRequest_setSecure(HttpRequest_T H, int secure) {
        assert(H);
        H->secure = secure;
}

void HttpRequest_setLogger(HttpRequest_T H, Logger_T logger) {
        assert(H);
        H->logger = logger;
}

void HttpRequest_setWrapper(HttpRequest_T H, Wrapper_T wrapper) {
        assert(H);
        H->wrapper = wrapper;
}

void HttpRequest_setInputStream(HttpRequest_T H, InputStream_T in) {
        assert(H);
        H->inputStream = in;
}

void HttpRequest_setRequestSessionId(HttpRequest_T H, const char* id) {
        assert(H);
        H->requestedSessionId = copy(H, id);
}

void HttpRequest_setServletPath(HttpRequest_T H, const char* path) {
        assert(H);
        H->servletPath = copy(H, path);
}

void HttpRequest_setContextPath(HttpRequest_T H, const char* path) {
        assert(H);
        H->contextPath = copy(H, path);
}

void HttpRequest_setAuthType(HttpRequest_T H, const char* authType) {
        assert(H);
        H->authType = copy(H, authType);
}

void HttpRequest_setScheme(HttpRequest_T H, const char* scheme) {
        assert(H);
        H->scheme = copy(H, scheme);
}

void HttpRequest_setPathInfo(HttpRequest_T H, const char* pathInfo) {
        assert(H);
        H->pathInfo = copy(H, pathInfo);
}

void HttpRequest_setProtocol(HttpRequest_T H, const char* protocol) {
        assert(H);
        H->protocol = copy(H, protocol);
}

void HttpRequest_setRequestURI(HttpRequest_T H, const char* uri) {
        assert(H);
        H->requestURI = copy(H, uri);
}

void HttpRequest_setServerName(HttpRequest_T H, const char* name) {
        assert(H);
        H->serverName = Str_toLower(copy(H, name));
}

void HttpRequest_setResponse(HttpRequest_T H, HttpResponse_T response) {
        assert(H);
        assert(response);
        H->response = response;
}

void HttpRequest_setContext(HttpRequest_T H, Context_T context) {
        assert(H);
        assert(context);
        H->context = context;
        H->sessionManager = Context_getSessionManager(context);
}

/* ------------------------------------------------------------------- The connection */

int HttpRequest_getLocalPort(HttpRequest_T H) {
        assert(H);
        return InetAddress_getLocalHostPort(H->inetAddress);
}

const char* HttpRequest_getLocalAddr(HttpRequest_T H) {
        assert(H);
        return InetAddress_getLocalHostAddress(H->inetAddress);
}

const char* HttpRequest_getLocalName(HttpRequest_T H) {
        assert(H);
        return InetAddress_getLocalHostName(H->inetAddress);
}

const char* HttpRequest_getRemoteHost(HttpRequest_T H) {
        assert(H);
        return InetAddress_getRemoteHostName(H->inetAddress);
}

int HttpRequest_getRemotePort(HttpRequest_T H) {
        assert(H);
        return InetAddress_getRemoteHostPort(H->inetAddress);
}

const char* HttpRequest_getRemoteAddr(HttpRequest_T H) {
        assert(H);
        return InetAddress_getRemoteHostAddress(H->inetAddress);
}

/* ---------------------------------------------------------- Headers and parameters */

const char* HttpRequest_getMethod(HttpRequest_T H) {
        assert(H);
        return H->method >= HttpRequest_GET && H->method <= HttpRequest_OPTIONS
                   ? kMethods[H->method]
                   : "?";
}

const char* HttpRequest_getScheme(HttpRequest_T H) {
        assert(H);
        if (H->scheme)
                return H->scheme;
        return H->connector ? HttpConnector_getScheme(H->connector) : "http";
}

int HttpRequest_getServerPort(HttpRequest_T H) {
        assert(H);
        if (H->serverPort == 0 && H->inetAddress)
                H->serverPort = InetAddress_getLocalHostPort(H->inetAddress);
        return H->serverPort;
}

const char* HttpRequest_getContentType(HttpRequest_T H) {
        assert(H);
        return Map_get(H->headers, "Content-type");
}

const char* HttpRequest_getAuthorization(HttpRequest_T H) {
        assert(H);
        return Map_get(H->headers, "Authorization");
}

const char* HttpRequest_getHeader(HttpRequest_T H, const char* name) {
        assert(H);
        return Map_get(H->headers, name);
}

Cookie_T HttpRequest_getCookie(HttpRequest_T H, const char* name) {
        assert(H);
        return reinterpret_cast<Cookie_T>(const_cast<char*>(Map_get(H->cookies, name)));
}

const char* HttpRequest_getAttribute(HttpRequest_T H, const char* name) {
        assert(H);
        return Map_get(H->attributes, name);
}

const char** HttpRequest_getHeaderNames(HttpRequest_T H) {
        assert(H);
        return Map_keys(H->headers);
}

const char** HttpRequest_getParameterNames(HttpRequest_T H) {
        assert(H);
        return Map_keys(H->parameters);
}

const char** HttpRequest_getAttributeNames(HttpRequest_T H) {
        assert(H);
        return Map_keys(H->attributes);
}

const char** HttpRequest_getHeaderValues(HttpRequest_T H, const char* name) {
        assert(H);
        return Map_gets(H->headers, name);
}

const char** HttpRequest_getAttributeValues(HttpRequest_T H, const char* name) {
        assert(H);
        return Map_gets(H->attributes, name);
}

Cookie_T* HttpRequest_getCookies(HttpRequest_T H) {
        assert(H);
        return reinterpret_cast<Cookie_T*>(const_cast<char**>(Map_values(H->cookies)));
}

const char* HttpRequest_getParameter(HttpRequest_T H, const char* format, ...) {
        assert(H);
        if (!format)
                return nullptr;
        va_list ap;
        va_start(ap, format);
        const char* value = Map_vget(H->parameters, format, ap);
        va_end(ap);
        return value;
}

const char** HttpRequest_getParameterValues(HttpRequest_T H, const char* format, ...) {
        assert(H);
        if (!format)
                return nullptr;
        va_list ap;
        va_start(ap, format);
        const char** values = Map_vgets(H->parameters, format, ap);
        va_end(ap);
        return values;
}

const char* HttpRequest_getParameterDefault(HttpRequest_T H, const char* name,
                                            const char* defaultValue) {
        assert(H);
        const char* value = Map_get(H->parameters, name);
        return STR_DEF(value) ? value : defaultValue;
}

int HttpRequest_getIntParameter(HttpRequest_T H, const char* format, ...) {
        assert(H);
        if (!format)
                return -1;
        va_list ap;
        va_start(ap, format);
        const char* value = Map_vget(H->parameters, format, ap);
        va_end(ap);
        return value ? Str_parseInt(value) : -1;
}

int HttpRequest_getIntHeader(HttpRequest_T H, const char* name) {
        assert(H);
        const char* value = Map_get(H->headers, name);
        return value ? Str_parseInt(value) : -1;
}

time_t HttpRequest_getDateHeader(HttpRequest_T H, const char* name) {
        assert(H);
        const char* value = Map_get(H->headers, name);
        return value ? Time_parse(value) : -1;
}

int HttpRequest_containsHeader(HttpRequest_T H, const char* name) {
        assert(H);
        return Map_has(H->headers, name);
}

int HttpRequest_containsHeaderValue(HttpRequest_T H, const char* name, const char* value) {
        assert(H);
        return Map_hasValue(H->headers, name, value);
}

void HttpRequest_addParameter(HttpRequest_T H, const char* name, const char* value) {
        assert(H);
        if (name)
                Map_put(H->parameters, copy(H, name), copy(H, value));
}

void HttpRequest_addHeader(HttpRequest_T H, const char* name, const char* value) {
        assert(H);
        if (name)
                Map_put(H->headers, copy(H, name), copy(H, value));
}

void HttpRequest_addCookie(HttpRequest_T H, Cookie_T cookie) {
        assert(H);
        assert(cookie);
        Map_put(H->cookies, Cookie_getName(cookie), reinterpret_cast<const char*>(cookie));
}

void HttpRequest_addPart(HttpRequest_T H, Part_T part) {
        assert(H);
        assert(part);
        List_push(H->parts, part);
}

void HttpRequest_setAttribute(HttpRequest_T H, const char* name, const char* format, ...) {
        assert(H);
        if (!name || !format)
                return;
        va_list ap;
        va_start(ap, format);
        char* value = Str_vcat_arena(H->arena, __func__, __FILE__, __LINE__, format, ap);
        va_end(ap);
        Map_put(H->attributes, copy(H, name), value);
}

void HttpRequest_removeAttribute(HttpRequest_T H, const char* name) {
        assert(H);
        Map_remove(H->attributes, name);
}

void HttpRequest_log(HttpRequest_T H, const char* format, ...) {
        assert(H);
        va_list ap;
        va_start(ap, format);
        HttpRequest_vlog(H, format, ap);
        va_end(ap);
}

void HttpRequest_vlog(HttpRequest_T H, const char* format, va_list ap) {
        assert(H);
        if (H->logger && format)
                Logger_vlog(H->logger, format, ap);
}

ServletContext_T HttpRequest_getServletContext(HttpRequest_T H) {
        assert(H);
        return H->context ? Context_getServletContext(H->context) : nullptr;
}

/* ------------------------------------------------------ Session and authentication */

int HttpRequest_isRequestedSessionIdFromCookie(HttpRequest_T H) {
        assert(H);
        return H->requestedSessionId && !H->requestedSessionURL;
}

int HttpRequest_isRequestedSessionIdFromURL(HttpRequest_T H) {
        assert(H);
        return H->requestedSessionId && H->requestedSessionURL;
}

HttpSession_T HttpRequest_getSession(HttpRequest_T H, int create) {
        assert(H);
        if (H->session)
                return H->session;
        if (!H->sessionManager)
                return nullptr;
        // Only the outermost request is ended, so a dispatched copy binds its session
        // there, and the reference is given back once.
        if (H->origin) {
                H->session = HttpRequest_getSession(H->origin, create);
                H->requestedSessionId = H->origin->requestedSessionId;
                return H->session;
        }
        HttpSession_T session = nullptr;
        if (H->requestedSessionId)
                session = SessionManager_findSession(H->sessionManager, H->requestedSessionId);
        if (!session) {
                if (!create)
                        return nullptr;
                session = SessionManager_createSession(H->sessionManager);
                if (!session)
                        return nullptr;
        }
        // The manager has counted this request's reference already. The bound session's
        // id replaces the one the client sent; where it came from (cookie or URL) is left
        // as it was.
        H->requestedSessionId = copy(H, HttpSession_getId(session));
        H->session = session;
        return session;
}

Principal_T HttpRequest_getUserPrincipal(HttpRequest_T H) {
        assert(H);
        if (H->userPrincipal)
                return H->userPrincipal;
        if (H->origin)
                return H->userPrincipal = HttpRequest_getUserPrincipal(H->origin);
        HttpSession_T session = HttpRequest_getSession(H, 0);
        if (session) {
                H->userPrincipal = HttpSession_getPrincipal(session);
                if (H->userPrincipal)
                        Principal_increment(H->userPrincipal);
        }
        return H->userPrincipal;
}

int HttpRequest_isUserInRole(HttpRequest_T H, const char* role) {
        assert(H);
        Principal_T principal = HttpRequest_getUserPrincipal(H);
        return principal ? Principal_hasRole(principal, role) : 0;
}

const char* HttpRequest_getRemoteUser(HttpRequest_T H) {
        assert(H);
        Principal_T principal = HttpRequest_getUserPrincipal(H);
        return principal ? Principal_getName(principal) : nullptr;
}

const char* HttpRequest_getAuthType(HttpRequest_T H) {
        assert(H);
        if (!H->authType) {
                HttpSession_T session = HttpRequest_getSession(H, 0);
                if (session && HttpSession_getPrincipal(session))
                        H->authType = copy(H, HttpSession_getAuthType(session));
        }
        return H->authType;
}

/* ------------------------------------------------------------------- Derived texts */

const char* HttpRequest_getQueryString(HttpRequest_T H) {
        assert(H);
        if (H->queryString)
                return H->queryString;
        if (Map_length(H->parameters) == 0)
                return nullptr;
        long queryStringLength = 0;
        Map_map(H->parameters, getQueryStringLength, &queryStringLength);
        assert(queryStringLength > 0);
        char* q =
            static_cast<char*>(ARENA_ALLOC(H->arena, static_cast<int>(queryStringLength + 1)));
        char* p = q;
        Map_map(H->parameters, buildQueryString, &p);
        p[-1] = 0;
        H->queryString = q;
        return q;
}

const char* HttpRequest_getServerURL(HttpRequest_T H) {
        assert(H);
        if (!H->serverURL) {
                int port = HttpRequest_getServerPort(H);
                char suffix[16] = "";
                // 80 is left out, and so is a port nobody could tell.
                if (port > 0 && port != 80)
                        snprintf(suffix, sizeof suffix, ":%d", port);
                const char* name = H->serverName;
                if (!name)
                        name =
                            H->inetAddress ? InetAddress_getLocalHostAddress(H->inetAddress) : "";
                H->serverURL =
                    STR_CAT_ARENA(H->arena, "%s://%s%s", HttpRequest_getScheme(H), name, suffix);
        }
        return H->serverURL;
}

const char* HttpRequest_getRequestURL(HttpRequest_T H) {
        assert(H);
        if (!H->requestURL) {
                H->requestURL = STR_CAT_ARENA(H->arena, "%s%s", HttpRequest_getServerURL(H),
                                              H->requestURI ? H->requestURI : "");
                Str_replaceChar(H->requestURL + strlen(H->serverURL), ' ', '+');
        }
        return H->requestURL;
}

const char* HttpRequest_getPathTranslated(HttpRequest_T H) {
        assert(H);
        ServletContext_T context = HttpRequest_getServletContext(H);
        if (!H->pathTranslated && STR_DEF(H->pathInfo) && context)
                H->pathTranslated = copy(H, ServletContext_getRealPath(context, H->pathInfo));
        return H->pathTranslated;
}

RequestDispatcher_T HttpRequest_getRequestDispatcher(HttpRequest_T H, const char* path) {
        assert(H);
        if (!path || *path != '/')
                return nullptr;
        const char* query = strchr(path, '?');
        size_t length = strlen(path);
        if ((query && query - path > kPathMax - 1) || length >= kPathMax) {
                Error_debug("HttpRequest_getRequestDispatcher: path length exceeds PATH_MAX\n");
                return nullptr;
        }
        const char* contextPath = H->contextPath ? H->contextPath : "";
        char* target = strncmp(path, contextPath, strlen(contextPath)) == 0
                           ? copy(H, path)
                           : STR_CAT_ARENA(H->arena, "%s%s", contextPath, path);
        HttpRequest_T second = static_cast<HttpRequest_T>(ARENA_ALLOC(H->arena, sizeof *second));
        *second = *H;
        second->origin = H->origin ? H->origin : H;
        // The maps are shared, so both requests must rebuild what they derive from them.
        H->queryString = second->queryString = nullptr;
        second->requestURL = nullptr;
        second->pathTranslated = nullptr;
        char* mark = strchr(target, '?');
        if (mark) {
                *mark++ = 0;
                if (HttpLexer_parseUrlencoded(second, mark, static_cast<int>(strlen(mark))) < 0) {
                        Error_debug(
                            "HttpRequest_getRequestDispatcher: too many parameters in '%s'\n",
                            path);
                        return nullptr;
                }
        }
        second->requestURI = target;
        if (!H->context || !Context_dispatch(H->context, second))
                return nullptr;
        return RequestDispatcher_new(H, second);
}

/* ---------------------------------------------------------------------- The body */

List_T HttpRequest_getParts(HttpRequest_T H) {
        assert(H);
        if (H->store && !H->partsParsed) {
                HttpStore_parse(H->store, H);
                H->partsParsed = 1;
        }
        return H->parts;
}

Part_T HttpRequest_getPart(HttpRequest_T H, const char* name) {
        assert(H);
        assert(name);
        for (list_t p = HttpRequest_getParts(H)->head; p; p = p->next) {
                Part_T part = static_cast<Part_T>(p->e);
                if (Str_isEqual(Part_getName(part), name))
                        return part;
        }
        return nullptr;
}

int HttpRequest_parseStore(HttpRequest_T H) {
        assert(H);
        if (!H->store)
                return 0;
        switch (HttpStore_getContentType(H->store)) {
        case 0:
                return HttpStore_parse(H->store, H);
        case 1:
                // Multipart fields count against the parameter cap, so they are parsed before
                // the servlet runs, like a form.
                H->partsParsed = 1;
                return HttpStore_parse(H->store, H);
        default:
                return 0;
        }
}

void HttpRequest_end(HttpRequest_T H) {
        assert(H);
        if (H->userPrincipal)
                Principal_decrement(H->userPrincipal);
        if (H->session)
                HttpSession_decrement(H->session);
        if (H->store)
                HttpStore_remove(H->store);
        H->userPrincipal = nullptr;
        H->session = nullptr;
        H->store = nullptr;
}
