#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <array>
#include <string_view>

#include <vesk/Chain.h>
#include <vesk/Container.h>
#include <vesk/Context.h>
#include <vesk/Cookie.h>
#include <vesk/File.h>
#include <vesk/FileCache.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/HttpSession.h>
#include <vesk/Map.h>
#include <vesk/OutputStream.h>
#include <vesk/ServerPage.h>
#include <vesk/ServletContext.h>
#include <vesk/Str.h>
#include <vesk/Time.h>
#include <vesk/URL.h>
#include <vesk/assert.h>


struct HttpResponse_S {
        int status;
        int keepAlive;
        char* protocol;
        int commited;
        Map_T headers;
        FileMap_T fileMap;
        Context_T context;
        Map_T serverPages;
        int contentLengthSet;
        HttpRequest_T request;
        int processingForward;
        int processingInclude;
        HttpConnector_T connector;
        Chain_T headerChain;
        OutputStream_T outputStream;
        Arena_T arena;
};

namespace {

constexpr int kBufferSize = 8192;

struct Reason {
        int code;
        const char* phrase;
};

constexpr Reason kReasons[] = {{100, "Continue"},
                               {101, "Switching Protocols"},
                               {200, "OK"},
                               {201, "Created"},
                               {202, "Accepted"},
                               {203, "Non-Authoritative Information"},
                               {204, "No Content"},
                               {205, "Reset Content"},
                               {206, "Partial Content"},
                               {300, "Multiple Choices"},
                               {301, "Moved Permanently"},
                               {302, "Moved Temporarily"},
                               {303, "See Other"},
                               {304, "Not Modified"},
                               {305, "Use Proxy"},
                               {307, "Temporary Redirect"},
                               {400, "Bad Request"},
                               {401, "Unauthorized"},
                               {402, "Payment Required"},
                               {403, "Forbidden"},
                               {404, "Not Found"},
                               {405, "Method Not Allowed"},
                               {406, "Not Acceptable"},
                               {407, "Proxy Authentication Required"},
                               {408, "Request Timeout"},
                               {409, "Conflict"},
                               {410, "Gone"},
                               {411, "Length Required"},
                               {412, "Precondition Failed"},
                               {413, "Request Entity too large"},
                               {414, "Request URI too large"},
                               {415, "Unsupported media type"},
                               {416, "Range not satisfiable"},
                               {417, "Expectation failed"},
                               {500, "Internal Server error"},
                               {501, "Not implemented"},
                               {502, "Bad Gateway"},
                               {503, "Service unavailable"},
                               {504, "Gateway Timeout"},
                               {505, "Version not supported"}};

// Header setters, reset, redirect and error pages leave a written head alone, and an
// included servlet may not touch the head at all.
bool locked(HttpResponse_T H) {
        return H->commited || H->processingInclude;
}

bool answersHead(HttpResponse_T H) {
        return H->request && HttpRequest_method(H->request) == HttpRequest_HEAD;
}

// A HEAD is answered with the head alone: the stream measures the body and drops it.
void bindHead(HttpResponse_T H) {
        if (H->outputStream && answersHead(H))
                OutputStream_setDiscard(H->outputStream, 1);
}

constexpr std::array<bool, 256> makeTokenTable() {
        std::array<bool, 256> t{};
        for (int c = '0'; c <= '9'; c++)
                t[c] = true;
        for (int c = 'A'; c <= 'Z'; c++)
                t[c] = t[c + 32] = true;
        for (unsigned char c : std::string_view("!#$%&'*+-.^_`|~"))
                t[c] = true;
        return t;
}
constexpr std::array<bool, 256> kToken = makeTokenTable();

// A header name is a token: any other byte could end the name early or start a new line.
bool isToken(const char* s) {
        if (!*s)
                return false;
        for (; *s; s++)
                if (!kToken[static_cast<unsigned char>(*s)])
                        return false;
        return true;
}

// A value may hold any byte but the controls other than tab: a CR or LF would end the
// header and let whoever chose the value write the rest of the head.
bool isFieldValue(const char* s) {
        for (; *s; s++) {
                auto c = static_cast<unsigned char>(*s);
                if ((c < 0x20 && c != '\t') || c == 0x7F)
                        return false;
        }
        return true;
}

// Refuses, at the servlet's own call, a header that would not stay one line on the wire.
void checkHeader(const char* key, const char* value) {
        if (!isToken(key))
                THROW(AssertException, "Invalid header name '%s'", key);
        if (value && !isFieldValue(value))
                THROW(AssertException, "Invalid value of header '%s'", key);
}

// Whether encodeURI writes c as %XX. A path decoded from the request has every such byte
// encoded, its '%' and '?' too. A target is taken as already encoded, with its query,
// fragment and address literal: only what no URI can hold is encoded there.
bool needsEncoding(unsigned char c, bool decoded) {
        if (decoded)
                return URL_isunsafe(c) || c == '?';
        return URL_isunsafe(c) && !strchr("%#[]", c);
}

char* encodeURI(Arena_T arena, const char* s, bool decoded) {
        static constexpr char kHex[] = "0123456789ABCDEF";
        size_t n = 0;
        for (const char* p = s; *p; p++)
                n += needsEncoding(static_cast<unsigned char>(*p), decoded) ? 3 : 1;
        char* encoded = static_cast<char*>(ARENA_ALLOC(arena, static_cast<int>(n + 1)));
        char* w = encoded;
        for (const char* p = s; *p; p++) {
                auto c = static_cast<unsigned char>(*p);
                if (needsEncoding(c, decoded)) {
                        *w++ = '%';
                        *w++ = kHex[c >> 4];
                        *w++ = kHex[c & 0x0f];
                } else {
                        *w++ = *p;
                }
        }
        *w = 0;
        return encoded;
}

char* format(HttpResponse_T H, const char* fmt, va_list ap) {
        return fmt ? Str_vcat_arena(H->arena, __func__, __FILE__, __LINE__, fmt, ap) : nullptr;
}

// Stores a header unless the head is locked; a malformed one raises even then, so that a
// faulty servlet fails the same way whenever it calls.
void putHeader(HttpResponse_T H, const char* key, const char* value, bool replace) {
        checkHeader(key, value);
        if (locked(H))
                return;
        const char* k = Map_has(H->headers, key) ? key : STR_DUP_ARENA(H->arena, key);
        if (replace)
                Map_set(H->headers, k, value);
        else
                Map_put(H->headers, k, value);
}

void mapHeaders(const char* key, const char* value, void* cl) {
        Chain_print(static_cast<Chain_T>(cl), "%s: %s\r\n", key, value ? value : "");
}

void freeServerPages(const char* key, const char* value, void* cl) {
        (void)key;
        (void)cl;
        ServerPage_T page = reinterpret_cast<ServerPage_T>(const_cast<char*>(value));
        if (page)
                ServerPage_free(&page);
}

// The session cookie of a session made during this request.
void addSessionCookie(HttpResponse_T H) {
        if (!H->request || !H->context)
                return;
        HttpSession_T session = HttpRequest_getSession(H->request, 0);
        if (!session || !HttpSession_isNew(session))
                return;
        Cookie_T cookie = Cookie_alloc(H->arena, "vsessionid", HttpSession_getId(session));
        Cookie_setMaxAge(cookie, -1);
        Cookie_setPath(cookie, Context_getContextPath(H->context));
        Cookie_setHttpOnly(cookie, 1);
        Cookie_setSameSite(cookie, 1);
        if (HttpRequest_isSecure(H->request) ||
            (H->connector && Str_isEqual(HttpConnector_getProxyScheme(H->connector), "https")))
                Cookie_setSecure(cookie, 1);
        Map_put(H->headers, "Set-Cookie", Cookie_toString(cookie));
}

// The idle time named in the Keep-Alive header: what the connector waits.
int keepAliveTimeout(HttpResponse_T H) {
        return H->connector ? HttpConnector_getKeepAliveTimeout(H->connector)
                            : HTTPCONNECTOR_KEEP_ALIVE_TIMEOUT;
}

/* ------------------------------------------------------------ What the stream asks */

void commitHead(void* response) {
        HttpResponse_commit(static_cast<HttpResponse_T>(response));
}

int acceptsGzip(void* response) {
        HttpRequest_T request = static_cast<HttpResponse_T>(response)->request;
        return request && HttpRequest_getAcceptEncoding(request);
}

void setGzip(void* response) {
        HttpResponse_setHeader(static_cast<HttpResponse_T>(response), "Content-Encoding", "gzip");
}

constexpr OutputStream_Response kStreamCalls = {commitHead, acceptsGzip, setGzip};

}  // namespace

