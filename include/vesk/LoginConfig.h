/*
 * LoginConfig: how users of an application log in: the method ("BASIC", "FORM" or
 * "CLIENT_CERT", as written), the realm's name, and a form's login and error pages.
 * It lives in an arena and is read-only once the application runs. Setters copy and
 * check their argument by name; a NULL object fails "L".
 */
#ifndef VESK_LOGINCONFIG_INCLUDED
#define VESK_LOGINCONFIG_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct LoginConfig_S* LoginConfig_T;

/* A new empty configuration in arena; checks "arena". */
VESK_API LoginConfig_T LoginConfig_new(Arena_T arena);
/* The form login page, or NULL. */
VESK_API const char* LoginConfig_getLoginPage(LoginConfig_T L);
VESK_API void LoginConfig_setLoginPage(LoginConfig_T L, const char* loginPage);
/* The form error page, or NULL. */
VESK_API const char* LoginConfig_getErrorPage(LoginConfig_T L);
VESK_API void LoginConfig_setErrorPage(LoginConfig_T L, const char* errorPage);
/* The realm's name, or NULL. */
VESK_API const char* LoginConfig_getRealmName(LoginConfig_T L);
VESK_API void LoginConfig_setRealmName(LoginConfig_T L, const char* realmName);
/* The authentication method, or NULL. */
VESK_API const char* LoginConfig_getAuthMethod(LoginConfig_T L);
VESK_API void LoginConfig_setAuthMethod(LoginConfig_T L, const char* authMethod);

VESK_END_DECLS

#endif
