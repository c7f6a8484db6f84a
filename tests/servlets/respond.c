/* A servlet that answers as its parameters say, so that tests can drive every road by which
   a header or a body reaches the wire: ?set= and ?add= (with ?value=), ?int=, ?date=, ?type=,
   ?cookie= (with ?value=, ?path=, ?domain=, ?comment=), ?gzip=1, ?size= bytes of body
   (?noise=1: hard to compress), ?flush=1, ?redirect= and ?error= (with ?message=). HEAD
   runs the same code as GET, body and all. */
#include <stdlib.h>
#include <string.h>

#include <vesk/vesk.h>

static const char* value(HttpRequest_T req, const char* name) {
        const char* v = HttpRequest_getParameter(req, name);
        return v ? v : "";
}

/* The body is a counted pattern, so that a test can tell a cut or shifted one; with
   ?noise=1 the letters follow a pseudo-random sequence that gzip cannot shrink much. */
static void writeBody(OutputStream_T out, long size, int noise) {
        char block[1000];
        unsigned seed = 1;
        for (long left = size; left > 0; left -= (long)sizeof block) {
                for (int i = 0; i < (int)sizeof block; i++) {
                        seed = seed * 1103515245u + 12345u;
                        block[i] = (char)('a' + (noise ? (seed >> 16) % 26 : (unsigned)i % 26));
                }
                OutputStream_write(out, block,
                                   left < (long)sizeof block ? (int)left : (int)sizeof block);
        }
}

static int answer(HttpRequest_T req, HttpResponse_T res) {
        OutputStream_T out = HttpResponse_getOutputStream(res);
        const char* v;
        if (HttpRequest_getParameter(req, "gzip"))
                OutputStream_startCompress(out, 6);
        if ((v = HttpRequest_getParameter(req, "set")))
                HttpResponse_setHeader(res, v, "%s", value(req, "value"));
        if ((v = HttpRequest_getParameter(req, "add")))
                HttpResponse_addHeader(res, v, "%s", value(req, "value"));
        if ((v = HttpRequest_getParameter(req, "int")))
                HttpResponse_setIntHeader(res, v, 7);
        if ((v = HttpRequest_getParameter(req, "date")))
                HttpResponse_addDateHeader(res, v, 0);
        if ((v = HttpRequest_getParameter(req, "type")))
                HttpResponse_setContentType(res, v);
        if ((v = HttpRequest_getParameter(req, "cookie"))) {
                Cookie_T cookie = Cookie_new(v, value(req, "value"));
                if (HttpRequest_getParameter(req, "path"))
                        Cookie_setPath(cookie, value(req, "path"));
                if (HttpRequest_getParameter(req, "domain"))
                        Cookie_setDomain(cookie, value(req, "domain"));
                if (HttpRequest_getParameter(req, "comment")) {
                        Cookie_setVersion(cookie, 1);
                        Cookie_setComment(cookie, value(req, "comment"));
                }
                HttpResponse_addCookie(res, cookie);
        }
        if ((v = HttpRequest_getParameter(req, "size")))
                writeBody(out, atol(v), HttpRequest_getParameter(req, "noise") != NULL);
        if (HttpRequest_getParameter(req, "flush"))
                OutputStream_flush(out);
        if ((v = HttpRequest_getParameter(req, "redirect")))
                HttpResponse_sendRedirect(res, "%s", v);
        if ((v = HttpRequest_getParameter(req, "error"))) {
                if (HttpRequest_getParameter(req, "message"))
                        HttpResponse_sendError(res, atoi(v), "%s", value(req, "message"));
                else
                        HttpResponse_sendError(res, atoi(v), NULL);
        }
        return 0;
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res);
}

int doHead(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res);
}

int doPost(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res);
}