HttpResponse_T HttpResponse_new(Arena_T arena) {
        assert(arena);
        HttpResponse_T H = static_cast<HttpResponse_T>(ARENA_CALLOC(arena, 1, sizeof *H));
        H->arena = arena;
        H->status = 200;
        H->keepAlive = 1;
        H->headers = Map_alloc(arena);
        H->serverPages = Map_alloc(arena);
        H->protocol = STR_DUP_ARENA(arena, "HTTP/1.1");
        H->headerChain = Chain_alloc(arena);
        return H;
}

void HttpResponse_free(HttpResponse_T* H) {
        assert(H && *H);
        HttpResponse_T R = *H;
        Map_map(R->serverPages, freeServerPages, nullptr);
        Map_clear(R->serverPages);
        if (R->fileMap) {
                FileCache_return(FileCache_getInstance(), R->fileMap);
                R->fileMap = nullptr;
        }
        *H = nullptr;
}

const char* HttpResponse_status(int code) {
        for (const Reason& r : kReasons)
                if (r.code == code)
                        return r.phrase;
        return "Unknown status";
}

void HttpResponse_setOutputStream(HttpResponse_T H, OutputStream_T out) {
        assert(H);
        assert(out);
        H->outputStream = out;
        OutputStream_setResponse(out, &kStreamCalls, H);
        OutputStream_setBufferSize(out, kBufferSize);
        bindHead(H);
}

