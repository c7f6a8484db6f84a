#include <pthread.h>
#include <stdio.h>

#include <atomic>
#include <string>

#include <vdb/vdb.h>

#include <vesk/Container.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/HttpConnector.h>
#include <vesk/LRU.h>
#include <vesk/Mem.h>
#include <vesk/Realm.h>
#include <vesk/SecurityConstraint.h>
#include <vesk/Str.h>
#include <vesk/assert.h>

#include "thread/Lock.hpp"

struct Realm_S {
        LRU_T cache;
        ConnectionPool_T database;
};

namespace {

// Principals cached before the least recently used idle one makes room.
constexpr int kCacheSize = 1000;

constexpr char kForbidden[] = "You do not have permission to access the requested resource.";

std::atomic<Realm_T> _R{nullptr};
// Guards the creation of the instance and every use of its cache.
pthread_mutex_t instanceMutex = PTHREAD_MUTEX_INITIALIZER;

void abortHandler(const char* error) {
        THROW(SQLException, "%s", error);
}

// The userroles query formats the name into its text; a quote in a name is doubled so
// that the text stays one literal.
std::string quoted(const char* name) {
        std::string s;
        for (const char* p = name; *p; p++) {
                s += *p;
                if (*p == '\'')
                        s += '\'';
        }
        return s;
}

Principal_T loadPrincipal(Realm_T R, const char* name) {
        if (!R->database) {
                Error_debug("Cannot load Principal - no Realm database defined\n");
                return nullptr;
        }
        Connection_T connection = ConnectionPool_getConnection(R->database);
        if (!connection) {
                Error_error("Realm: Cannot load Principal (%s) -- Realm Connection not available\n",
                            name);
                return nullptr;
        }
        Principal_T P = nullptr;
        TRY
                PreparedStatement_T user = Connection_prepareStatement(
                    connection, "SELECT password FROM users WHERE uname=?;");
                PreparedStatement_setString(user, 1, name);
                ResultSet_T found = PreparedStatement_executeQuery(user);
                if (found && ResultSet_next(found)) {
                        // A user without a password can be found but never logs in.
                        const char* password = ResultSet_getString(found, 1);
                        P = Principal_new(name, password ? password : "");
                        ResultSet_T roles = Connection_executeQuery(
                            connection, "SELECT role FROM userroles WHERE uname='%s';",
                            quoted(name).c_str());
                        while (roles && ResultSet_next(roles))
                                if (const char* role = ResultSet_getString(roles, 1))
                                        Principal_addRole(P, role);
                }
        ELSE
                Error_error("Realm: Cannot load Principal, %s -- %s\n",
                            Exception_frame.exception->name, Exception_frame.message);
                if (P)
                        Principal_free(&P);
        FINALLY
                Connection_close(connection);
        END_TRY;
        return P;
}

// Makes room for one more by dropping the least recently used principal nobody holds.
// When every one is held the cache grows instead.
void evict(Realm_T R) {
        if (LRU_length(R->cache) < kCacheSize)
                return;
        LRU_rewind(R->cache);
        while (auto P = static_cast<Principal_T>(LRU_next(R->cache))) {
                if (Principal_refcount(P) == 0) {
                        LRU_remove(R->cache, Principal_getName(P));
                        Principal_free(&P);
                        return;
                }
        }
}

// The cached or loaded principal, with one reference for the caller. The reference is
// taken under the lock, so an eviction by another thread can never free it first.
Principal_T lookup(Realm_T R, const char* name) {
        vesk::Lock lock(instanceMutex);
        auto P = static_cast<Principal_T>(LRU_get(R->cache, name));
        if (!P) {
                P = loadPrincipal(R, name);
                if (!P)
                        return nullptr;
                evict(R);
                LRU_put(R->cache, Principal_getName(P), P);
        }
        Principal_increment(P);
        return P;
}

}  // namespace

Realm_T Realm_getInstance(void) {
        Realm_T R = _R.load(std::memory_order_acquire);
        if (R)
                return R;
        vesk::Lock lock(instanceMutex);
        R = _R.load(std::memory_order_relaxed);
        if (!R) {
                NEW0(R);
                R->cache = LRU_new(kCacheSize);
                _R.store(R, std::memory_order_release);
        }
        return R;
}

