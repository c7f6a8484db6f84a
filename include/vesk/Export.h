/*
 * Build glue shared by every public header. The library is built with hidden
 * visibility; VESK_API marks the names that make up its interface.
 */
#ifndef VESK_EXPORT_INCLUDED
#define VESK_EXPORT_INCLUDED

#define VESK_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define VESK_BEGIN_DECLS extern "C" {
#define VESK_END_DECLS }
#else
#define VESK_BEGIN_DECLS
#define VESK_END_DECLS
#endif

/* printf-style checking of a format argument and its variadic arguments. */
#define VESK_PRINTF(f, a) __attribute__((format(printf, f, a)))

#endif
