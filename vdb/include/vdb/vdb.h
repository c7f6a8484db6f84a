/*
 * libvdb: a database library with a connection pool, for SQLite and PostgreSQL.
 * Each module's header states its conventions; ConnectionPool.h states the URLs and
 * how errors are reported.
 */
#ifndef VDB_INCLUDED
#define VDB_INCLUDED

#include <vdb/Connection.h>
#include <vdb/ConnectionPool.h>
#include <vdb/PreparedStatement.h>
#include <vdb/ResultSet.h>
#include <vdb/SQLException.h>

#endif
