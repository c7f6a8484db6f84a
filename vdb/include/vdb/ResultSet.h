/*
 * ResultSet: the rows of one query, read forward one row at a time.
 *
 * A result set belongs to what ran the query: one from Connection_executeQuery is
 * valid until the next Connection_execute or Connection_executeQuery on that
 * connection, one from PreparedStatement_executeQuery until that statement is bound
 * or run again; Connection_close ends both. Columns are numbered from 1. Texts and
 * blobs handed out stay the result set's and are valid until the next ResultSet_next.
 * A column index out of range, a read with no current row or a value that is not a
 * number goes to the pool's abort handler; if the handler returns, the getter returns
 * the failure value named below. A NULL R writes the check to standard error and
 * aborts.
 */
#ifndef VDB_RESULTSET_INCLUDED
#define VDB_RESULTSET_INCLUDED

#include <vdb/Export.h>

VDB_BEGIN_DECLS

typedef struct ResultSet_S* ResultSet_T;

/* Moves to the next row: 1 if there is one, 0 at the end or on failure. */
VDB_API int ResultSet_next(ResultSet_T R);

/* The number of columns; 0 for a statement that yields none. */
VDB_API int ResultSet_getColumnCount(ResultSet_T R);

/* The name of column columnIndex, or NULL on failure. */
VDB_API const char* ResultSet_getColumnName(ResultSet_T R, int columnIndex);

/* 1 if the column of the current row is SQL NULL, else 0; 1 on failure. */
VDB_API int ResultSet_isnull(ResultSet_T R, int columnIndex);

/* The column as text, or NULL for SQL NULL or on failure. */
VDB_API const char* ResultSet_getString(ResultSet_T R, int columnIndex);

/* The column as an int; 0 for SQL NULL or on failure. A text column must hold a
   number; a fraction is cut off; a value outside the range of int is a failure. */
VDB_API int ResultSet_getInt(ResultSet_T R, int columnIndex);

/* The column as a long long, by the rules of ResultSet_getInt. */
VDB_API long long ResultSet_getLLong(ResultSet_T R, int columnIndex);

/* The column's bytes, with their count in *size: a writable buffer with a zero byte
   after the last one, so that it can be parsed in place. SQL NULL or a failure gives
   NULL and *size 0; an empty blob gives an empty buffer and *size 0. */
VDB_API void* ResultSet_getBlob(ResultSet_T R, int columnIndex, int* size);

VDB_END_DECLS

#endif
