/* The example's C servlet: greets by the "name" parameter, tells the browser it came
   with, and counts the visitor's requests in a cookie. It also answers when the guide
   servlet includes it or forwards to it. */
#include <stdio.h>
#include <stdlib.h>

#include <vesk/vesk.h>

void init(ServletConfig_T config) {
        ServletContext_log(ServletConfig_getServletContext(config), "hello: ready\n");
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        OutputStream_T out = HttpResponse_getOutputStream(res);
        const char* name = HttpRequest_getParameterDefault(req, "name", "world");
        const char* agent = HttpRequest_getHeader(req, "User-Agent");
        Cookie_T visits = HttpRequest_getCookie(req, "visits");
        int count = visits && Cookie_getValue(visits) ? atoi(Cookie_getValue(visits)) + 1 : 1;
        char text[16];
        snprintf(text, sizeof text, "%d", count);
        Cookie_T cookie = Cookie_alloc(HttpRequest_getArena(req), "visits", text);
        Cookie_setPath(cookie, HttpRequest_getContextPath(req));
        HttpResponse_addCookie(res, cookie);
        HttpResponse_setHeader(res, "X-Served-By", "%s", "hello.c");
        HttpResponse_setContentType(res, "text/html; charset=utf-8");
        /* Everything from the request is escaped before it reaches the page. */
        Arena_T arena = HttpRequest_getArena(req);
        OutputStream_print(out, "<p>Hello, %s!</p>\n",
                           Str_entityify_arena(arena, name, __func__, __FILE__, __LINE__));
        OutputStream_print(
            out, "<p>Your browser says it is <code>%s</code>.</p>\n",
            agent ? Str_entityify_arena(arena, agent, __func__, __FILE__, __LINE__) : "(nothing)");
        OutputStream_print(
            out, "<p>This is visit %d, counted in the cookie <code>visits</code>.</p>\n", count);
        return 0;
}

int doPost(HttpRequest_T req, HttpResponse_T res) {
        return doGet(req, res);
}
