// A servlet in C++: answers GET with its version, which the build sets, and publishes
// its name as an application attribute at init.
#include <vesk/vesk.h>

#ifndef ECHO_VERSION
#define ECHO_VERSION "one"
#endif

extern "C" {

void init(ServletConfig_T config) {
        ServletContext_setAttribute(ServletConfig_getServletContext(config), "echo",
                                    const_cast<char*>(ServletConfig_getServletName(config)));
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        (void)req;
        OutputStream_print(HttpResponse_getOutputStream(res), "echo " ECHO_VERSION);
        return 7;
}
}
