/*
 * SecurityConstraint: collections joined to the roles allowed in, the client address
 * prefixes allowed in and a transport guarantee ("NONE" unless set). Lists are walked
 * last added first. It lives in an arena, is built at start-up and read without locks
 * afterwards. A NULL object or argument fails the check with its name; matching
 * functions answer false for a NULL path or address.
 */
#ifndef VESK_SECURITYCONSTRAINT_INCLUDED
#define VESK_SECURITYCONSTRAINT_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/List.h>
#include <vesk/SecurityCollection.h>

VESK_BEGIN_DECLS

typedef struct SecurityConstraint_S* SecurityConstraint_T;

/* A new constraint in arena; checks "arena". */
VESK_API SecurityConstraint_T SecurityConstraint_new(Arena_T arena);
/* Adds a collection; checks "collection". */
VESK_API void SecurityConstraint_addCollection(SecurityConstraint_T S,
                                               SecurityCollection_T collection);
/* A role allowed in; one starting with '*' allows every role. Checks "authRole". */
VESK_API void SecurityConstraint_addAuthRole(SecurityConstraint_T S, const char* authRole);
/* Whether a role is required. */
VESK_API void SecurityConstraint_setAuthConstraint(SecurityConstraint_T S, int value);
VESK_API int SecurityConstraint_getAuthConstraint(SecurityConstraint_T S);
/* Whether every role is allowed. */
VESK_API int SecurityConstraint_allRoles(SecurityConstraint_T S);
/* Whether principal has an allowed role; false for NULL. */
VESK_API int SecurityConstraint_findAuthRoles(SecurityConstraint_T S, Principal_T principal);
/* A client address prefix, cut at its first '*'; checks "IpAddress". */
VESK_API void SecurityConstraint_addIpAddress(SecurityConstraint_T S, const char* IpAddress);
/* Whether address is allowed in: always with no prefixes, and an IPv4 client on an IPv6
   socket ("::ffff:") by its IPv4 text. */
VESK_API int SecurityConstraint_findIpAddress(SecurityConstraint_T S, const char* address);
/* Whether a collection applies to path and method. */
VESK_API int SecurityConstraint_included(SecurityConstraint_T S, const char* path,
                                         const char* method);
/* Whether any collection has CSRF-protected paths. */
VESK_API int SecurityConstraint_containsCSRFProtection(SecurityConstraint_T S);
/* The first collection that protects path against CSRF, or NULL. */
VESK_API SecurityCollection_T SecurityConstraint_getCSRFProtectedCollection(SecurityConstraint_T S,
                                                                            const char* path);
/* The transport guarantee: "NONE", "INTEGRAL" or "CONFIDENTIAL" as written. */
VESK_API const char* SecurityConstraint_getUserConstraint(SecurityConstraint_T S);
VESK_API void SecurityConstraint_setUserConstraint(SecurityConstraint_T S,
                                                   const char* userConstraint);
/* The display name, or NULL. */
VESK_API const char* SecurityConstraint_getDisplayName(SecurityConstraint_T S);
VESK_API void SecurityConstraint_setDisplayName(SecurityConstraint_T S, const char* displayName);

VESK_END_DECLS

#endif
