// A template and its data set for one response. The page lives in the response's arena;
// only the data set is released explicitly, when the response frees its pages.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <ClearSilver/ClearSilver.h>
#include <ClearSilver/cgi/cgi.h>

#include <vesk/Context.h>
#include <vesk/Cookie.h>
#include <vesk/Error.h>
#include <vesk/File.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/HttpSession.h>
#include <vesk/Map.h>
#include <vesk/OutputStream.h>
#include <vesk/ServerPage.h>
#include <vesk/Str.h>

#include <vesk/assert.h>

struct ServerPage_S {
        HDF* hdf;
        Arena_T arena;
        char* path;
        OutputStream_T output;
        HttpResponse_T response;
        int isErrorPage;
};

namespace {

constexpr int kNameMax = 256;
constexpr int kParameterMax = 32767;

const char* orNull(const char* s) {
        return s ? s : "null";
}

// Logs err against the page's template, drops it, and answers false.
int failed(ServerPage_T P, NEOERR* err) {
        STRING text;
        string_init(&text);
        nerr_error_string(err, &text);
        Error_error("ServerPage '%s' error -- %s\n", orNull(P ? P->path : nullptr),
                    text.buf ? text.buf : "");
        string_clear(&text);
        nerr_ignore(&err);
        return 0;
}

bool isEmpty(const char* s) {
        return !s || !*s;
}

// Characters that cannot stand in a data name.
bool isIllegalInName(char c) {
        return strchr("\t\n\r !\"#%&()*+,-/:<=>?[]|", c) != nullptr;
}

void putValue(HDF* hdf, const char* name, const char* value) {
        NEOERR* err = hdf_set_value(hdf, name, value);
        nerr_ignore(&err);
}

void addAttribute(const char* key, const char* value, void* hdf) {
        char name[kNameMax + 1];
        putValue(static_cast<HDF*>(hdf), Str_join(name, kNameMax, "Request.Attr.", key), value);
}

void addCookie(const char* key, const char* value, void* hdf) {
        char name[kNameMax + 1];
        const char* v = value ? Cookie_getValue((Cookie_T)value) : nullptr;
        putValue(static_cast<HDF*>(hdf), Str_join(name, kNameMax, "Request.Cookie.", key), v);
}

void addHeader(const char* key, const char* value, void* hdf) {
        char name[kNameMax + 1] = "Request.Header.";
        int n = static_cast<int>(strlen(name));
        for (const char* k = key; k && *k && n < kNameMax; k++)
                if (!isIllegalInName(*k))
                        name[n++] = *k;
        name[n] = 0;
        putValue(static_cast<HDF*>(hdf), name, value);
}

void addParameter(const char* key, const char* value, void* hdf) {
        char name[kNameMax + 1];
        // Cut in place, so that the servlet reads the same bounded value.
        if (value && strlen(value) > static_cast<size_t>(kParameterMax))
                Str_trunc(const_cast<char*>(value), kParameterMax);
        putValue(static_cast<HDF*>(hdf), Str_join(name, kNameMax, "Request.Param.", key), value);
}

void addSessionAttribute(const char* key, const char* value, void* hdf) {
        char name[kNameMax + 1];
        putValue(static_cast<HDF*>(hdf), Str_join(name, kNameMax, "Session.Attr.", key), value);
}

// The request's session, if it has one already: a page never makes a session itself.
// Attributes go under "Session.Attr.", apart from the page's own reserved names such
// as "Session.invalidate".
void addSession(HDF* h, HttpRequest_T req) {
        HttpSession_T session = HttpRequest_getSession(req, 0);
        if (!session)
                return;
        putValue(h, "Session.Id", HttpSession_getId(session));
        struct {
                const char* name;
                long long value;
        } const numbers[] = {
            {"Session.IsNew", HttpSession_isNew(session)},
            {"Session.CreationTime", HttpSession_getCreationTime(session)},
            {"Session.LastAccessedTime", HttpSession_getLastAccessedTime(session)},
            {"Session.MaxInactiveInterval", HttpSession_getMaxInactiveInterval(session)},
        };
        for (const auto& n : numbers) {
                NEOERR* err = hdf_set_valuef(h, "%s=%lld", n.name, n.value);
                nerr_ignore(&err);
        }
        putValue(h, "Session.AuthType", HttpSession_getAuthType(session));
        HttpSession_map(session, addSessionAttribute, h);
}

int pathLevel(const char* uri) {
        int level = 0;
        for (const char* p = uri; p && *p; p++)
                level += *p == '/';
        return level;
}

// The view of the request every template sees.
NEOERR* addPredefined(ServerPage_T P, HttpRequest_T req) {
        assert(req);
        HDF* h = P->hdf;
        Context_T context = HttpResponse_getContext(P->response);
        const char* session = HttpRequest_getRequestSessionId(req);
        struct {
                const char* name;
                const char* value;
        } const texts[] = {
            {"hdf.loadpaths.0", context ? Context_getDocBase(context) : nullptr},
            {"Request.URI", HttpRequest_getRequestURI(req)},
            {"Request.ServletPath", HttpRequest_getServletPath(req)},
            {"Request.PathInfo", HttpRequest_getPathInfo(req)},
        };
        for (const auto& t : texts)
                if (NEOERR* err = hdf_set_value(h, t.name, t.value))
                        return nerr_pass(err);
        if (NEOERR* err = hdf_set_int_value(h, "Request.PathLevel",
                                            pathLevel(HttpRequest_getRequestURI(req))))
                return nerr_pass(err);
        struct {
                const char* name;
                const char* value;
        } const more[] = {
            {"Request.QueryString", HttpRequest_getQueryString(req)},
            {"Request.ContextPath", HttpRequest_getContextPath(req)},
            {"Request.PathTranslated", P->path},
            {"Request.Method", HttpRequest_getMethod(req)},
            {"Request.Protocol", HttpRequest_getProtocol(req)},
            {"Request.RemoteAddr", HttpRequest_getRemoteAddr(req)},
            {"Request.ServerName", HttpRequest_getServerName(req)},
        };
        for (const auto& t : more)
                if (NEOERR* err = hdf_set_value(h, t.name, t.value))
                        return nerr_pass(err);
        if (NEOERR* err =
                hdf_set_int_value(h, "Request.ServerPort", HttpRequest_getServerPort(req)))
                return nerr_pass(err);
        if (NEOERR* err = hdf_set_int_value(h, "Request.Secure", HttpRequest_isSecure(req)))
                return nerr_pass(err);
        struct {
                const char* name;
                const char* value;
        } const last[] = {
            {"Request.AuthType", HttpRequest_getAuthType(req)},
            {"Request.RemoteUser", HttpRequest_getRemoteUser(req)},
            {"Request.SessionId", session},
            // The CSRF token is the session id.
            {"Request.CSRFToken", session},
        };
        for (const auto& t : last)
                if (NEOERR* err = hdf_set_value(h, t.name, t.value))
                        return nerr_pass(err);
        Map_map(HttpRequest_getAttributeMap(req), addAttribute, h);
        Map_map(HttpRequest_getCookieMap(req), addCookie, h);
        Map_map(HttpRequest_getHeaderMap(req), addHeader, h);
        Map_map(HttpRequest_getParameterMap(req), addParameter, h);
        addSession(h, req);
        return STATUS_OK;
}

// Stops rendering once the client is gone.
NEOERR* cswrite_cb(void* ctx, char* text) {
        ServerPage_T P = static_cast<ServerPage_T>(ctx);
        OutputStream_write(P->output, text, static_cast<int>(strlen(text)));
        if (OutputStream_isClosed(P->output))
                return nerr_raise(NERR_IO, "the client closed the connection");
        return STATUS_OK;
}

NEOERR* registerFunctions(CSPARSE* cs) {
        NEOERR* err = cs_register_esc_strfunc(cs, (char*)"url_escape", cgi_url_escape);
        if (!err)
                err = cs_register_esc_strfunc(cs, (char*)"html_escape", cgi_html_escape_strfunc);
        if (!err)
                err = cs_register_strfunc(cs, (char*)"text_html", cgi_text_html_strfunc);
        if (!err)
                err = cs_register_esc_strfunc(cs, (char*)"js_escape", cgi_js_escape);
        if (!err)
                err = cs_register_strfunc(cs, (char*)"html_strip", cgi_html_strip_strfunc);
        if (!err)
                err = cs_register_esc_strfunc(cs, (char*)"url_validate", cgi_url_validate);
        return err ? nerr_passf("register_cs_functions", __FILE__, __LINE__, err) : STATUS_OK;
}

}  // namespace

