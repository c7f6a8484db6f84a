// What the libvdb tests share: the backends each suite runs against, abort handlers that
// throw or record, a temporary directory, and a fixture that hands out started pools.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <vdb/vdb.h>

enum class Backend { SQLite, PostgreSQL };

inline void PrintTo(Backend backend, std::ostream* out) {
        *out << (backend == Backend::SQLite ? "SQLite" : "PostgreSQL");
}

// What throwError throws: the handler a C++ program installs.
struct DatabaseError : std::runtime_error {
        using std::runtime_error::runtime_error;
};
[[noreturn]] void throwError(const char* error);

// A handler that returns; it keeps the messages until takeErrors.
void recordError(const char* error);
std::vector<std::string> takeErrors();

// Polls until done() holds, for at most `seconds`; true if it did.
bool eventually(const std::function<bool()>& done, int seconds = 30);

class TempDir {
public:
        TempDir();
        ~TempDir();
        TempDir(const TempDir&) = delete;
        TempDir& operator=(const TempDir&) = delete;
        const std::string& path() const { return path_; }

private:
        std::string path_;
};

class DatabaseTest : public testing::TestWithParam<Backend> {
protected:
        // PostgreSQL cases fail here, with the reason, when the cluster cannot run. They
        // start from an empty schema.
        void SetUp() override;
        void TearDown() override;

        bool sqlite() const { return GetParam() == Backend::SQLite; }
        // A database of this test: a new SQLite file, or the shared cluster.
        std::string url() const;
        const char* blobType() const { return sqlite() ? "BLOB" : "BYTEA"; }
        const char* bigintType() const { return sqlite() ? "INTEGER" : "BIGINT"; }
        // pool_, started with throwError as its handler.
        ConnectionPool_T startPool(int initial = 1, int max = 5);
        // A connection of pool_, which must give one.
        Connection_T connect();

        TempDir dir_;
        ConnectionPool_T pool_ = nullptr;
};

std::string backendName(const testing::TestParamInfo<Backend>& info);

// Cases of what only PostgreSQL does.
class PostgresTest : public DatabaseTest {};

#define VDB_ON_EVERY_BACKEND(Fixture) \
        INSTANTIATE_TEST_SUITE_P(     \
            Backends, Fixture, testing::Values(Backend::SQLite, Backend::PostgreSQL), backendName)