OutputStream_T HttpResponse_getOutputStream(HttpResponse_T H) {
        assert(H);
        return H->outputStream;
}

Arena_T HttpResponse_getArena(HttpResponse_T H) {
        assert(H);
        return H->arena;
}

int HttpResponse_isCommited(HttpResponse_T H) {
        assert(H);
        return H->commited;
}

int HttpResponse_getStatus(HttpResponse_T H) {
        assert(H);
        return H->status;
}

void HttpResponse_setStatus(HttpResponse_T H, int status) {
        assert(H);
        H->status = status;
}

int HttpResponse_getKeepAlive(HttpResponse_T H) {
        assert(H);
        return H->keepAlive;
}

void HttpResponse_setKeepAlive(HttpResponse_T H, int keepAlive) {
        assert(H);
        H->keepAlive = keepAlive;
        if (keepAlive == 0)
                HttpResponse_setHeader(H, "Connection", "close");
}

int HttpResponse_isProcessingForward(HttpResponse_T H) {
        assert(H);
        return H->processingForward;
}

void HttpResponse_setProcessingForward(HttpResponse_T H, int forward) {
        assert(H);
        H->processingForward = forward;
}

int HttpResponse_isProcessingInclude(HttpResponse_T H) {
        assert(H);
        return H->processingInclude;
}

void HttpResponse_setProcessingInclude(HttpResponse_T H, int include) {
        assert(H);
        H->processingInclude = include;
}

void HttpResponse_setConnector(HttpResponse_T H, HttpConnector_T connector) {
        assert(H);
        H->connector = connector;
}

HttpConnector_T HttpResponse_getConnector(HttpResponse_T H) {
        assert(H);
        return H->connector;
}

void HttpResponse_setRequest(HttpResponse_T H, HttpRequest_T request) {
        assert(H);
        H->request = request;
        bindHead(H);
}

HttpRequest_T HttpResponse_getRequest(HttpResponse_T H) {
        assert(H);
        return H->request;
}

void HttpResponse_setContext(HttpResponse_T H, Context_T context) {
        assert(H);
        H->context = context;
}

Context_T HttpResponse_getContext(HttpResponse_T H) {
        assert(H);
        return H->context;
}