ServerPage_T ServerPage_new(Arena_T arena, const char* path, HttpResponse_T res) {
        assert(res);
        assert(arena);
        if (!File_isReadable(path)) {
                Error_error("ServerPage: cannot read ServerPage template '%s' -- %s\n",
                            orNull(path), File_getLastError());
                return nullptr;
        }
        ServerPage_T P = static_cast<ServerPage_T>(ARENA_CALLOC(arena, 1, sizeof *P));
        P->arena = arena;
        P->path = Str_copy(static_cast<char*>(ARENA_ALLOC(arena, (int)strlen(path) + 1)), path,
                           (int)strlen(path));
        P->output = HttpResponse_getOutputStream(res);
        P->response = res;
        if (NEOERR* err = hdf_init(&P->hdf)) {
                failed(P, err);
                return nullptr;
        }
        HttpRequest_T req = HttpResponse_getRequest(res);
        if (NEOERR* err = addPredefined(P, req)) {
                failed(P, err);
                hdf_destroy(&P->hdf);
                return nullptr;
        }
        if (HttpRequest_getAcceptEncoding(req) == 1)
                OutputStream_startCompress(P->output, 6);
        return P;
}

void ServerPage_free(ServerPage_T* P) {
        assert(P && *P);
        hdf_destroy(&(*P)->hdf);
        *P = nullptr;
}

