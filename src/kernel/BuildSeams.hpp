// What the configuration asks of modules that live elsewhere: the HTTP connector, the
// session manager and the Realm with its database pool.
//
// The connector calls are the real ones. For the modules not there yet each body is what a
// server without them does: without sessions a maxActiveSessions above 0 leaves the
// Context without a manager; without the Realm there is no database library, so no
// protocol is supported and a <Realm> stops the start-up with "Database protocol '%s' not
// supported in <Realm>"; a server without a <Realm> lets every request through. When a
// module arrives its calls replace the bodies one for one (named above each); the callers
// stay as they are.
#pragma once

#include <vesk/Build.h>
#include <vesk/HttpRequest.h>
#include <vesk/Service.h>
#include <vesk/URL.h>

#include <vesk/HttpConnector.h>

namespace buildseam {

inline HttpConnector_T connectorNew() {
        return HttpConnector_new();
}
inline void connectorFree(HttpConnector_T* connector) {
        HttpConnector_free(connector);
}
inline void serviceAddConnector(Service_T service, HttpConnector_T connector) {
        Service_addConnector(service, connector);
}
inline void (*const setEnableLookups)(HttpConnector_T, int) = HttpConnector_setEnableLookups;
inline void (*const setRedirectPort)(HttpConnector_T, int) = HttpConnector_setRedirectPort;
inline void (*const setSecure)(HttpConnector_T, int) = HttpConnector_setSecure;
inline void (*const setIPVersion)(HttpConnector_T, int) = HttpConnector_setIPVersion;
inline void (*const setBindAddress)(HttpConnector_T, const char*) = HttpConnector_setBindAddress;
inline void (*const setConnectionTimeout)(HttpConnector_T,
                                          int) = HttpConnector_setConnectionTimeout;
inline void (*const setProcessorThreads)(HttpConnector_T, int) = HttpConnector_setProcessorThreads;
inline void (*const setProcessorTimeout)(HttpConnector_T, int) = HttpConnector_setProcessorTimeout;
inline void (*const setPort)(HttpConnector_T, int) = HttpConnector_setPort;
inline void (*const setContentLengthLimit)(HttpConnector_T,
                                           int) = HttpConnector_setContentLengthLimit;
inline void (*const setContentLengthBufferLimit)(HttpConnector_T,
                                                 int) = HttpConnector_setContentLengthBufferLimit;
inline void (*const setProxyScheme)(HttpConnector_T, const char*) = HttpConnector_setProxyScheme;
inline void (*const setProxyName)(HttpConnector_T, const char*) = HttpConnector_setProxyName;
inline void (*const setProxyPort)(HttpConnector_T, int) = HttpConnector_setProxyPort;

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
