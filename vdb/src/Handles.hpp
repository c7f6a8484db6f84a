// The objects behind the public handles, and how they own one another: a pool owns its
// connections; a connection owns its backend connection, its prepared statements and the
// rows of its last query; a statement owns the rows of its last query.
#pragma once

#include <time.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <vdb/ConnectionPool.h>

#include "Backend.hpp"
#include "Error.hpp"
#include "Thread.hpp"

struct ResultSet_S {
        ResultSet_S(Connection_S* c, std::unique_ptr<vdb::Rows> r)
            : connection(c), rows(std::move(r)) {}

        Connection_S* connection;
        std::unique_ptr<vdb::Rows> rows;
        bool onRow = false;
        std::vector<std::string> blobs;  // per column, filled on demand for the current row
};

struct PreparedStatement_S {
        PreparedStatement_S(Connection_S* c, std::unique_ptr<vdb::Statement> s, std::string text)
            : connection(c), statement(std::move(s)), sql(std::move(text)) {}

        Connection_S* connection;
        std::unique_ptr<vdb::Statement> statement;
        const std::string sql;
        std::unique_ptr<ResultSet_S> result;
        long long rowsChanged = 0;
};

struct Connection_S {
        Connection_S(ConnectionPool_S* p, std::unique_ptr<vdb::Database> d)
            : pool(p), database(std::move(d)) {}

        ConnectionPool_S* pool;
        std::unique_ptr<vdb::Database> database;
        // Destroyed before the database, which their native handles belong to.
        std::vector<std::unique_ptr<PreparedStatement_S>> statements;
        std::unique_ptr<ResultSet_S> result;
        long long rowsChanged = 0;
        bool out = false;     // lent to a caller; under the pool's mutex
        time_t lastUsed = 0;  // monotonic seconds when given back; under the pool's mutex

        vdb::AbortHandler handler() const;
        const char* backend() const { return database->name(); }
};

struct ConnectionPool_S {
        explicit ConnectionPool_S(const char* text) : url(text) {}

        const std::string url;
        std::atomic<vdb::AbortHandler> abortHandler = nullptr;

        vdb::Mutex mutex;  // guards what follows
        int initialConnections = 5;
        int maxConnections = 20;
        int sweepInterval = 0;  // seconds; 0 runs no reaper
        vdb::Condition wakeReaper;
        std::vector<std::unique_ptr<Connection_S>> connections;  // open ones, out or idle
        int opening = 0;  // connections being opened outside the mutex, counted against max
        bool started = false;
        bool reaperRunning = false;
        pthread_t reaper;
        vdb::DatabaseURL parsed;  // set by start
};

inline vdb::AbortHandler Connection_S::handler() const {
        return pool->abortHandler.load(std::memory_order_relaxed);
}

namespace vdb {

// Opens one backend connection for url; SQLError if it cannot.
std::unique_ptr<Database> open(const DatabaseURL& url);

// Takes back a connection that its borrower has cleaned up; one that is not reusable, or
// comes back to a stopped pool, is closed.
void giveBack(Connection_S* connection, bool reusable);

// Monotonic seconds, for idle times.
time_t now();

}  // namespace vdb
