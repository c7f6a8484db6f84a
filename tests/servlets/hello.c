/* A servlet in C: answers GET and POST with what the mapping gave it, and counts its
   init and destroy calls in the environment, where the tests read them. */
#include <stdio.h>
#include <stdlib.h>

#include <vesk/vesk.h>

static void count(const char* name) {
        const char* now = getenv(name);
        char text[16];
        snprintf(text, sizeof text, "%d", (now ? atoi(now) : 0) + 1);
        setenv(name, text, 1);
}

void init(ServletConfig_T config) {
        (void)config;
        count("HELLO_INIT");
}

void destroy(void) {
        count("HELLO_DESTROY");
}

static int answer(HttpRequest_T req, HttpResponse_T res, const char* who) {
        const char* info = HttpRequest_getPathInfo(req);
        OutputStream_print(HttpResponse_getOutputStream(res), "%s %s servlet=%s info=%s", who,
                           HttpRequest_getMethod(req), HttpRequest_getServletPath(req),
                           info ? info : "null");
        return 0;
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res, "hello");
}

int doPost(HttpRequest_T req, HttpResponse_T res) {
        return answer(req, res, "hello");
}
