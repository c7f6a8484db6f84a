// Sessions, principals, the realm, its database and authentication, as a server without
// them behaves: no session is ever found or made, no principal exists or has a role, every
// request passes authentication, and no database protocol is supported (so a <Realm>
// stops the start). Each function carries the name and arguments of the operation of the
// module that replaces it; when those modules are built this file is deleted and their
// headers are included instead, with no caller changing.
#pragma once

#include <vesk/Arena.h>
#include <vesk/Build.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/URL.h>

#include <vdb/ConnectionPool.h>

/* ----------------------------------------------------------------- Principal */

inline void Principal_increment(Principal_T P) {
        (void)P;
}

inline void Principal_decrement(Principal_T P) {
        (void)P;
}

inline int Principal_hasRole(Principal_T P, const char* role) {
        (void)P;
        (void)role;
        return 0;
}

inline const char* Principal_getName(Principal_T P) {
        (void)P;
        return nullptr;
}

/* ------------------------------------------------- Realm and its database */

inline Realm_T Realm_getInstance(void) {
        return nullptr;
}

inline void Realm_free(void) {}

inline ConnectionPool_T Realm_getDatabase(Realm_T R) {
        (void)R;
        return nullptr;
}

inline Principal_T Realm_getPrincipal(Realm_T R, const char* name) {
        (void)R;
        (void)name;
        return nullptr;
}

// Connection_isSupported of the database library: without it no URL is.
inline int Connection_isSupported(const char* url) {
        (void)url;
        return 0;
}

// What <Realm> does once its URL is supported: ConnectionPool_new(url),
// ConnectionPool_setInitialConnections(pool, min), ConnectionPool_setMaxConnections(pool,
// max), ConnectionPool_setReaper(pool, reap) when reap is not 0, then
// Realm_setDatabase(Realm_getInstance(), pool). The pool owns url. Unreachable while no
// protocol is supported; the URL is freed all the same.
inline void Realm_useDatabase(URL_T url, int min, int max, int reap) {
        (void)min;
        (void)max;
        (void)reap;
        URL_free(&url);
}

/* ------------------------------------------------------------- Authenticator */

// Non-zero when the authenticator has answered the request itself.
inline int Authenticator_invoke(HttpRequest_T req, HttpResponse_T res) {
        (void)req;
        (void)res;
        return 0;
}
