/*
 * Connection: one open database connection, borrowed from a ConnectionPool.
 *
 * A connection is used by one thread at a time and given back with Connection_close,
 * after which the handle is not to be used again. The texts of Connection_execute and
 * Connection_executeQuery are printf formats: values formatted into them are the
 * caller's to quote. Every failure goes to the pool's abort handler; if the handler
 * returns, the call returns the failure value named below. A NULL C writes the check
 * to standard error and aborts.
 */
#ifndef VDB_CONNECTION_INCLUDED
#define VDB_CONNECTION_INCLUDED

#include <vdb/Export.h>
#include <vdb/PreparedStatement.h>
#include <vdb/ResultSet.h>

VDB_BEGIN_DECLS

typedef struct Connection_S* Connection_T;

/* Gives the connection back to its pool: an open transaction is rolled back and its
   statements and result sets are freed. Reports nothing: a connection that cannot be
   made clean again is closed instead. */
VDB_API void Connection_close(Connection_T C);

/* Runs the SQL formatted from format, which may hold several statements separated by
   ";": 1 on success, 0 on failure (statements before the failing one have run). */
VDB_API int Connection_execute(Connection_T C, const char* format, ...) VDB_PRINTF(2, 3);

/* Runs the one query formatted from format and returns its rows, owned by the
   connection; NULL on failure. */
VDB_API ResultSet_T Connection_executeQuery(Connection_T C, const char* format, ...)
    VDB_PRINTF(2, 3);

/* Compiles sql, with "?" for each parameter, into a statement owned by the
   connection; NULL on failure. */
VDB_API PreparedStatement_T Connection_prepareStatement(Connection_T C, const char* sql);

/* Starts a transaction (an immediate, write-locking one on SQLite): 1 on success, 0 on
   failure. */
VDB_API int Connection_beginTransaction(Connection_T C);

/* Commits the open transaction: 1 on success, 0 on failure. */
VDB_API int Connection_commit(Connection_T C);

/* Rolls the open transaction back: 1 on success, 0 on failure. */
VDB_API int Connection_rollback(Connection_T C);

/* The rows inserted, changed or deleted by the last statement run on the connection
   through Connection_execute or a PreparedStatement; 0 for other statements. */
VDB_API long long Connection_rowsChanged(Connection_T C);

/* True if the library serves the protocol, "sqlite" or "postgresql" in any case, or a
   URL of such a protocol; false for anything else and for NULL. */
VDB_API int Connection_isSupported(const char* protocolOrURL);

VDB_END_DECLS

#endif
