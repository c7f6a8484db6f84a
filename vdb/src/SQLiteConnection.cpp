#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <sqlite3.h>

#include "Backend.hpp"
#include "Error.hpp"

namespace vdb {

namespace {

// Long enough for a burst of writers from many processor threads to pass one by one.
constexpr int kBusyTimeoutMs = 5000;

struct CloseDatabase {
        void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct Finalize {
        void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using DatabaseHandle = std::unique_ptr<sqlite3, CloseDatabase>;
using StatementHandle = std::unique_ptr<sqlite3_stmt, Finalize>;

// Steps stmt to its end and returns the rows it changed. sqlite3_changes keeps the count of
// the last INSERT, UPDATE or DELETE, so a statement that changed nothing must not read it.
long long runToEnd(sqlite3* db, sqlite3_stmt* stmt, const std::string& sql) {
        sqlite3_int64 before = sqlite3_total_changes64(db);
        int rc;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW)
                ;
        if (rc != SQLITE_DONE)
                fail("SQLite: cannot execute %s -- %s", quote(sql).c_str(), sqlite3_errmsg(db));
        if (sqlite3_stmt_readonly(stmt) || sqlite3_total_changes64(db) == before)
                return 0;
        return sqlite3_changes64(db);
}

class SQLiteRows : public Rows {
public:
        // owned is the statement when these rows are its only user, else empty.
        SQLiteRows(sqlite3* db, sqlite3_stmt* stmt, StatementHandle owned, std::string sql)
            : db_(db), stmt_(stmt), owned_(std::move(owned)), sql_(std::move(sql)) {}

        // Runs the statement up to its first row, so that a query fails at once, as on a
        // server, and not at the first ResultSet_next.
        void start() { ready_ = step(); }

        bool next() override {
                if (ready_) {
                        ready_ = false;
                        return true;
                }
                return step();
        }
        int columnCount() override { return sqlite3_column_count(stmt_); }
        const char* columnName(int column) override {
                const char* name = sqlite3_column_name(stmt_, column);
                if (!name)
                        throw std::bad_alloc();
                return name;
        }
        bool isNull(int column) override {
                return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
        }
        const char* text(int column) override {
                if (isNull(column))
                        return nullptr;
                auto s = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
                if (!s)
                        throw std::bad_alloc();
                return s;
        }
        void bytes(int column, std::string& into) override {
                const void* data = sqlite3_column_blob(stmt_, column);
                int size = sqlite3_column_bytes(stmt_, column);
                if (!data && size > 0)
                        throw std::bad_alloc();
                into.assign(static_cast<const char*>(data), static_cast<size_t>(size));
        }

private:
        bool step() {
                if (done_)
                        return false;
                int rc = sqlite3_step(stmt_);
                if (rc == SQLITE_ROW)
                        return true;
                // Stepping a finished statement would run it again, so the end is sticky.
                done_ = true;
                if (rc != SQLITE_DONE)
                        fail("SQLite: cannot run %s -- %s", quote(sql_).c_str(),
                             sqlite3_errmsg(db_));
                return false;
        }

        sqlite3* db_;
        sqlite3_stmt* stmt_;
        StatementHandle owned_;
        std::string sql_;
        bool ready_ = false;  // the first row is there and not yet handed out
        bool done_ = false;
};

std::unique_ptr<Rows> started(std::unique_ptr<SQLiteRows> rows) {
        rows->start();
        return rows;
}

class SQLiteStatement : public Statement {
public:
        SQLiteStatement(sqlite3* db, StatementHandle stmt, std::string sql)
            : db_(db), stmt_(std::move(stmt)), sql_(std::move(sql)) {}

        int parameterCount() override { return sqlite3_bind_parameter_count(stmt_.get()); }
        void bindNull(int parameter) override {
                check(sqlite3_bind_null(rewound(), parameter), parameter);
        }
        void bindText(int parameter, const char* text) override {
                check(sqlite3_bind_text(rewound(), parameter, text, -1, SQLITE_TRANSIENT),
                      parameter);
        }
        void bindInteger(int parameter, long long value) override {
                check(sqlite3_bind_int64(rewound(), parameter, value), parameter);
        }
        void bindBlob(int parameter, const void* data, int size) override {
                // A zero-length blob needs a non-NULL pointer, or SQLite binds NULL.
                static const char empty = 0;
                check(sqlite3_bind_blob(rewound(), parameter, size ? data : &empty, size,
                                        SQLITE_TRANSIENT),
                      parameter);
        }
        long long execute() override {
                trace(sql_);
                return runToEnd(db_, rewound(), sql_);
        }
        std::unique_ptr<Rows> query() override {
                trace(sql_);
                return started(std::make_unique<SQLiteRows>(db_, rewound(), nullptr, sql_));
        }

private:
        // Binding and running need the statement back at its start.
        sqlite3_stmt* rewound() {
                sqlite3_reset(stmt_.get());
                return stmt_.get();
        }
        void check(int rc, int parameter) {
                if (rc != SQLITE_OK)
                        fail("SQLite: cannot bind parameter %d of %s -- %s", parameter,
                             quote(sql_).c_str(), sqlite3_errmsg(db_));
        }

