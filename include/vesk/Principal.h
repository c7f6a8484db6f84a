/*
 * Principal: one user of the Realm, with a name, a password digest and a set of roles.
 *
 * Principals are made by the Realm when a user is loaded from its database and cached
 * there; requests and sessions hold them by reference count. A principal whose count
 * falls to zero stays cached, unless it was purged: then the last Principal_decrement
 * frees it. Role names are matched case-sensitively and are not changed after loading,
 * so reading them takes no lock. The count changes atomically. Absent handles fail the
 * check "P".
 */
#ifndef VESK_PRINCIPAL_INCLUDED
#define VESK_PRINCIPAL_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Principal_S* Principal_T;

/* A new principal with no roles and no references, holding copies of name and of the
   stored digest credentials; checks "name" and "credentials". Free it with Principal_free. */
VESK_API Principal_T Principal_new(const char* name, const char* credentials);

/* Frees the principal, whatever its count, and clears *P. */
VESK_API void Principal_free(Principal_T* P);

/* The user name, the principal's own. */
VESK_API const char* Principal_getName(Principal_T P);

/* Adds a copy of role; checks "role". */
VESK_API void Principal_addRole(Principal_T P, const char* role);

/* True if the user has role; false for NULL. */
VESK_API int Principal_hasRole(Principal_T P, const char* role);

/* True if the MD5 digest of credentials, as 32 uppercase hexadecimal characters, is the
   stored digest; compared in constant time. False for NULL. */
VESK_API int Principal_authenticate(Principal_T P, const char* credentials);

/* Takes a reference. */
VESK_API void Principal_increment(Principal_T P);

/* Gives a reference back; frees a purged principal when its last reference goes. */
VESK_API void Principal_decrement(Principal_T P);

/* The references held. */
VESK_API int Principal_refcount(Principal_T P);

/* Marks the principal to be freed when its last reference goes. */
VESK_API void Principal_purge(Principal_T P);

VESK_END_DECLS

#endif