void HttpResponse_setProtocol(HttpResponse_T H, const char* protocol) {
        assert(H);
        assert(protocol);
        // It opens the status line, which it must not end.
        if (!isFieldValue(protocol))
                THROW(AssertException, "Invalid protocol '%s'", protocol);
        H->protocol = STR_DUP_ARENA(H->arena, protocol);
}

ServletContext_T HttpResponse_getServletContext(HttpResponse_T H) {
        assert(H);
        return H->context ? Context_getServletContext(H->context) : nullptr;
}

long long HttpResponse_getBytesWritten(HttpResponse_T H) {
        assert(H);
        return H->outputStream ? OutputStream_getBytesWritten(H->outputStream) : 0;
}

/* ------------------------------------------------------------------------- Headers */

void HttpResponse_addHeader(HttpResponse_T H, const char* key, const char* fmt, ...) {
        assert(H);
        assert(key);
        va_list ap;
        va_start(ap, fmt);
        char* value = format(H, fmt, ap);
        va_end(ap);
        putHeader(H, key, value, false);
}

void HttpResponse_setHeader(HttpResponse_T H, const char* key, const char* fmt, ...) {
        assert(H);
        assert(key);
        va_list ap;
        va_start(ap, fmt);
        char* value = format(H, fmt, ap);
        va_end(ap);
        putHeader(H, key, value, true);
}

void HttpResponse_addIntHeader(HttpResponse_T H, const char* key, long long value) {
        HttpResponse_addHeader(H, key, "%lld", value);
}

void HttpResponse_setIntHeader(HttpResponse_T H, const char* key, long long value) {
        HttpResponse_setHeader(H, key, "%lld", value);
}

void HttpResponse_addDateHeader(HttpResponse_T H, const char* key, time_t time) {
        char date[30];
        HttpResponse_addHeader(H, key, "%s", Time_gmtstring(time, date));
}

void HttpResponse_setDateHeader(HttpResponse_T H, const char* key, time_t time) {
        char date[30];
        HttpResponse_setHeader(H, key, "%s", Time_gmtstring(time, date));
}

void HttpResponse_removeHeader(HttpResponse_T H, const char* key) {
        assert(H);
        assert(key);
        Map_remove(H->headers, key);
}

void HttpResponse_setContentType(HttpResponse_T H, const char* type) {
        assert(H);
        assert(type);
        HttpResponse_setHeader(H, "Content-Type", "%s", type);
}

void HttpResponse_setContentLength(HttpResponse_T H, unsigned long long length) {
        HttpResponse_setHeader(H, "Content-Length", "%llu", length);
        H->contentLengthSet = 1;
}

const char* HttpResponse_getHeader(HttpResponse_T H, const char* key) {
        assert(H);
        return Map_get(H->headers, key);
}

int HttpResponse_containsHeader(HttpResponse_T H, const char* key) {
        assert(H);
        return Map_has(H->headers, key);
}

int HttpResponse_containsHeaderValue(HttpResponse_T H, const char* key, const char* value) {
        assert(H);
        return Map_hasValue(H->headers, key, value);
}

void HttpResponse_addCookie(HttpResponse_T H, Cookie_T cookie) {
        assert(H);
        assert(cookie);
        putHeader(H, "Set-Cookie", Cookie_toString(cookie), false);
}

void HttpResponse_reset(HttpResponse_T H) {
        assert(H);
        if (locked(H))
                return;
        OutputStream_clear(H->outputStream);
        H->status = 200;
        Map_clear(H->headers);
}

void HttpResponse_resetBuffer(HttpResponse_T H) {
        assert(H);
        if (locked(H))
                return;
        OutputStream_clear(H->outputStream);
}

ServerPage_T HttpResponse_getServerPage(HttpResponse_T H, const char* path) {
        assert(H);
        ServletContext_T context = HttpResponse_getServletContext(H);
        const char* real = context ? ServletContext_getRealPath(context, path) : nullptr;
        if (!real)
                return nullptr;
        char* key = STR_DUP_ARENA(H->arena, real);
        ServerPage_T page = ServerPage_new(H->arena, key, H);
        if (page)
                Map_put(H->serverPages, key, reinterpret_cast<const char*>(page));
        return page;
}

