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
        HttpResponse_setProcessingForward(D->response, 1);
        try {
                invoke(D);
        } catch (...) {
                HttpResponse_setProcessingForward(D->response, 0);
                throw;
        }
        HttpResponse_setProcessingForward(D->response, 0);
        return true;
}

int RequestDispatcher_include(RequestDispatcher_T D) {
        assert(D);
        HttpResponse_setProcessingInclude(D->response, 1);
        try {
                invoke(D);
        } catch (...) {
                HttpResponse_setProcessingInclude(D->response, 0);
                throw;
        }
        HttpResponse_setProcessingInclude(D->response, 0);
        return true;
}
