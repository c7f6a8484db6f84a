/*
 * SQLException: the exception type of database failures.
 *
 * libvdb owns and exports the object; it never raises it itself. A program that
 * works with exceptions installs an abort handler on its pool that raises it with
 * the library's message (see ConnectionPool_setAbortHandler). The type is the plain
 * struct of vesk/Exception.h, so using it needs no link with the server library.
 */
#ifndef VDB_SQLEXCEPTION_INCLUDED
#define VDB_SQLEXCEPTION_INCLUDED

#include <vesk/Exception.h>

#include <vdb/Export.h>

VDB_BEGIN_DECLS

/* Named "SQLException". */
VDB_API extern const Exception_T SQLException;

VDB_END_DECLS

#endif
