#include <vdb/PreparedStatement.h>

#include "Handles.hpp"

namespace {

// Binds through bind after checking that parameterIndex names a parameter of P. Binding
// rewinds the statement, which ends the rows of its last query.
template <typename Bind>
void bindChecked(PreparedStatement_T P, int parameterIndex, Bind&& bind) {
        vdb::guard(P->connection->handler(), 0, [&] {
                int n = P->statement->parameterCount();
                if (parameterIndex < 1 || parameterIndex > n)
                        vdb::fail("%s: parameter %d is out of range, %s has %d",
                                  P->connection->backend(), parameterIndex,
                                  vdb::quote(P->sql).c_str(), n);
                P->result.reset();
                bind();
                return 0;
        });
}

}  // namespace

void PreparedStatement_setString(PreparedStatement_T P, int parameterIndex, const char* x) {
        VDB_CHECK(P);
        bindChecked(P, parameterIndex, [&] {
                if (x)
                        P->statement->bindText(parameterIndex, x);
                else
                        P->statement->bindNull(parameterIndex);
        });
}

void PreparedStatement_setInt(PreparedStatement_T P, int parameterIndex, int x) {
        VDB_CHECK(P);
        bindChecked(P, parameterIndex, [&] { P->statement->bindInteger(parameterIndex, x); });
}

void PreparedStatement_setLLong(PreparedStatement_T P, int parameterIndex, long long x) {
        VDB_CHECK(P);
        bindChecked(P, parameterIndex, [&] { P->statement->bindInteger(parameterIndex, x); });
}

void PreparedStatement_setBlob(PreparedStatement_T P, int parameterIndex, const void* data,
                               int size) {
        VDB_CHECK(P);
        bindChecked(P, parameterIndex, [&] {
                if (!data)
                        P->statement->bindNull(parameterIndex);
                else if (size < 0)
                        vdb::fail("%s: blob size %d for parameter %d is negative",
                                  P->connection->backend(), size, parameterIndex);
                else
                        P->statement->bindBlob(parameterIndex, data, size);
        });
}

int PreparedStatement_execute(PreparedStatement_T P) {
        VDB_CHECK(P);
        return vdb::guard(P->connection->handler(), 0, [&] {
                P->result.reset();
                P->rowsChanged = 0;
                P->rowsChanged = P->connection->rowsChanged = P->statement->execute();
                return 1;
        });
}

ResultSet_T PreparedStatement_executeQuery(PreparedStatement_T P) {
        VDB_CHECK(P);
        return vdb::guard<ResultSet_T>(P->connection->handler(), nullptr, [&] {
                P->result.reset();
                P->rowsChanged = 0;
                P->result = std::make_unique<ResultSet_S>(P->connection, P->statement->query());
                return P->result.get();
        });
}

long long PreparedStatement_rowsChanged(PreparedStatement_T P) {
        VDB_CHECK(P);
        return P->rowsChanged;
}

int PreparedStatement_getParameterCount(PreparedStatement_T P) {
        VDB_CHECK(P);
        return P->statement->parameterCount();
}
