#include <gtest/gtest.h>

#include "PostgresCluster.hpp"

namespace {

class ClusterEnvironment : public testing::Environment {
public:
        void TearDown() override { PostgresCluster::instance().stop(); }
};

}  // namespace

int main(int argc, char** argv) {
        testing::InitGoogleTest(&argc, argv);
        // Death tests fork; "threadsafe" re-executes the binary, so that a child never
        // inherits the threads of earlier tests.
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        testing::AddGlobalTestEnvironment(new ClusterEnvironment);
        return RUN_ALL_TESTS();
}
