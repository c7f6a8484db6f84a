// The example's C++ servlet: a page that lists the request's headers and parameters and
// includes the hello servlet for its greeting. With go=hello it forwards instead, and
// the hello servlet answers the whole request.
#include <string_view>

#include <vesk/vesk.h>

namespace {

const char* escaped(HttpRequest_T req, const char* text) {
        return Str_entityify_arena(HttpRequest_getArena(req), text, __func__, __FILE__, __LINE__);
}

void listHeaders(HttpRequest_T req, OutputStream_T out) {
        OutputStream_print(out, "<h2>Your request headers</h2>\n<table>\n");
        const char** names = HttpRequest_getHeaderNames(req);
        for (int i = 0; names && names[i]; i++)
                OutputStream_print(out, "<tr><th>%s</th><td>%s</td></tr>\n", escaped(req, names[i]),
                                   escaped(req, HttpRequest_getHeader(req, names[i])));
        OutputStream_print(out, "</table>\n");
}

void listParameters(HttpRequest_T req, OutputStream_T out) {
        const char** names = HttpRequest_getParameterNames(req);
        if (!names || !names[0])
                return;
        OutputStream_print(out, "<h2>Parameters</h2>\n<ul>\n");
        for (int i = 0; names[i]; i++) {
                const char** values = HttpRequest_getParameterValues(req, "%s", names[i]);
                for (int j = 0; values && values[j]; j++)
                        OutputStream_print(out, "<li>%s = %s</li>\n", escaped(req, names[i]),
                                           escaped(req, values[j]));
        }
        OutputStream_print(out, "</ul>\n");
}

}  // namespace

extern "C" {

int doGet(HttpRequest_T req, HttpResponse_T res) {
        const char* go = HttpRequest_getParameter(req, "go");
        if (go && std::string_view(go) == "hello") {
                RequestDispatcher_T hello = HttpRequest_getRequestDispatcher(req, "/hello");
                return hello ? RequestDispatcher_forward(hello) : 0;
        }
        OutputStream_T out = HttpResponse_getOutputStream(res);
        HttpResponse_setContentType(res, "text/html; charset=utf-8");
        OutputStream_print(out,
                           "<!DOCTYPE html>\n<html><head><title>Vesk guide</title></head><body>\n"
                           "<h1>Vesk guide</h1>\n");
        if (RequestDispatcher_T hello = HttpRequest_getRequestDispatcher(req, "/hello"))
                RequestDispatcher_include(hello);
        listParameters(req, out);
        listHeaders(req, out);
        OutputStream_print(out,
                           "<p><a href=\"?go=hello&amp;name=forwarded\">Forward to hello</a></p>\n"
                           "</body></html>\n");
        return 0;
}
}
