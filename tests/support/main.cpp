#include <gtest/gtest.h>

#include <vesk/Arena.h>
#include <vesk/Exception.h>
#include <vesk/Thread.h>

#ifdef __SANITIZE_ADDRESS__
// The template library keeps 32 bytes of its parse state when a page fails to parse; the
// leak checker is told so, and stays on for everything else.
extern "C" const char* __lsan_default_suppressions() {
        return "leak:cs_parse_string\n";
}
#endif

int main(int argc, char** argv) {
        Arena_init();
        Exception_init();
        Thread_init();
        testing::InitGoogleTest(&argc, argv);
        // Death tests fork; "threadsafe" re-executes the binary so that threads started
        // by earlier tests do not haunt the child.
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        return RUN_ALL_TESTS();
}
