#include <vesk/assert.h>

void(assert)(int e) {
        if (!e)
                Exception_throw(&AssertException, "assert", __FILE__, __LINE__, "e");
}