        sqlite3* db_;
        StatementHandle stmt_;
        std::string sql_;
};

class SQLiteDatabase : public Database {
public:
        explicit SQLiteDatabase(DatabaseHandle db) : db_(std::move(db)) {}

        const char* name() const override { return "SQLite"; }
        bool alive() override { return true; }

        long long execute(const std::string& sql) override {
                trace(sql);
                long long changed = 0;
                const char* tail = sql.c_str();
                while (*tail) {
                        const char* start = tail;
                        StatementHandle stmt = compile(tail, &tail);
                        if (stmt)
                                changed = runToEnd(db_.get(), stmt.get(),
                                                   std::string(start, tail - start));
                        if (tail == start)
                                break;
                }
                return changed;
        }

        std::unique_ptr<Rows> query(const std::string& sql) override {
                trace(sql);
                const char* tail;
                StatementHandle stmt = compile(sql.c_str(), &tail);
                if (!stmt)
                        fail("SQLite: no statement to run in %s", quote(sql).c_str());
                if (compile(tail, &tail))
                        fail("SQLite: a query runs one statement, %s holds more",
                             quote(sql).c_str());
                sqlite3_stmt* raw = stmt.get();
                return started(std::make_unique<SQLiteRows>(db_.get(), raw, std::move(stmt), sql));
        }

        std::unique_ptr<Statement> prepare(const std::string& sql) override {
                const char* tail;
                StatementHandle stmt = compile(sql.c_str(), &tail);
                if (!stmt)
                        fail("SQLite: no statement to prepare in %s", quote(sql).c_str());
                if (compile(tail, &tail))
                        fail("SQLite: a prepared statement is one statement, %s holds more",
                             quote(sql).c_str());
                return std::make_unique<SQLiteStatement>(db_.get(), std::move(stmt), sql);
        }

        // Immediate, so that the write lock is taken at the start: a deferred transaction
        // that reads first and then writes can fail at once with "database is locked" when
        // another connection wrote in between, without waiting on the busy timeout.
        void begin() override { execute("BEGIN IMMEDIATE"); }
        void commit() override { execute("COMMIT"); }
        void rollback() override { execute("ROLLBACK"); }
        bool inTransaction() override { return !sqlite3_get_autocommit(db_.get()); }
        void recycle() override {}

private:
        // The first statement of sql, or empty when sql holds only blanks and comments.
        StatementHandle compile(const char* sql, const char** tail) {
                sqlite3_stmt* raw = nullptr;
                if (sqlite3_prepare_v2(db_.get(), sql, -1, &raw, tail) != SQLITE_OK)
                        fail("SQLite: cannot prepare %s -- %s", quote(sql).c_str(),
                             sqlite3_errmsg(db_.get()));
                return StatementHandle(raw);
        }

        DatabaseHandle db_;
};

int parseMilliseconds(const std::string& name, const std::string& value) {
        char* end;
        errno = 0;
        long n = strtol(value.c_str(), &end, 10);
        if (value.empty() || *end || errno || n < 0 || n > INT_MAX)
                fail("SQLite: URL parameter %s=%s is not a number of milliseconds", name.c_str(),
                     value.c_str());
        return static_cast<int>(n);
}

}  // namespace

std::unique_ptr<Database> openSQLite(const DatabaseURL& url) {
        if (!sqlite3_threadsafe())
                fail("SQLite: the library is built without thread support");
        int busyTimeout = kBusyTimeoutMs;
        int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
        for (const auto& [name, value] : url.parameters) {
                if (name == "busy_timeout")
                        busyTimeout = parseMilliseconds(name, value);
                else if (name == "create" && (value == "true" || value == "false"))
                        flags |= value == "true" ? SQLITE_OPEN_CREATE : 0;
                else
                        fail(
                            "SQLite: unknown URL parameter %s=%s (known: busy_timeout=<ms>, "
                            "create=true|false)",
                            name.c_str(), value.c_str());
        }
        sqlite3* raw = nullptr;
        int rc = sqlite3_open_v2(url.path.c_str(), &raw, flags, nullptr);
        DatabaseHandle db(raw);
        if (!db)
                throw std::bad_alloc();
        if (rc != SQLITE_OK)
                fail("SQLite: cannot open database \"%s\" -- %s", url.path.c_str(),
                     sqlite3_errmsg(db.get()));
        sqlite3_extended_result_codes(db.get(), 1);
        sqlite3_busy_timeout(db.get(), busyTimeout);
        auto database = std::make_unique<SQLiteDatabase>(std::move(db));
        // Write-ahead logging lets readers go on while one connection writes.
        database->execute("PRAGMA journal_mode=WAL");
        return database;
}

}  // namespace vdb
