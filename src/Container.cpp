#include <stdarg.h>
#include <stdlib.h>

#include <vesk/Arena.h>
#include <vesk/Container.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>

namespace {

VESK_PRINTF(1, 2) void AbortHandler(const char* format, ...) {
        if (format) {
                va_list ap;
                va_start(ap, format);
                Error_verror(format, ap);
                va_end(ap);
        }
        if (Container_Debug)
                abort();  // leave a core image
        exit(1);
}

}  // namespace

const char* Container_Name = "Vesk";
const char* Container_Version = "2.0";
int Container_Debug = 0;
void (*Container_AbortHandler)(const char* format, ...) = AbortHandler;

// The foundation keys exist before any other code of the process can raise or allocate.
__attribute__((constructor)) static void Container_load(void) {
        Arena_init();
        Exception_init();
}