void Realm_free(void) {
        vesk::Lock lock(instanceMutex);
        Realm_T R = _R.load(std::memory_order_relaxed);
        if (!R)
                return;
        if (R->database)
                ConnectionPool_free(&R->database);
        while (auto P = static_cast<Principal_T>(LRU_removeEldest(R->cache)))
                Principal_free(&P);
        LRU_free(&R->cache);
        FREE(R);
        _R.store(nullptr, std::memory_order_release);
}

void Realm_setDatabase(Realm_T R, ConnectionPool_T database) {
        assert(R);
        assert(database);
        if (R->database)
                ConnectionPool_free(&R->database);
        if (Container_Debug)
                VBDEBUG = 1;
        R->database = database;
        ConnectionPool_setAbortHandler(database, abortHandler);
        if (!ConnectionPool_start(database))
                THROW(SQLException, "Cannot start the Realm database '%s'",
                      ConnectionPool_getURL(database));
}

ConnectionPool_T Realm_getDatabase(Realm_T R) {
        assert(R);
        return R->database;
}

Principal_T Realm_authenticate(Realm_T R, const char* name, const char* credentials) {
        assert(R);
        if (!name || !credentials)
                return nullptr;
        Principal_T P = lookup(R, name);
        if (P && !Principal_authenticate(P, credentials)) {
                Principal_decrement(P);
                return nullptr;
        }
        return P;
}

Principal_T Realm_authenticateX509(Realm_T R) {
        assert(R);
        return nullptr;
}

Principal_T Realm_getPrincipal(Realm_T R, const char* name) {
        assert(R);
        assert(name);
        return lookup(R, name);
}

void Realm_invalidate(Realm_T R, const char* name) {
        assert(R);
        if (!name)
                return;
        vesk::Lock lock(instanceMutex);
        auto P = static_cast<Principal_T>(LRU_remove(R->cache, name));
        if (!P)
                return;
        // A reference of our own while marking: a holder giving back the last one
        // afterwards sees the mark and frees the record, and if nobody else holds it,
        // our own give-back does.
        Principal_increment(P);
        Principal_purge(P);
        Principal_decrement(P);
}

int Realm_hasUserDataPermission(Realm_T R, HttpRequest_T req, HttpResponse_T res,
                                List_T constraints) {
        assert(R);
        assert(req);
        assert(res);
        assert(constraints);
        for (list_t p = constraints->head; p; p = p->next) {
                const char* guarantee =
                    SecurityConstraint_getUserConstraint(static_cast<SecurityConstraint_T>(p->e));
                if (!guarantee || Str_isEqual(guarantee, "NONE"))
                        return true;
        }
        if (HttpRequest_isSecure(req))
                return true;
        int port = HttpConnector_getRedirectPort(HttpRequest_getConnector(req));
        if (port < 1) {
                HttpResponse_sendError(res, 403, "%s", HttpRequest_getRequestURI(req));
                return false;
        }
        char session[256] = "";
        const char* id = HttpRequest_getRequestSessionId(req);
        if (id && HttpRequest_isRequestedSessionIdFromURL(req))
                snprintf(session, sizeof session, ";%s=%s", "vsessionid", id);
        const char* query = HttpRequest_getQueryString(req);
        HttpResponse_sendRedirect(res, "https://%s:%d%s%s%s%s", HttpRequest_getServerName(req),
                                  port, HttpRequest_getRequestURI(req), session,
                                  query && *query ? "?" : "", query ? query : "");
        return false;
}

int Realm_hasIpAddressPermission(Realm_T R, HttpRequest_T req, HttpResponse_T res,
                                 List_T constraints) {
        assert(R);
        assert(req);
        assert(res);
        assert(constraints);
        const char* address = HttpRequest_getRemoteAddr(req);
        for (list_t p = constraints->head; p; p = p->next)
                if (SecurityConstraint_findIpAddress(static_cast<SecurityConstraint_T>(p->e),
                                                     address))
                        return true;
        HttpResponse_sendError(res, 403, "%s", kForbidden);
        return false;
}

int Realm_hasResourcePermission(Realm_T R, HttpRequest_T req, HttpResponse_T res,
                                List_T constraints) {
        assert(R);
        assert(req);
        assert(res);
        assert(constraints);
        if (Principal_T principal = HttpRequest_getUserPrincipal(req))
                for (list_t p = constraints->head; p; p = p->next)
                        if (SecurityConstraint_findAuthRoles(
                                static_cast<SecurityConstraint_T>(p->e), principal))
                                return true;
        HttpResponse_sendError(res, 403, "%s", kForbidden);
        return false;
}
