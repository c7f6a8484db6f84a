#include <pthread.h>

#include <vdb/vdb.h>

#include <vesk/Context.h>
#include <vesk/Crypto.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/HttpSession.h>
#include <vesk/List.h>
#include <vesk/Realm.h>
#include <vesk/SessionManager.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/Time.h>
#include <vesk/assert.h>

#include "thread/Lock.hpp"
#include "util/Holder.hpp"

// Every container here is guarded by the mutex, and so is `rejected`: a request
// thread reads them only under it, so that the limit tests and the walks see one state.
struct SessionManager_S {
        List_T newSessions;
        Table_T sessions;
        int saveSessions;
        Context_T context;
        pthread_mutex_t mutex;
        int rejected;
        int maxActiveSessions;
        int maxInactiveInterval;
        ConnectionPool_T database;
        Arena_T arena;
};

namespace {

constexpr int kDefaultMaxActiveSessions = 4096;
constexpr int kDefaultMaxInactiveInterval = 900;
// Never-used sessions waiting beyond this many are taken back for new clients, so
// that clients which never return their cookie, such as crawlers, cannot fill the table.
constexpr int kRecycleThreshold = 1000;

// The table value of an id whose session lies in the database, not yet read.
char storedMark;
void* const kStored = &storedMark;

using Connection = vesk::Holder<Connection_T, Connection_close>;

HttpSession_T sessionOf(void* entry) {
        return entry == kStored ? nullptr : static_cast<HttpSession_T>(entry);
}

// Drops S from both containers and frees it; the caller holds the mutex.
void discard(SessionManager_T M, HttpSession_T S) {
        Table_remove(M->sessions, HttpSession_getId(S));
        List_remove(M->newSessions, S);
        HttpSession_free(&S);
}

// Frees every dead session that no request holds; the caller holds the mutex.
void reclaim(SessionManager_T M) {
        Table_rewind(M->sessions);
        while (void* entry = Table_next(M->sessions)) {
                HttpSession_T S = sessionOf(entry);
                if (S && !HttpSession_isValid(S) && HttpSession_refcount(S) < 1)
                        discard(M, S);
        }
}

// The oldest never-used session that no request holds, taken out of the table for
// reuse; the used and the held ones met on the way are only dropped from the list.
HttpSession_T recycle(SessionManager_T M) {
        while (void* e = List_pop(M->newSessions)) {
                HttpSession_T S = static_cast<HttpSession_T>(e);
                if (HttpSession_isNew(S) && HttpSession_refcount(S) < 1) {
                        Table_remove(M->sessions, HttpSession_getId(S));
                        return S;
                }
        }
        return nullptr;
}

// Enters the ids of this context's stored sessions that have not expired; each is
// read on its first request. The caller holds the mutex.
void loadStored(SessionManager_T M) {
        Connection connection(ConnectionPool_getConnection(M->database));
        if (!connection) {
                Error_error("Cannot load persistent sessions -- Connection not available\n");
                return;
        }
        TRY
                PreparedStatement_T p = Connection_prepareStatement(
                    connection.get(),
                    "SELECT id FROM session WHERE context = ? AND (atime > ? OR itime < 0);");
                PreparedStatement_setString(p, 1, Context_getContextPath(M->context));
                PreparedStatement_setLLong(p, 2, Time_now() - M->maxInactiveInterval);
                ResultSet_T r = PreparedStatement_executeQuery(p);
                while (r && ResultSet_next(r)) {
                        const char* id = ResultSet_getString(r, 1);
                        if (id && !Table_has(M->sessions, id))
                                Table_put(M->sessions, STR_DUP_ARENA(M->arena, id), kStored);
                }
        CATCH(SQLException)
                Error_error("SQLException when loading persistent sessions -- %s\n",
                            Exception_frame.message);
        END_TRY;
}

// Deletes the rows of every context that have expired by this manager's interval.
void removeExpired(SessionManager_T M) {
        Connection connection(M->database ? ConnectionPool_getConnection(M->database) : nullptr);
        if (!connection) {
                Error_error(
                    "Cannot remove expired persistent sessions -- Connection not available\n");
                return;
        }
        TRY
                PreparedStatement_T p = Connection_prepareStatement(
                    connection.get(), "DELETE FROM session WHERE atime < ? AND itime >= 0;");
                PreparedStatement_setLLong(p, 1, Time_now() - M->maxInactiveInterval);
                PreparedStatement_execute(p);
        CATCH(SQLException)
                Error_error("SQLException when removing expired stored sessions -- %s\n",
                            Exception_frame.message);
        END_TRY;
}

// Frees every session in memory; the ids still only stored stay. The caller holds
// the mutex.
void freeSessions(SessionManager_T M) {
        List_clear(M->newSessions);
        Table_rewind(M->sessions);
        while (void* entry = Table_next(M->sessions))
                if (HttpSession_T S = sessionOf(entry)) {
                        Table_remove(M->sessions, HttpSession_getId(S));
                        HttpSession_free(&S);
                }
}

}  // namespace

/* ------------------------------------------------------------------- Lifecycle */

SessionManager_T SessionManager_new(Arena_T arena, Context_T context) {
        assert(arena);
        assert(context);
        SessionManager_T M =
            static_cast<SessionManager_T>(ARENA_CALLOC(arena, 1, sizeof(struct SessionManager_S)));
        M->arena = arena;
        M->context = context;
        M->newSessions = List_alloc(arena);
        M->sessions = Table_alloc(arena, 4096, Str_cmp, Str_hash);
        M->maxActiveSessions = kDefaultMaxActiveSessions;
        M->maxInactiveInterval = kDefaultMaxInactiveInterval;
        Exception_wrapper(pthread_mutex_init(&M->mutex, nullptr));
        return M;
}

