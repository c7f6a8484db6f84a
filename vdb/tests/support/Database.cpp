#include <ftw.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <thread>

#include "Database.hpp"
#include "PostgresCluster.hpp"

namespace {

std::mutex recordedMutex;
std::vector<std::string> recorded;

int removeOne(const char* path, const struct stat*, int, struct FTW*) {
        return remove(path);
}

}  // namespace

void throwError(const char* error) {
        throw DatabaseError(error);
}

void recordError(const char* error) {
        std::lock_guard<std::mutex> lock(recordedMutex);
        recorded.push_back(error);
}

std::vector<std::string> takeErrors() {
        std::lock_guard<std::mutex> lock(recordedMutex);
        return std::exchange(recorded, {});
}

bool eventually(const std::function<bool()>& done, int seconds) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (!done()) {
                if (std::chrono::steady_clock::now() > deadline)
                        return false;
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
}

TempDir::TempDir() {
        char name[] = "/tmp/vdb-test-XXXXXX";
        if (mkdtemp(name))
                path_ = name;
}

TempDir::~TempDir() {
        if (!path_.empty())
                nftw(path_.c_str(), removeOne, 16, FTW_DEPTH | FTW_PHYS);
}

void DatabaseTest::SetUp() {
        takeErrors();
        if (sqlite())
                return;
        PostgresCluster& cluster = PostgresCluster::instance();
        ASSERT_TRUE(cluster.start()) << "PostgreSQL could not be started: " << cluster.failure();
        ConnectionPool_T pool = ConnectionPool_new(url().c_str());
        ConnectionPool_setAbortHandler(pool, throwError);
        ConnectionPool_setInitialConnections(pool, 1);
        ConnectionPool_start(pool);
        Connection_T c = ConnectionPool_getConnection(pool);
        ASSERT_NE(c, nullptr);
        Connection_execute(c, "DROP SCHEMA public CASCADE; CREATE SCHEMA public;");
        Connection_close(c);
        ConnectionPool_free(&pool);
}

void DatabaseTest::TearDown() {
        if (pool_)
                ConnectionPool_free(&pool_);
}

std::string DatabaseTest::url() const {
        if (sqlite())
                return "sqlite://" + dir_.path() + "/test.db?create=true";
        return PostgresCluster::instance().url();
}

ConnectionPool_T DatabaseTest::startPool(int initial, int max) {
        pool_ = ConnectionPool_new(url().c_str());
        ConnectionPool_setAbortHandler(pool_, throwError);
        ConnectionPool_setInitialConnections(pool_, initial);
        ConnectionPool_setMaxConnections(pool_, max);
        EXPECT_EQ(ConnectionPool_start(pool_), 1);
        return pool_;
}

Connection_T DatabaseTest::connect() {
        if (!pool_)
                startPool();
        Connection_T c = ConnectionPool_getConnection(pool_);
        EXPECT_NE(c, nullptr);
        return c;
}

std::string backendName(const testing::TestParamInfo<Backend>& info) {
        return info.param == Backend::SQLite ? "SQLite" : "PostgreSQL";
}
