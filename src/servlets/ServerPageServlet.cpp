// The built-in servlet for "*.csp": each request renders the page at its servlet path.
#include <vesk/Context.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/ServerPage.h>
#include <vesk/ServerPageServlet.h>

#include <vesk/assert.h>

namespace {

int doProcess(HttpRequest_T req, HttpResponse_T res, int write) {
        assert(req && res);
        HttpResponse_setContentType(res, "text/html");
        const char* path = HttpRequest_getServletPath(req);
        // Mapping refuses such paths already; a page is rendered from disk, so this servlet
        // holds the line by itself too.
        ServerPage_T page =
            Context_isPrivatePath(path) ? nullptr : HttpResponse_getServerPage(res, path);
        if (!page) {
                HttpResponse_sendError(res, 404,
                                       "The requested URL <i>%s</i> was not found on this server",
                                       HttpRequest_getRequestURI(req));
                return 1;
        }
        if (write)
                ServerPage_write(page);
        return 1;
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        return doProcess(req, res, 1);
}

int doHead(HttpRequest_T req, HttpResponse_T res) {
        return doProcess(req, res, 0);
}

}  // namespace

void CreateServerPageServlet(Wrapper_T S) {
        assert(S);
        assert(Wrapper_isVirtual(S));
        Wrapper_setDoGet(S, doGet);
        Wrapper_setDoHead(S, doHead);
        Wrapper_setDoPost(S, doGet);
}
