#include <stdarg.h>

#include <vdb/Connection.h>

#include "Handles.hpp"

namespace {

// SQLError if the SQL text of Connection_execute or Connection_executeQuery could not be made.
void checkFormatted(Connection_S* C, const char* problem) {
        if (problem)
                vdb::fail("%s: cannot make the SQL text -- %s", C->backend(), problem);
}

}  // namespace

void Connection_close(Connection_T C) {
        VDB_CHECK(C);
        bool reusable = true;
        try {
                C->result.reset();
                C->statements.clear();
                if (C->database->inTransaction())
                        C->database->rollback();
                C->database->recycle();
        } catch (const vdb::SQLError&) {
                reusable = false;
        } catch (const std::bad_alloc&) {
                reusable = false;
        }
        C->rowsChanged = 0;
        vdb::giveBack(C, reusable);
}

int Connection_execute(Connection_T C, const char* format, ...) {
        VDB_CHECK(C);
        std::string sql;
        va_list ap;
        va_start(ap, format);
        const char* problem = vdb::vformatTo(sql, format, ap);
        va_end(ap);
        return vdb::guard(C->handler(), 0, [&] {
                checkFormatted(C, problem);
                C->result.reset();
                C->rowsChanged = C->database->execute(sql);
                return 1;
        });
}

ResultSet_T Connection_executeQuery(Connection_T C, const char* format, ...) {
        VDB_CHECK(C);
        std::string sql;
        va_list ap;
        va_start(ap, format);
        const char* problem = vdb::vformatTo(sql, format, ap);
        va_end(ap);
        return vdb::guard<ResultSet_T>(C->handler(), nullptr, [&] {
                checkFormatted(C, problem);
                C->result.reset();
                C->result = std::make_unique<ResultSet_S>(C, C->database->query(sql));
                return C->result.get();
        });
}

PreparedStatement_T Connection_prepareStatement(Connection_T C, const char* sql) {
        VDB_CHECK(C);
        return vdb::guard<PreparedStatement_T>(C->handler(), nullptr, [&] {
                if (!sql)
                        vdb::fail("%s: cannot prepare a NULL statement", C->backend());
                C->statements.push_back(
                    std::make_unique<PreparedStatement_S>(C, C->database->prepare(sql), sql));
                return C->statements.back().get();
        });
}

int Connection_beginTransaction(Connection_T C) {
        VDB_CHECK(C);
        return vdb::guard(C->handler(), 0, [&] {
                C->database->begin();
                return 1;
        });
}

int Connection_commit(Connection_T C) {
        VDB_CHECK(C);
        return vdb::guard(C->handler(), 0, [&] {
                C->database->commit();
                return 1;
        });
}

int Connection_rollback(Connection_T C) {
        VDB_CHECK(C);
        return vdb::guard(C->handler(), 0, [&] {
                C->database->rollback();
                return 1;
        });
}

long long Connection_rowsChanged(Connection_T C) {
        VDB_CHECK(C);
        return C->rowsChanged;
}

int Connection_isSupported(const char* protocolOrURL) {
        return vdb::protocolOf(protocolOrURL) >= 0;
}
