#include <gtest/gtest.h>

#include <vesk/Arena.h>
#include <vesk/Exception.h>
#include <vesk/Thread.h>

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
