/* A servlet that takes its time: it sleeps ?ms= milliseconds before it answers, and leaves
   marks beside the application's files when a request starts and when it is destroyed, so
   that a test can stop the server in the middle of a request. */
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <vesk/vesk.h>

static char base[4096];

static void mark(const char* what) {
        char path[4200];
        snprintf(path, sizeof path, "%s/slow.%s", base, what);
        FILE* f = fopen(path, "a");
        if (f) {
                fputs(what, f);
                fclose(f);
        }
}

void init(ServletConfig_T config) {
        snprintf(base, sizeof base, "%s",
                 ServletContext_getDocumentBase(ServletConfig_getServletContext(config)));
}

void destroy(void) {
        mark("destroyed");
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        const char* ms = HttpRequest_getParameter(req, "ms");
        long n = ms ? atol(ms) : 300;
        mark("started");
        struct timespec pause = {n / 1000, (n % 1000) * 1000000L};
        nanosleep(&pause, NULL);
        OutputStream_print(HttpResponse_getOutputStream(res), "slept %ld", n);
        return 0;
}
