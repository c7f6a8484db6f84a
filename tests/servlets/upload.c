/* A servlet that tells what reached it, for every method but PUT: the method, the query
   parameter "tag", the declared body length and the form parameter "data". A HEAD gets
   no body, as its client reads none. */
#include <vesk/vesk.h>

static int answer(HttpRequest_T req, HttpResponse_T res) {
        const char* tag = HttpRequest_getParameter(req, "tag");
        const char* data = HttpRequest_getParameter(req, "data");
        OutputStream_print(HttpResponse_getOutputStream(res), "%s tag=%s length=%d data=%s",
                           HttpRequest_getMethod(req), tag ? tag : "null",
                           HttpRequest_getContentLength(req), data ? data : "null");
        return 0;
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res);
}

int doHead(HttpRequest_T req, HttpResponse_T res) {
        (void)req;
        (void)res;
        return 0;
}

int doPost(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res);
}

int doDelete(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res);
}

int doTrace(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res);
}

int doOptions(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res);
}