/* ---------------------------------------------------------------- Commit and ends */

void HttpResponse_commit(HttpResponse_T H) {
        assert(H);
        if (H->commited)
                return;
        H->commited = 1;
        Chain_T c = H->headerChain;
        char date[30];
        Chain_print(c, "%s %d %s\r\n", H->protocol, H->status, HttpResponse_status(H->status));
        Chain_print(c, "Date: %s\r\n", Time_gmtstring(Time_now(), date));
        Chain_print(c, "Server: %s/%s\r\n", Container_Name, Container_Version);
        if (H->keepAlive == 0 || Str_isEqual(Map_get(H->headers, "Connection"), "close")) {
                H->keepAlive = 0;
        } else if (!Map_has(H->headers, "Content-Length") && !answersHead(H)) {
                // Length unknown on a kept connection: only chunks can delimit the body, and an
                // HTTP/1.0 client cannot read them, so for it the close does. A HEAD answer
                // ends with its head and needs neither.
                if (H->request && Str_isEqual(HttpRequest_getProtocol(H->request), "HTTP/1.0")) {
                        H->keepAlive = 0;
                        Map_set(H->headers, "Connection", "close");
                } else {
                        OutputStream_setChunked(H->outputStream, 1);
                        Chain_print(c, "Transfer-Encoding: chunked\r\n");
                }
        }
        if (!Map_has(H->headers, "Content-Type"))
                Chain_print(c, "Content-Type: text/plain\r\n");
        addSessionCookie(H);
        Map_map(H->headers, mapHeaders, c);
        if (H->keepAlive)
                Chain_print(c, "Connection: keep-alive\r\nKeep-Alive: timeout=%d, max=%d\r\n",
                            keepAliveTimeout(H), H->keepAlive);
        Chain_print(c, "\r\n");
        OutputStream_commit(H->outputStream, c);
}

void HttpResponse_finalize(HttpResponse_T H) {
        assert(H);
        OutputStream_T out = H->outputStream;
        OutputStream_end(out);
        if (!H->commited) {
                // The whole body is still buffered, so its exact length is known. A HEAD's
                // was measured as it was dropped. It is told only when it says what a GET
                // would send: not when nothing was written, as by a page that is not
                // rendered for HEAD, nor when it was to be compressed, which would take
                // compressing a body that nobody receives.
                long long measured = OutputStream_getDiscarded(out);
                if (!H->contentLengthSet && !answersHead(H))
                        HttpResponse_setContentLength(
                            H, static_cast<unsigned long long>(OutputStream_buffered(out)));
                else if (!H->contentLengthSet && measured > 0 &&
                         !Map_has(H->headers, "Content-Encoding"))
                        HttpResponse_setContentLength(H, static_cast<unsigned long long>(measured));
                OutputStream_setChunked(out, 0);
                HttpResponse_commit(H);
        } else if (OutputStream_isChunked(out)) {
                OutputStream_endChunked(out);
        }
}

void HttpResponse_sendRedirect(HttpResponse_T H, const char* location, ...) {
        assert(H);
        assert(location);
        va_list ap;
        va_start(ap, location);
        char* target = format(H, location, ap);
        va_end(ap);
        if (!*target)
                target = const_cast<char*>("/");
        checkHeader("Location", target);
        if (locked(H))
                return;
        OutputStream_clear(H->outputStream);
        HttpResponse_removeHeader(H, "Content-Encoding");
        if (URL_isabsolute(target)) {
                HttpResponse_setHeader(H, "Connection", "close");
                HttpResponse_setHeader(H, "Location", "%s", encodeURI(H->arena, target, false));
        } else {
                // A relative target is resolved below the current path, not beside it.
                const char* uri = H->request ? HttpRequest_getRequestURI(H->request) : nullptr;
                const char* below = uri ? encodeURI(H->arena, uri, true) : "";
                char* path = *target == '/' ? STR_DUP_ARENA(H->arena, target)
                                            : STR_CAT_ARENA(H->arena, "%s/%s", below, target);
                URL_normalize(path);
                HttpResponse_setHeader(H, "Location", "%s%s",
                                       H->request ? HttpRequest_getServerURL(H->request) : "",
                                       encodeURI(H->arena, path, false));
        }
        H->status = 302;
        HttpResponse_commit(H);
}

