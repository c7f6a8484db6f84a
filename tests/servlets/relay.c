/* A servlet that hands its request on: ?go=forward or ?go=include, to the path ?to=. */
#include <string.h>

#include <vesk/vesk.h>

int doGet(HttpRequest_T req, HttpResponse_T res) {
        OutputStream_T out = HttpResponse_getOutputStream(res);
        const char* go = HttpRequest_getParameter(req, "go");
        const char* to = HttpRequest_getParameter(req, "to");
        if (!go || !to) {
                OutputStream_print(out, "relay servlet=%s", HttpRequest_getServletPath(req));
                return 0;
        }
        RequestDispatcher_T next = HttpRequest_getRequestDispatcher(req, to);
        if (!next) {
                HttpResponse_sendError(res, 404, "nowhere to go");
                return 0;
        }
        if (strcmp(go, "forward") == 0) {
                OutputStream_print(out, "this text is dropped");
                return RequestDispatcher_forward(next);
        }
        OutputStream_print(out, "[");
        RequestDispatcher_include(next);
        OutputStream_print(out, "]");
        return 0;
}
