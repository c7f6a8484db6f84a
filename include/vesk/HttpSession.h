/*
 * HttpSession: the server-side state of one client of one web application.
 *
 * A session holds text attributes, the logged-in Principal, the authentication type
 * and the times that decide its expiry. Sessions are made, found and freed by their
 * SessionManager; a request holds one reference to its session from
 * HttpRequest_getSession until HttpRequest_end, and an invalidated session lives on
 * until its last reference is given back. Attribute operations lock the session and
 * may run on many threads at once; the times, the validity flags, the principal and
 * the auth type are plain fields. Texts handed out by getters stay the session's,
 * except HttpSession_getAttribute, which copies into the present request's arena.
 * A session can be stored in and loaded from the `session` table of the Realm's
 * database, its attributes in one blob. A NULL session fails the check "S".
 */
#ifndef VESK_HTTPSESSION_INCLUDED
#define VESK_HTTPSESSION_INCLUDED

#include <time.h>

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct HttpSession_S* HttpSession_T;
typedef struct SessionManager_S* SessionManager_T;
typedef struct Principal_S* Principal_T;
typedef struct ServletContext_S* ServletContext_T;

/* A new, valid, new-flagged session of manager's context, with no id, no attributes,
   all times 0 and an interval of -1. Checks "manager". */
VESK_API HttpSession_T HttpSession_new(SessionManager_T manager);
/* Frees the attributes, texts and mutex, gives back the principal's reference and
   clears *S. The database is not touched. Checks "S && *S". */
VESK_API void HttpSession_free(HttpSession_T* S);
/* The stored session id of the `session` table, read from the Realm's database and
   marked persistent; NULL when there is none or on any failure, which is logged.
   Checks "id". */
VESK_API HttpSession_T HttpSession_load(SessionManager_T manager, const char* id);
/* Writes the session to the `session` table, updating its row or inserting one. A
   missing connection or an SQL failure is logged and nothing is stored. */
VESK_API void HttpSession_store(HttpSession_T S);

/* The id: 32 uppercase hexadecimal characters, or NULL before HttpSession_setId. */
VESK_API const char* HttpSession_getId(HttpSession_T S);
/* Replaces the id by a copy and sets all three times to the present. Checks "id". */
VESK_API void HttpSession_setId(HttpSession_T S, const char* id);
/* "BASIC" or "FORM" after a login, else NULL. */
VESK_API const char* HttpSession_getAuthType(HttpSession_T S);
/* Replaces the auth type by a copy (NULL clears it). */
VESK_API void HttpSession_setAuthType(HttpSession_T S, const char* type);
/* The logged-in user, or NULL; the session keeps its reference. */
VESK_API Principal_T HttpSession_getPrincipal(HttpSession_T S);
/* Keeps principal and takes a reference to it; one already held is not given back. */
VESK_API void HttpSession_setPrincipal(HttpSession_T S, Principal_T principal);
/* Seconds of inactivity after which the session expires; negative for never. */
VESK_API int HttpSession_getMaxInactiveInterval(HttpSession_T S);
/* Sets the expiry interval in seconds; negative for never. */
VESK_API void HttpSession_setMaxInactiveInterval(HttpSession_T S, int seconds);
/* Creation time in seconds, or -1 for an invalid session. */
VESK_API time_t HttpSession_getCreationTime(HttpSession_T S);
/* The time of the access before the latest one, in seconds. */
VESK_API time_t HttpSession_getLastAccessedTime(HttpSession_T S);
/* True until the session's first access. */
VESK_API int HttpSession_isNew(HttpSession_T S);
/* True for a session that is stored at stop (or was read from the database). */
VESK_API int HttpSession_isPersistent(HttpSession_T S);
/* Sets whether the session is stored at stop. */
VESK_API void HttpSession_setPersistent(HttpSession_T S, int value);
/* The ServletContext of the session's web application. */
VESK_API ServletContext_T HttpSession_getServletContext(HttpSession_T S);

/* Marks an access: clears the new flag and moves the access times on. */
VESK_API void HttpSession_access(HttpSession_T S);
/* True while the session is valid; marks it invalid for good once the time since the
   access before the latest one reaches the interval. */
VESK_API int HttpSession_isValid(HttpSession_T S);
/* Marks the session invalid; it is freed when its last reference is given back. */
VESK_API void HttpSession_invalidate(HttpSession_T S);
/* Takes a reference. */
VESK_API void HttpSession_increment(HttpSession_T S);
/* Gives back a reference; the last one of an invalid session frees it through its
   manager, after which S must not be used. */
VESK_API void HttpSession_decrement(HttpSession_T S);
/* The number of references held now. */
VESK_API int HttpSession_refcount(HttpSession_T S);

/* Sets name to the formatted text; a NULL format removes it. Does nothing for a NULL
   name or an invalid session. */
VESK_API void HttpSession_setAttribute(HttpSession_T S, const char* name, const char* format, ...)
    VESK_PRINTF(3, 4);
/* A copy of the value in the present request's arena, or NULL for a NULL or unknown
   name or outside a request. */
VESK_API const char* HttpSession_getAttribute(HttpSession_T S, const char* name);
/* The value as a number; -1 for a missing or empty value. A value that is not a number
   raises NumberFormatException. */
VESK_API int HttpSession_getIntAttribute(HttpSession_T S, const char* name);
/* True if name is set; false for a NULL name. */
VESK_API int HttpSession_hasAttribute(HttpSession_T S, const char* name);
/* Removes name. Does nothing for a NULL name or an invalid session. */
VESK_API void HttpSession_removeAttribute(HttpSession_T S, const char* name);
/* Removes every attribute. */
VESK_API void HttpSession_removeAttributes(HttpSession_T S);
/* Removes every attribute whose name starts with prefix, in any case. */
VESK_API void HttpSession_removeAttributeNames(HttpSession_T S, const char* prefix);
/* Calls apply(name, value, ap) for each attribute while the session is locked; apply
   must not use the attribute operations of the same session. */
VESK_API void HttpSession_map(HttpSession_T S,
                              void (*apply)(const char* name, const char* value, void* ap),
                              void* ap);

VESK_END_DECLS

#endif
