#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>
#include <string>
#include <vector>

#include <libpq-fe.h>

#include <vdb/ConnectionPool.h>

#include "Backend.hpp"
#include "Error.hpp"

namespace vdb {

namespace {

// libpq, and what it pulls in (Kerberos, LDAP, a second TLS library), would cost every
// process that links libvdb megabytes of memory and milliseconds at start, although most
// homes never name a PostgreSQL URL: it is loaded on the first connection to one.
#define VDB_LIBPQ_FUNCTIONS(X) \
        X(PQclear) X(PQcmdStatus) X(PQcmdTuples) X(PQconnectdbParams) X(PQerrorMessage) \
        X(PQexec) X(PQexecParams) X(PQexecPrepared) X(PQfinish) X(PQfname) X(PQfreemem) \
        X(PQftype) X(PQgetisnull) X(PQgetlength) X(PQgetvalue) X(PQisthreadsafe) \
        X(PQnfields) X(PQntuples) X(PQprepare) X(PQresultErrorField) X(PQresultStatus) \
        X(PQsetNoticeProcessor) X(PQstatus) X(PQtransactionStatus) X(PQunescapeBytea)

struct Libpq {
#define VDB_LIBPQ_MEMBER(name) decltype(&::name) name = nullptr;
        VDB_LIBPQ_FUNCTIONS(VDB_LIBPQ_MEMBER)
#undef VDB_LIBPQ_MEMBER
};
Libpq pq;
std::once_flag pqOnce;
std::string pqError;

void loadLibpq() {
        std::call_once(pqOnce, [] {
                void* library = dlopen("libpq.so.5", RTLD_NOW | RTLD_LOCAL);
                if (!library) {
                        const char* why = dlerror();
                        pqError = why ? why : "libpq.so.5 not found";
                        return;
                }
#define VDB_LIBPQ_RESOLVE(name)                                                   \
        pq.name = reinterpret_cast<decltype(pq.name)>(dlsym(library, #name));     \
        if (!pq.name) {                                                           \
                pqError = "libpq.so.5 has no " #name;                             \
                return;                                                           \
        }
                VDB_LIBPQ_FUNCTIONS(VDB_LIBPQ_RESOLVE)
#undef VDB_LIBPQ_RESOLVE
        });
        if (!pqError.empty())
                fail("PostgreSQL: cannot load the client library -- %s", pqError.c_str());
}

// A server that does not answer must not hold a thread that asked for a connection for
// the minutes that TCP would wait.
constexpr const char* kConnectTimeoutSeconds = "5";
constexpr Oid kByteaOid = 17;

struct Finish {
        void operator()(PGconn* conn) const { pq.PQfinish(conn); }
};
struct Clear {
        void operator()(PGresult* result) const { pq.PQclear(result); }
};
struct FreeMem {
        void operator()(unsigned char* p) const { pq.PQfreemem(p); }
};
using ConnectionHandle = std::unique_ptr<PGconn, Finish>;
using Result = std::unique_ptr<PGresult, Clear>;

// The server's message on one line: libpq's text ends in a newline and may span several.
std::string oneLine(const char* text) {
        std::string s;
        for (const char* p = text ? text : ""; *p; p++) {
                if (*p == '\n' || *p == '\r') {
                        if (!s.empty() && s.back() != ' ')
                                s += ' ';
                } else {
                        s += *p;
                }
        }
        while (!s.empty() && s.back() == ' ')
                s.pop_back();
        return s.empty() ? "no message from the server" : s;
}

// The result of a command, or SQLError with what the server said.
Result checked(PGconn* conn, PGresult* raw, const char* what, const std::string& sql) {
        Result result(raw);
        if (!result)
                fail("PostgreSQL: cannot %s %s -- %s", what, quote(sql).c_str(),
                     oneLine(pq.PQerrorMessage(conn)).c_str());
        switch (pq.PQresultStatus(result.get())) {
        case PGRES_COMMAND_OK:
        case PGRES_TUPLES_OK:
        case PGRES_EMPTY_QUERY:
                return result;
        default: {
                const char* primary = pq.PQresultErrorField(result.get(), PG_DIAG_MESSAGE_PRIMARY);
                fail("PostgreSQL: cannot %s %s -- %s", what, quote(sql).c_str(),
                     oneLine(primary ? primary : pq.PQerrorMessage(conn)).c_str());
        }
        }
}

// Rows changed by a command: the count in its tag, except for commands that only read.
long long changedBy(const PGresult* result) {
        const char* tag = pq.PQcmdStatus(const_cast<PGresult*>(result));
        for (const char* reading : {"SELECT", "FETCH", "MOVE"})
                if (strncmp(tag, reading, strlen(reading)) == 0)
                        return 0;
        const char* n = pq.PQcmdTuples(const_cast<PGresult*>(result));
        return *n ? strtoll(n, nullptr, 10) : 0;
}

// "?" placeholders become $1, $2, ...; those inside quotes and comments stay.
std::string numbered(const std::string& sql, int* count) {
        std::string out;
        *count = 0;
        for (size_t i = 0; i < sql.size(); i++) {
                char c = sql[i];
                if (c == '?') {
                        out += "$" + std::to_string(++*count);
                        continue;
                }
                size_t end = i + 1;
                if (c == '\'' || c == '"') {
                        // In E'...' a backslash escapes the next character.
                        bool escapes =
                            c == '\'' && i > 0 && (sql[i - 1] == 'E' || sql[i - 1] == 'e');
                        while (end < sql.size() && sql[end] != c)
                                end += escapes && sql[end] == '\\' ? 2 : 1;
                        end = std::min(end + 1, sql.size());
                } else if (c == '-' && i + 1 < sql.size() && sql[i + 1] == '-') {
                        end = sql.find('\n', i);
                        end = end == std::string::npos ? sql.size() : end;
                } else if (c == '/' && i + 1 < sql.size() && sql[i + 1] == '*') {
                        end = sql.find("*/", i + 2);
                        end = end == std::string::npos ? sql.size() : end + 2;
                }
                out.append(sql, i, end - i);
                i = end - 1;
        }
        return out;
}

class PostgresRows : public Rows {
public:
        explicit PostgresRows(Result result) : result_(std::move(result)) {}

        bool next() override {
                if (row_ < pq.PQntuples(result_.get()))
                        row_++;
                return row_ < pq.PQntuples(result_.get());
        }
        int columnCount() override { return pq.PQnfields(result_.get()); }
        const char* columnName(int column) override { return pq.PQfname(result_.get(), column); }
        bool isNull(int column) override { return pq.PQgetisnull(result_.get(), row_, column); }
        const char* text(int column) override {
                return isNull(column) ? nullptr : pq.PQgetvalue(result_.get(), row_, column);
        }
        void bytes(int column, std::string& into) override {
                const char* value = pq.PQgetvalue(result_.get(), row_, column);
                if (pq.PQftype(result_.get(), column) != kByteaOid) {
                        into.assign(value, pq.PQgetlength(result_.get(), row_, column));
                        return;
                }
                size_t size = 0;
                std::unique_ptr<unsigned char, FreeMem> decoded(
                    pq.PQunescapeBytea(reinterpret_cast<const unsigned char*>(value), &size));
                if (!decoded)
                        throw std::bad_alloc();
                into.assign(reinterpret_cast<const char*>(decoded.get()), size);
        }

private:
        Result result_;
        int row_ = -1;
};

class PostgresStatement : public Statement {
public:
        PostgresStatement(PGconn* conn, std::string name, std::string sql, int parameters)
            : conn_(conn),
              name_(std::move(name)),
              sql_(std::move(sql)),
              values_(parameters),
              bound_(parameters, false),
              lengths_(parameters, 0),
              formats_(parameters, 0) {}

        int parameterCount() override { return static_cast<int>(values_.size()); }
        void bindNull(int parameter) override { set(parameter, false, {}, 0); }
        void bindText(int parameter, const char* text) override { set(parameter, true, text, 0); }
        void bindInteger(int parameter, long long value) override {
                set(parameter, true, std::to_string(value), 0);
        }
        // Binary, so that every byte arrives as it is, with no escaping on the way.
        void bindBlob(int parameter, const void* data, int size) override {
                set(parameter, true, std::string(static_cast<const char*>(data), size), 1);
        }
        long long execute() override { return changedBy(run().get()); }
        std::unique_ptr<Rows> query() override { return std::make_unique<PostgresRows>(run()); }

private:
        void set(int parameter, bool bound, std::string value, int format) {
                size_t i = static_cast<size_t>(parameter - 1);
                values_[i] = std::move(value);
                bound_[i] = bound;
                lengths_[i] = static_cast<int>(values_[i].size());
                formats_[i] = format;
        }
        Result run() {
                trace(sql_);
                std::vector<const char*> values(values_.size());
                for (size_t i = 0; i < values.size(); i++)
                        values[i] = bound_[i] ? values_[i].c_str() : nullptr;
                return checked(conn_,
                               pq.PQexecPrepared(conn_, name_.c_str(), static_cast<int>(values.size()),
                                              values.data(), lengths_.data(), formats_.data(), 0),
                               "execute", sql_);
        }

        PGconn* conn_;
        std::string name_;
        std::string sql_;
        std::vector<std::string> values_;
        std::vector<bool> bound_;
        std::vector<int> lengths_;
        std::vector<int> formats_;
};

class PostgresDatabase : public Database {
public:
        explicit PostgresDatabase(ConnectionHandle conn) : conn_(std::move(conn)) {}

        const char* name() const override { return "PostgreSQL"; }
        bool alive() override { return pq.PQstatus(conn_.get()) == CONNECTION_OK; }

        long long execute(const std::string& sql) override { return changedBy(command(sql).get()); }
        std::unique_ptr<Rows> query(const std::string& sql) override {
                trace(sql);
                // The one-statement form of the protocol, as a query is one statement.
                return std::make_unique<PostgresRows>(
                    checked(conn_.get(),
                            pq.PQexecParams(conn_.get(), sql.c_str(), 0, nullptr, nullptr, nullptr,
                                         nullptr, 0),
                            "run", sql));
        }
        std::unique_ptr<Statement> prepare(const std::string& sql) override {
                int parameters;
                std::string text = numbered(sql, &parameters);
                std::string name = "vdb" + std::to_string(++statements_);
                checked(conn_.get(), pq.PQprepare(conn_.get(), name.c_str(), text.c_str(), 0, nullptr),
                        "prepare", sql);
                prepared_ = true;
                return std::make_unique<PostgresStatement>(conn_.get(), name, text, parameters);
        }
        void begin() override { command("BEGIN"); }
        void commit() override {
                // COMMIT of a transaction that an error has aborted succeeds as a ROLLBACK.
                if (strcmp(pq.PQcmdStatus(command("COMMIT").get()), "ROLLBACK") == 0)
                        fail(
                            "PostgreSQL: cannot commit -- an earlier error in the transaction "
                            "rolled it back");
        }
        void rollback() override { command("ROLLBACK"); }
        bool inTransaction() override {
                PGTransactionStatusType status = pq.PQtransactionStatus(conn_.get());
                return status == PQTRANS_INTRANS || status == PQTRANS_INERROR;
        }
        // Prepared statements live in the server's session; a borrower after this one would
        // only collect them.
        void recycle() override {
                if (prepared_)
                        command("DEALLOCATE ALL");
                prepared_ = false;
                if (pq.PQtransactionStatus(conn_.get()) != PQTRANS_IDLE)
                        fail("PostgreSQL: the connection is not idle");
        }

private:
        Result command(const std::string& sql) {
                trace(sql);
                return checked(conn_.get(), pq.PQexec(conn_.get(), sql.c_str()), "execute", sql);
        }

        ConnectionHandle conn_;
        unsigned long statements_ = 0;
        bool prepared_ = false;
};

// Notices (such as "there is no transaction in progress") are for a person debugging.
void notice(void*, const char* message) {
        if (VBDEBUG)
                fprintf(stderr, "vdb: %s", message);
}

}  // namespace

std::unique_ptr<Database> openPostgres(const DatabaseURL& url) {
        loadLibpq();
        if (!pq.PQisthreadsafe())
                fail("PostgreSQL: libpq is built without thread support");
        std::vector<const char*> keywords, values;
        auto add = [&](const char* keyword, const std::string& value) {
                if (!value.empty()) {
                        keywords.push_back(keyword);
                        values.push_back(value.c_str());
                }
        };
        add("user", url.user);
        add("password", url.password);
        add("host", url.host);
        add("port", url.port);
        add("dbname", url.path);
        bool timeout = false;
        for (const auto& [name, value] : url.parameters) {
                keywords.push_back(name.c_str());
                values.push_back(value.c_str());
                timeout = timeout || name == "connect_timeout";
        }
        if (!timeout) {
                keywords.push_back("connect_timeout");
                values.push_back(kConnectTimeoutSeconds);
        }
        keywords.push_back(nullptr);
        values.push_back(nullptr);
        ConnectionHandle conn(pq.PQconnectdbParams(keywords.data(), values.data(), 0));
        if (!conn)
                throw std::bad_alloc();
        if (pq.PQstatus(conn.get()) != CONNECTION_OK)
                fail("PostgreSQL: cannot connect to \"%s\" -- %s", url.shown.c_str(),
                     oneLine(pq.PQerrorMessage(conn.get())).c_str());
        pq.PQsetNoticeProcessor(conn.get(), notice, nullptr);
        return std::make_unique<PostgresDatabase>(std::move(conn));
}

}  // namespace vdb
