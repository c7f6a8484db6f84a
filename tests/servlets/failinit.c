/* A servlet whose init raises, so the application starts without it. */
#include <vesk/vesk.h>

void init(ServletConfig_T config) {
        (void)config;
        THROW(AssertException, "init of %s failed", "failinit");
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        (void)req;
        (void)res;
        return 0;
}
