#include <vesk/Arena.h>
#include <vesk/Context.h>
#include <vesk/RequestDispatcher.h>
#include <vesk/assert.h>

struct RequestDispatcher_S {
        HttpRequest_T request;
        HttpResponse_T response;
};

namespace {

int invoke(RequestDispatcher_T D) {
        Context_T context = HttpRequest_getContext(D->request);
        assert(context);
        return Context_invoke(context, D->request, D->response);
}

// Invokes the target with the response marked by mark for the length of the call, also
// when the call raises.
void invokeMarked(RequestDispatcher_T D, void (*mark)(HttpResponse_T, int)) {
        mark(D->response, 1);
        try {
                invoke(D);
        } catch (...) {
                mark(D->response, 0);
                throw;
        }
        mark(D->response, 0);
}

}  // namespace

RequestDispatcher_T RequestDispatcher_new(HttpRequest_T parent, HttpRequest_T wrap) {
        assert(wrap);
        assert(parent);
        RequestDispatcher_T D = static_cast<RequestDispatcher_T>(
            ARENA_CALLOC(HttpRequest_getArena(parent), 1, sizeof(struct RequestDispatcher_S)));
        D->request = wrap;
        D->response = HttpRequest_getResponse(parent);
        const char* uri = HttpRequest_getRequestURI(parent);
        const char* contextPath = HttpRequest_getContextPath(parent);
        const char* servletPath = HttpRequest_getServletPath(parent);
        const char* pathInfo = HttpRequest_getPathInfo(parent);
        const char* query = HttpRequest_getQueryString(parent);
        HttpRequest_setAttribute(wrap, "servlet.request_uri", "%s", uri ? uri : "");
        HttpRequest_setAttribute(wrap, "servlet.context_path", "%s",
                                 contextPath ? contextPath : "");
        HttpRequest_setAttribute(wrap, "servlet.servlet_path", "%s",
                                 servletPath ? servletPath : "");
        if (pathInfo)
                HttpRequest_setAttribute(wrap, "servlet.path_info", "%s", pathInfo);
        if (query)
                HttpRequest_setAttribute(wrap, "servlet.query_string", "%s", query);
        return D;
}

int RequestDispatcher_forward(RequestDispatcher_T D) {
        assert(D);
        if (HttpResponse_isCommited(D->response))
                return false;
        HttpResponse_resetBuffer(D->response);
        invokeMarked(D, HttpResponse_setProcessingForward);
        return true;
}

int RequestDispatcher_include(RequestDispatcher_T D) {
        assert(D);
        invokeMarked(D, HttpResponse_setProcessingInclude);
        return true;
}
