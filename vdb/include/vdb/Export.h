/*
 * Build glue shared by libvdb's public headers. The library is built with hidden
 * visibility; VDB_API marks the names that make up its interface.
 */
#ifndef VDB_EXPORT_INCLUDED
#define VDB_EXPORT_INCLUDED

#define VDB_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define VDB_BEGIN_DECLS extern "C" {
#define VDB_END_DECLS }
#else
#define VDB_BEGIN_DECLS
#define VDB_END_DECLS
#endif

/* printf-style checking of a format argument and its variadic arguments. */
#define VDB_PRINTF(f, a) __attribute__((format(printf, f, a)))

#endif
