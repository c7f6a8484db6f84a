/*
 * Realm: the process-wide store of users and roles, and the permission checks of
 * requests that fall under security constraints.
 *
 * Users live in the database of a libvdb connection pool, in the tables
 * users(uname, password), where password is the MD5 digest of the password as 32
 * uppercase hexadecimal characters, and userroles(uname, role). The server only reads
 * them. Up to 1000 loaded users stay cached, the least recently used idle one leaving
 * first. The Realm owns the pool, which the session store shares; every database error
 * raises SQLException. Lookups and checks are safe from any thread. The principal
 * returned by Realm_authenticate and Realm_getPrincipal carries one reference for the
 * caller, given back with Principal_decrement. Absent handles fail the check "R".
 */
#ifndef VESK_REALM_INCLUDED
#define VESK_REALM_INCLUDED

#include <vdb/ConnectionPool.h>

#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/List.h>
#include <vesk/Principal.h>

VESK_BEGIN_DECLS

typedef struct Realm_S* Realm_T;

/* The singleton, made on first use. */
VESK_API Realm_T Realm_getInstance(void);

/* Frees the pool, every cached principal whatever its count, and the singleton. */
VESK_API void Realm_free(void);

/* Makes database, which the Realm now owns, its user database and starts it; a pool set
   before is freed. Checks "database". */
VESK_API void Realm_setDatabase(Realm_T R, ConnectionPool_T database);

/* The user database, or NULL while none is set. */
VESK_API ConnectionPool_T Realm_getDatabase(Realm_T R);

/* The user name with that password, or NULL for an unknown user, a wrong password, NULL
   arguments or a database failure (logged). */
VESK_API Principal_T Realm_authenticate(Realm_T R, const char* name, const char* credentials);

/* Login by client certificate is not supported: always NULL. */
VESK_API Principal_T Realm_authenticateX509(Realm_T R);

/* The user name without a password check, or NULL if there is none; checks "name". */
VESK_API Principal_T Realm_getPrincipal(Realm_T R, const char* name);

/* Drops the user from the cache, so that the next lookup reads the database again; the
   record is freed now or when its last reference goes. */
VESK_API void Realm_invalidate(Realm_T R, const char* name);

/* The transport check of the SecurityConstraint_T list constraints: true to go on;
   false after redirecting a plain request to the https port, or answering 403. */
VESK_API int Realm_hasUserDataPermission(Realm_T R, HttpRequest_T req, HttpResponse_T res,
                                         List_T constraints);

/* The client address check: true to go on; false after answering 403. */
VESK_API int Realm_hasIpAddressPermission(Realm_T R, HttpRequest_T req, HttpResponse_T res,
                                          List_T constraints);

/* The role check of the request's user: true to go on; false after answering 403. */
VESK_API int Realm_hasResourcePermission(Realm_T R, HttpRequest_T req, HttpResponse_T res,
                                         List_T constraints);

VESK_END_DECLS

#endif