int ServerPage_write(ServerPage_T P) {
        assert(P);
        CSPARSE* cs = nullptr;
        NEOERR* err = cs_init(&cs, P->hdf);
        if (!err)
                err = registerFunctions(cs);
        if (!err)
                err = cs_parse_file(cs, P->path);
        if (err) {
                // The template's fault is shown to the client as the page's body, as a
                // server error when nothing has gone out yet: alone, and plain, since an
                // error is never compressed.
                if (!HttpResponse_isCommited(P->response)) {
                        OutputStream_clear(P->output);
                        HttpResponse_removeHeader(P->response, "Content-Encoding");
                        HttpResponse_setStatus(P->response, 500);
                }
                STRING text;
                string_init(&text);
                nerr_error_string(err, &text);
                const char* message = text.buf ? text.buf : "";
                OutputStream_print(P->output, "ServerPage error:\r\n\r\n");
                OutputStream_write(P->output, message, static_cast<int>(strlen(message)));
                Error_error("ServerPage error: %s\n", message);
                string_clear(&text);
                nerr_ignore(&err);
                if (cs)
                        cs_destroy(&cs);
                return 0;
        }
        HttpResponse_setContentType(P->response, "text/html");
        int result = 1;
        const char* redirect = hdf_get_value(P->hdf, "Response.redirect", nullptr);
        if (!redirect) {
                err = cs_render(cs, P, cswrite_cb);
                result = err == STATUS_OK;
                nerr_ignore(&err);
                redirect = hdf_get_value(P->hdf, "Response.redirect", nullptr);
        }
        HttpRequest_T req = HttpResponse_getRequest(P->response);
        if (hdf_get_value(P->hdf, "Session.invalidate", nullptr) && req) {
                HttpSession_T session = HttpRequest_getSession(req, 0);
                if (session)
                        HttpSession_invalidate(session);
        }
        if (redirect)
                HttpResponse_sendRedirect(P->response, "%s", redirect);
        else if (!P->isErrorPage) {
                int status = hdf_get_int_value(P->hdf, "Error.status_code", -1);
                if (status >= 1)
                        HttpResponse_sendError(
                            P->response, status, "%s",
                            orNull(hdf_get_value(P->hdf, "Error.message", nullptr)));
        }
        cs_destroy(&cs);
        return result;
}

int ServerPage_add(ServerPage_T P, const char* name, const char* value) {
        assert(P);
        if (isEmpty(name))
                return 0;
        NEOERR* err = hdf_set_value(P->hdf, name, isEmpty(value) ? nullptr : value);
        return err ? failed(P, err) : 1;
}

int ServerPage_vadd(ServerPage_T P, const char* format, ...) {
        assert(P);
        if (isEmpty(format))
                return 0;
        va_list ap;
        va_start(ap, format);
        NEOERR* err = hdf_set_valuevf(P->hdf, format, ap);
        va_end(ap);
        return err ? failed(P, err) : 1;
}

int ServerPage_addInt(ServerPage_T P, const char* name, int value) {
        assert(P);
        if (isEmpty(name))
                return 0;
        NEOERR* err = hdf_set_int_value(P->hdf, name, value);
        return err ? failed(P, err) : 1;
}

const char* ServerPage_get(ServerPage_T P, const char* name, const char* def) {
        assert(P);
        return isEmpty(name) ? def : hdf_get_value(P->hdf, name, def);
}

int ServerPage_getInt(ServerPage_T P, const char* name, int def) {
        assert(P);
        return isEmpty(name) ? def : hdf_get_int_value(P->hdf, name, def);
}

int ServerPage_loadFromFile(ServerPage_T P, const char* file) {
        assert(P);
        if (isEmpty(file))
                return 0;
        NEOERR* err = hdf_read_file(P->hdf, file);
        return err ? failed(P, err) : 1;
}

int ServerPage_loadFromString(ServerPage_T P, const char* text) {
        assert(P);
        if (isEmpty(text))
                return 0;
        NEOERR* err = hdf_read_string(P->hdf, text);
        return err ? failed(P, err) : 1;
}

void ServerPage_setErrorPage(ServerPage_T P) {
        assert(P);
        P->isErrorPage = 1;
}