void HttpResponse_sendError(HttpResponse_T H, int status, const char* format, ...) {
        va_list ap;
        va_start(ap, format);
        HttpResponse_vsendError(H, status, format, ap);
        va_end(ap);
}

void HttpResponse_vsendError(HttpResponse_T H, int status, const char* fmt, va_list ap) {
        assert(H);
        if (locked(H))
                return;
        const char* errorPage = H->context ? Context_getErrorPage(H->context, status) : nullptr;
        const char* message = "";
        if (fmt)
                message =
                    Str_entityify_arena(H->arena, format(H, fmt, ap), __func__, __FILE__, __LINE__);
        const char* reason = HttpResponse_status(status);
        OutputStream_clear(H->outputStream);
        HttpResponse_removeHeader(H, "Content-Encoding");
        HttpResponse_setContentType(H, "text/html");
        H->status = status;
        // A missing page is an ordinary answer; every other error ends the connection.
        if (status != 404)
                HttpResponse_setHeader(H, "Connection", "close");
        ServerPage_T page = errorPage ? HttpResponse_getServerPage(H, errorPage) : nullptr;
        if (page) {
                // A page starts compressing when it is made; an error is always sent plain.
                OutputStream_clear(H->outputStream);
                HttpResponse_removeHeader(H, "Content-Encoding");
                ServerPage_setErrorPage(page);
                ServerPage_addInt(page, "Error.status_code", status);
                ServerPage_add(page, "Error.message", fmt ? message : reason);
                ServerPage_write(page);
        } else {
                OutputStream_print(H->outputStream,
                                   "<html>\r\n<head><title>%d %s</title></head>\r\n<body "
                                   "bgcolor=\"white\">\r\n<h2>%s</h2>%s\r\n<hr>%s/%s\r\n</body>"
                                   "\r\n</html>\r\n",
                                   status, reason, reason, message, Container_Name,
                                   Container_Version);
        }
        HttpResponse_commit(H);
}

const char* HttpResponse_encodeURL(HttpResponse_T H, const char* url) {
        assert(H);
        if (STR_UNDEF(url) || !H->request)
                return url;
        HttpSession_T session = HttpRequest_getSession(H->request, 0);
        if (!session || HttpRequest_isRequestedSessionIdFromCookie(H->request))
                return url;
        if (URL_isabsolute(url)) {
                const char* name = HttpRequest_getServerName(H->request);
                char needle[260];
                snprintf(needle, sizeof needle, "/%s", name ? name : "");
                if (!name || !Str_sub(url, needle))
                        return url;
        }
        const char* id = HttpSession_getId(session);
        if (!id)
                return url;
        size_t length = strlen(url);
        size_t at = strcspn(url, "?");
        if (at == length)
                at = strcspn(url, "#");
        size_t size = length + strlen(id) + 13;
        char* result = static_cast<char*>(ARENA_ALLOC(H->arena, static_cast<int>(size)));
        memcpy(result, url, at);
        snprintf(result + at, size - at, ";vsessionid=%s%s", id, at == 0 ? "" : url + at);
        return result;
}

void HttpResponse_setFileMap(HttpResponse_T H, FileMap_T map) {
        assert(H);
        assert(map);
        H->fileMap = map;
        HttpResponse_setContentLength(H, static_cast<unsigned long long>(FileMap_getSize(map)));
        if (!Map_has(H->headers, "Content-Type")) {
                ServletContext_T context = HttpResponse_getServletContext(H);
                HttpResponse_setContentType(
                    H, context
                           ? ServletContext_getMimeType(context, File_getPath(FileMap_getFile(map)))
                           : "application/octet-stream");
        }
        OutputStream_setFileMap(H->outputStream, map);
        HttpResponse_commit(H);
}
