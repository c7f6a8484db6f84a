/*
 * PreparedStatement: one SQL statement with "?" placeholders, compiled once and run
 * any number of times with new parameter values.
 *
 * Statements belong to their connection and are freed by Connection_close.
 * Parameters are numbered from 1 and keep their values between runs until bound
 * again. A NULL string or blob binds SQL NULL. Texts and blobs are copied at binding.
 * Blobs travel as bytes and come back byte-exact. An index out of range or a failed
 * run goes to the pool's abort handler; if the handler returns, the call returns the
 * failure value named below (a failed binding leaves the parameter as it was). A NULL
 * P writes the check to standard error and aborts.
 */
#ifndef VDB_PREPAREDSTATEMENT_INCLUDED
#define VDB_PREPAREDSTATEMENT_INCLUDED

#include <vdb/Export.h>
#include <vdb/ResultSet.h>

VDB_BEGIN_DECLS

typedef struct PreparedStatement_S* PreparedStatement_T;

/* Binds a copy of the text x, or SQL NULL if x is NULL. */
VDB_API void PreparedStatement_setString(PreparedStatement_T P, int parameterIndex, const char* x);

/* Binds the integer x. */
VDB_API void PreparedStatement_setInt(PreparedStatement_T P, int parameterIndex, int x);

/* Binds the integer x. */
VDB_API void PreparedStatement_setLLong(PreparedStatement_T P, int parameterIndex, long long x);

/* Binds a copy of size bytes at data, or SQL NULL if data is NULL. */
VDB_API void PreparedStatement_setBlob(PreparedStatement_T P, int parameterIndex, const void* data,
                                       int size);

/* Runs the statement, dropping any rows it yields: 1 on success, 0 on failure. */
VDB_API int PreparedStatement_execute(PreparedStatement_T P);

/* Runs the statement and returns its rows, owned by the statement; NULL on failure. */
VDB_API ResultSet_T PreparedStatement_executeQuery(PreparedStatement_T P);

/* The rows inserted, changed or deleted by the statement's last run; 0 for others. */
VDB_API long long PreparedStatement_rowsChanged(PreparedStatement_T P);

/* The number of parameters in the statement. */
VDB_API int PreparedStatement_getParameterCount(PreparedStatement_T P);

VDB_END_DECLS

#endif