void SessionManager_free(SessionManager_T* M) {
        assert(M && *M);
        {
                // A manager freed without a stop (a start that failed half-way) still
                // owns its sessions.
                vesk::Lock lock((*M)->mutex);
                freeSessions(*M);
        }
        Exception_wrapper(pthread_mutex_destroy(&(*M)->mutex));
        *M = nullptr;
}

void SessionManager_start(SessionManager_T M) {
        assert(M);
        M->database = Realm_getDatabase(Realm_getInstance());
        if (M->saveSessions && M->database) {
                vesk::Lock lock(M->mutex);
                loadStored(M);
        }
        Error_debug("SessionManager for Context '%s' started\n",
                    Context_getContextPath(M->context));
}

void SessionManager_stop(SessionManager_T M) {
        assert(M);
        {
                vesk::Lock lock(M->mutex);
                if (M->saveSessions) {
                        Table_rewind(M->sessions);
                        while (void* entry = Table_next(M->sessions)) {
                                HttpSession_T S = sessionOf(entry);
                                if (S && !HttpSession_isNew(S) && HttpSession_isValid(S))
                                        HttpSession_store(S);
                        }
                        removeExpired(M);
                }
                freeSessions(M);
        }
        Error_debug("SessionManager for Context '%s' stopped\n",
                    Context_getContextPath(M->context));
}

/* -------------------------------------------------------------------- Sessions */

// The reference for the caller is taken under the mutex: a session that no request
// holds may be freed by any thread that holds the mutex, so counting it after the
// mutex is released would leave a moment in which it could go.
HttpSession_T SessionManager_createSession(SessionManager_T M) {
        assert(M);
        char id[33];
        if (!Crypto_sessionId(id))
                return nullptr;
        vesk::Lock lock(M->mutex);
        // "Above", not "at": the table may hold one session more than the limit.
        if (Table_length(M->sessions) > M->maxActiveSessions) {
                reclaim(M);
                if (Table_length(M->sessions) > M->maxActiveSessions) {
                        if (++M->rejected == 1)
                                Error_error(
                                    "Reached maximum allowed active Sessions (%d) for Context "
                                    "'%s'\n",
                                    M->maxActiveSessions, Context_getContextPath(M->context));
                        return nullptr;
                }
        }
        M->rejected = 0;
        HttpSession_T S = List_length(M->newSessions) > kRecycleThreshold ? recycle(M) : nullptr;
        if (!S)
                S = HttpSession_new(M);
        HttpSession_setId(S, id);
        HttpSession_setPersistent(S, M->saveSessions);
        HttpSession_setMaxInactiveInterval(S, M->maxInactiveInterval);
        Table_put(M->sessions, HttpSession_getId(S), S);
        List_append(M->newSessions, S);
        HttpSession_increment(S);
        return S;
}

HttpSession_T SessionManager_findSession(SessionManager_T M, const char* id) {
        assert(M);
        if (!id)
                return nullptr;
        vesk::Lock lock(M->mutex);
        void* entry = Table_get(M->sessions, id);
        if (!entry)
                return nullptr;
        HttpSession_T S = sessionOf(entry);
        if (!S) {
                S = HttpSession_load(M, id);
                // The stored entry's key is an arena copy; the session's own id keys it now.
                Table_remove(M->sessions, id);
                if (!S)
                        return nullptr;
                Table_put(M->sessions, HttpSession_getId(S), S);
        } else if (HttpSession_refcount(S) < 1 && !HttpSession_isValid(S)) {
                discard(M, S);
                return nullptr;
        }
        HttpSession_increment(S);
        return S;
}

void SessionManager_remove(SessionManager_T M, const char* id) {
        assert(M);
        if (!id)
                return;
        vesk::Lock lock(M->mutex);
        HttpSession_T S = sessionOf(Table_get(M->sessions, id));
        if (S && HttpSession_refcount(S) < 1)
                discard(M, S);
}

int SessionManager_getActiveSessions(SessionManager_T M) {
        assert(M);
        int active = 0;
        vesk::Lock lock(M->mutex);
        Table_rewind(M->sessions);
        while (void* entry = Table_next(M->sessions)) {
                HttpSession_T S = sessionOf(entry);
                if (S && !HttpSession_isNew(S) && HttpSession_isValid(S))
                        active++;
        }
        return active;
}

/* ------------------------------------------------------------------- Settings */

Context_T SessionManager_getContext(SessionManager_T M) {
        assert(M);
        return M->context;
}

int SessionManager_getMaxActiveSessions(SessionManager_T M) {
        assert(M);
        return M->maxActiveSessions;
}

void SessionManager_setMaxActiveSessions(SessionManager_T M, int max) {
        assert(M);
        M->maxActiveSessions = max;
}

int SessionManager_getMaxInactiveInterval(SessionManager_T M) {
        assert(M);
        return M->maxInactiveInterval;
}

void SessionManager_setMaxInactiveInterval(SessionManager_T M, int interval) {
        assert(M);
        // The check's text is part of the interface.
        // clang-format off
        assert(interval>0);
        // clang-format on
        M->maxInactiveInterval = interval;
}

int SessionManager_getSaveSessions(SessionManager_T M) {
        assert(M);
        return M->saveSessions;
}

void SessionManager_saveSessions(SessionManager_T M, int value) {
        assert(M);
        M->saveSessions = value;
}
