// What the configuration asks of modules that live elsewhere: the session manager and the
// Realm with its database pool.
//
// Each body is what a server without that module does. Without sessions a maxActiveSessions above 0
// leaves the Context without a manager. Without the Realm there is no database library, so no
// protocol is supported and a <Realm> stops the start-up with "Database protocol '%s' not supported
// in <Realm>"; a server without a <Realm> lets every request through. When a module arrives its
// calls replace the bodies one for one (named above each); the callers stay as they are.
#pragma once

#include <vesk/Build.h>
#include <vesk/HttpRequest.h>
#include <vesk/URL.h>

namespace buildseam {

// SessionManager_setMaxActiveSessions(Context_getSessionManager(context), max).
inline void sessionManagerSetMaxActiveSessions(SessionManager_T manager, int max) {
        (void)manager;
        (void)max;
}

// Realm_getInstance.
inline Realm_T realm() {
        return nullptr;
}

// Realm_free.
inline void realmFree() {}

// Connection_isSupported.
inline bool connectionIsSupported(const char* url) {
        (void)url;
        return false;
}

// ConnectionPool_new(url), ConnectionPool_setInitialConnections(pool, min),
// ConnectionPool_setMaxConnections(pool, max), ConnectionPool_setReaper(pool, reap) when
// reap is not 0, then Realm_setDatabase(Realm_getInstance(), pool). The pool owns url.
inline void realmSetDatabase(URL_T url, int min, int max, int reap) {
        (void)min;
        (void)max;
        (void)reap;
        URL_free(&url);
}

}  // namespace buildseam
