/*
 * SessionManager: the sessions of one web application.
 *
 * A Context configured with maxActiveSessions above 0 has one manager, allocated in
 * the Context's arena. It maps session ids to sessions, creates sessions under two
 * limits (at most maxActiveSessions plus one in its table; never-used sessions are
 * recycled once more than 1000 wait), and drops dead ones when a request touches them
 * or a creation finds the table full; there is no timer. With saveSessions set it
 * stores the used sessions in the Realm's database at stop and, at start, learns the
 * ids stored there and reads each session on its first request. All operations are
 * safe on many threads and check "M".
 */
#ifndef VESK_SESSIONMANAGER_INCLUDED
#define VESK_SESSIONMANAGER_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>
#include <vesk/HttpSession.h>

VESK_BEGIN_DECLS

typedef struct SessionManager_S* SessionManager_T;
typedef struct Context_S* Context_T;

/* A manager for context in arena: at most 4096 sessions, 900 seconds' interval, not
   saving. Checks "arena" and "context". */
VESK_API SessionManager_T SessionManager_new(Arena_T arena, Context_T context);
/* Destroys the mutex and clears *M; the memory is the arena's. Checks "M && *M". */
VESK_API void SessionManager_free(SessionManager_T* M);
/* Takes the Realm's database and, when saving, learns the ids of the stored sessions
   of this context that have not expired. */
VESK_API void SessionManager_start(SessionManager_T M);
/* When saving, stores every used valid session and deletes expired rows; then frees
   every session in memory, in use or not. */
VESK_API void SessionManager_stop(SessionManager_T M);
/* A new session with a fresh id and one reference taken for the caller, or NULL when
   the limit is reached (logged once until a creation succeeds again). */
VESK_API HttpSession_T SessionManager_createSession(SessionManager_T M);
/* The session of id, read from the database on first use, with one reference taken for
   the caller; NULL for a NULL or unknown id, and for a dead session that no request
   holds, which is freed. */
VESK_API HttpSession_T SessionManager_findSession(SessionManager_T M, const char* id);
/* Frees the session of id if no request holds it. */
VESK_API void SessionManager_remove(SessionManager_T M, const char* id);
/* The number of sessions in memory that have been used and are valid. */
VESK_API int SessionManager_getActiveSessions(SessionManager_T M);
/* The owning Context. */
VESK_API Context_T SessionManager_getContext(SessionManager_T M);
/* The session limit. */
VESK_API int SessionManager_getMaxActiveSessions(SessionManager_T M);
/* Sets the session limit. */
VESK_API void SessionManager_setMaxActiveSessions(SessionManager_T M, int max);
/* The expiry interval in seconds given to new sessions. */
VESK_API int SessionManager_getMaxInactiveInterval(SessionManager_T M);
/* Sets the expiry interval of new sessions. Checks "interval>0". */
VESK_API void SessionManager_setMaxInactiveInterval(SessionManager_T M, int interval);
/* True when sessions are stored at stop. */
VESK_API int SessionManager_getSaveSessions(SessionManager_T M);
/* Sets whether sessions are stored at stop; read by SessionManager_start. */
VESK_API void SessionManager_saveSessions(SessionManager_T M, int value);

VESK_END_DECLS

#endif
