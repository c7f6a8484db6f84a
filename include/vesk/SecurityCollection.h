/*
 * SecurityCollection: URL patterns and HTTP methods that one web-resource-collection
 * of a descriptor protects. Patterns are exact paths, "/prefix/ *" without the space,
 * "*.ext", or "/" ("/ *" is the same), matched case-sensitively against the whole
 * request URI. A pattern may also be protected against CSRF. A collection with no
 * methods applies to all. It lives in an arena, is built at start-up and read without
 * locks afterwards. A NULL object or argument fails the check with its name.
 */
#ifndef VESK_SECURITYCOLLECTION_INCLUDED
#define VESK_SECURITYCOLLECTION_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct SecurityCollection_S* SecurityCollection_T;

/* A new empty collection in arena; checks "arena". */
VESK_API SecurityCollection_T SecurityCollection_new(Arena_T arena);
/* Names a method, ignoring case; raises "Invalid HTTP method '%s'" for others. */
VESK_API void SecurityCollection_addMethod(SecurityCollection_T S, const char* method);
/* Whether the method (by its leading capitals) was named. */
VESK_API int SecurityCollection_findMethod(SecurityCollection_T S, const char* method);
/* Whether any method was named. */
VESK_API int SecurityCollection_hasMethods(SecurityCollection_T S);
/* Adds a pattern; raises "url-pattern too long, max length = %d" past 4096. */
VESK_API void SecurityCollection_addPattern(SecurityCollection_T S, const char* pattern);
/* Adds a pattern protected against CSRF. */
VESK_API void SecurityCollection_addPatternWithCSRFProtection(SecurityCollection_T S,
                                                              const char* pattern);
/* Whether path matches a pattern; false for NULL or a path without a leading '/'. */
VESK_API int SecurityCollection_findPattern(SecurityCollection_T S, const char* path);
/* Whether the pattern path matches first is CSRF-protected. */
VESK_API int SecurityCollection_isPathCSRFProtected(SecurityCollection_T S, const char* path);
/* Whether any pattern is CSRF-protected. */
VESK_API int SecurityCollection_containsCSRFProtectedPaths(SecurityCollection_T S);
/* The web-resource-name, or NULL. */
VESK_API const char* SecurityCollection_getName(SecurityCollection_T S);
VESK_API void SecurityCollection_setName(SecurityCollection_T S, const char* name);
/* The description, or NULL. */
VESK_API const char* SecurityCollection_getDescription(SecurityCollection_T S);
VESK_API void SecurityCollection_setDescription(SecurityCollection_T S, const char* description);

VESK_END_DECLS

#endif
