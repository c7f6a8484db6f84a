// What each database backend provides. Every operation throws SQLError with a finished
// message; objects own their native handles and release them in their destructors.
#pragma once

#include <memory>
#include <string>

#include "URL.hpp"

namespace vdb {

// The rows of one query. Column numbers here are 0-based and already checked; the value
// getters are called only on a current row.
class Rows {
public:
        virtual ~Rows() = default;
        // Moves to the next row; false at the end, and stays there.
        virtual bool next() = 0;
        virtual int columnCount() = 0;
        virtual const char* columnName(int column) = 0;
        virtual bool isNull(int column) = 0;
        // The value as zero-terminated text, valid until next(); NULL for SQL NULL.
        virtual const char* text(int column) = 0;
        // Replaces into with the value's bytes.
        virtual void bytes(int column, std::string& into) = 0;
};

// A prepared statement. Parameter numbers here are 1-based and already checked. Binding
// or running again ends the Rows of an earlier query.
class Statement {
public:
        virtual ~Statement() = default;
        virtual int parameterCount() = 0;
        virtual void bindNull(int parameter) = 0;
        virtual void bindText(int parameter, const char* text) = 0;
        virtual void bindInteger(int parameter, long long value) = 0;
        virtual void bindBlob(int parameter, const void* data, int size) = 0;
        // Runs the statement, dropping rows; returns the rows changed.
        virtual long long execute() = 0;
        virtual std::unique_ptr<Rows> query() = 0;
};

// One open connection.
class Database {
public:
        virtual ~Database() = default;
        // "SQLite" or "PostgreSQL", the start of each message.
        virtual const char* name() const = 0;
        // False once the connection is known to be broken; costs no round trip.
        virtual bool alive() = 0;
        // Runs one or more statements; returns the rows changed by the last.
        virtual long long execute(const std::string& sql) = 0;
        virtual std::unique_ptr<Rows> query(const std::string& sql) = 0;
        virtual std::unique_ptr<Statement> prepare(const std::string& sql) = 0;
        virtual void begin() = 0;
        virtual void commit() = 0;
        virtual void rollback() = 0;
        virtual bool inTransaction() = 0;
        // Makes the connection as good as new for its next borrower, after its statements
        // and rows are gone and any transaction has been rolled back.
        virtual void recycle() = 0;
};

std::unique_ptr<Database> openSQLite(const DatabaseURL& url);
std::unique_ptr<Database> openPostgres(const DatabaseURL& url);

}  // namespace vdb
