/* A servlet that tells what reached it: the number of parameter names and of parts, and the
   scheme. GET and POST alike. */
#include <vesk/vesk.h>

static int answer(HttpRequest_T req, HttpResponse_T res) {
        int names = 0;
        for (const char** n = HttpRequest_getParameterNames(req); *n; n++)
                names++;
        OutputStream_print(HttpResponse_getOutputStream(res), "params=%d parts=%d scheme=%s", names,
                           List_length(HttpRequest_getParts(req)), HttpRequest_getScheme(req));
        return 0;
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res);
}

int doPost(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res);
}
