// A user and session database for tests: an SQLite file with the tables the server reads
// (users, userroles and session, their columns in the order the server expects), made and
// filled here because the server never creates tables.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <vdb/vdb.h>

#include <vesk/Crypto.h>

namespace testdb {

struct Error : std::runtime_error {
        using std::runtime_error::runtime_error;
};

[[noreturn]] inline void raise(const char* error) {
        throw Error(error);
}

// MD5 of password as the users table stores it: 32 uppercase hexadecimal characters.
inline std::string digest(const std::string& password) {
        char md5[MD_SIZE];
        return Crypto_md5(password.c_str(), md5) ? md5 : "";
}

class Database {
public:
        // Makes the file at path (absolute) with empty tables.
        explicit Database(std::string path) : path_(std::move(path)) {
                std::string url = "sqlite://" + path_ + "?create=true";
                pool_ = ConnectionPool_new(url.c_str());
                ConnectionPool_setInitialConnections(pool_, 1);
                ConnectionPool_setMaxConnections(pool_, 1);
                ConnectionPool_setAbortHandler(pool_, raise);
                if (!ConnectionPool_start(pool_))
                        throw Error("cannot open " + path_);
                execute(
                    "CREATE TABLE users(uname TEXT PRIMARY KEY, password TEXT);"
                    "CREATE TABLE userroles(uname TEXT, role TEXT);"
                    "CREATE TABLE session(id TEXT PRIMARY KEY, context TEXT, ctime INTEGER, atime "
                    "INTEGER, "
                    "itime INTEGER, authtype TEXT, principal TEXT, data BLOB);");
        }
        ~Database() { ConnectionPool_free(&pool_); }
        Database(const Database&) = delete;
        Database& operator=(const Database&) = delete;

        const std::string& path() const { return path_; }
        // The URL a <Realm> names the file by.
        std::string url() const { return "sqlite://" + path_; }

        // Runs sql, which may hold several statements.
        void execute(const std::string& sql) {
                Connection_T c = connect();
                try {
                        Connection_execute(c, "%s", sql.c_str());
                } catch (...) {
                        Connection_close(c);
                        throw;
                }
                Connection_close(c);
        }

        // A user with that password and those roles.
        void addUser(const std::string& name, const std::string& password,
                     const std::vector<std::string>& roles = {}) {
                addUserWithDigest(name, digest(password), roles);
        }
        void addUserWithDigest(const std::string& name, const std::string& stored,
                               const std::vector<std::string>& roles = {}) {
                Connection_T c = connect();
                try {
                        PreparedStatement_T user = Connection_prepareStatement(
                            c, "INSERT INTO users(uname, password) VALUES(?, ?);");
                        PreparedStatement_setString(user, 1, name.c_str());
                        PreparedStatement_setString(user, 2, stored.c_str());
                        PreparedStatement_execute(user);
                        for (const std::string& role : roles) {
                                PreparedStatement_T r = Connection_prepareStatement(
                                    c, "INSERT INTO userroles(uname, role) VALUES(?, ?);");
                                PreparedStatement_setString(r, 1, name.c_str());
                                PreparedStatement_setString(r, 2, role.c_str());
                                PreparedStatement_execute(r);
                        }
                } catch (...) {
                        Connection_close(c);
                        throw;
                }
                Connection_close(c);
        }

        // The first column of the first row of query, or "" for no row or NULL.
        std::string scalar(const std::string& query) {
                Connection_T c = connect();
                std::string value;
                try {
                        ResultSet_T r = Connection_executeQuery(c, "%s", query.c_str());
                        if (ResultSet_next(r))
                                if (const char* s = ResultSet_getString(r, 1))
                                        value = s;
                } catch (...) {
                        Connection_close(c);
                        throw;
                }
                Connection_close(c);
                return value;
        }

private:
        Connection_T connect() {
                Connection_T c = ConnectionPool_getConnection(pool_);
                if (!c)
                        throw Error("no connection to " + path_);
                return c;
        }

        std::string path_;
        ConnectionPool_T pool_ = nullptr;
};

}  // namespace testdb
