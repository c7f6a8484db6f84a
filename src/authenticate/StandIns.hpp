// Sessions and authentication, as a server without them behaves: no session is ever found
// or made, and every request passes authentication. Each function carries the name and
// arguments of the operation of the module that replaces it; when those modules are built
// this file is deleted and their headers are included instead, with no caller changing.
#pragma once

#include <vesk/Arena.h>
#include <vesk/Build.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>

/* ------------------------------------------------------------ SessionManager */

inline SessionManager_T SessionManager_new(Arena_T arena, Context_T context) {
        (void)arena;
        (void)context;
        return nullptr;
}

inline void SessionManager_free(SessionManager_T* M) {
        *M = nullptr;
}

inline void SessionManager_start(SessionManager_T M) {
        (void)M;
}

inline void SessionManager_stop(SessionManager_T M) {
        (void)M;
}

inline HttpSession_T SessionManager_findSession(SessionManager_T M, const char* id) {
        (void)M;
        (void)id;
        return nullptr;
}

inline HttpSession_T SessionManager_createSession(SessionManager_T M) {
        (void)M;
        return nullptr;
}

inline int SessionManager_getActiveSessions(SessionManager_T M) {
        (void)M;
        return 0;
}

inline int SessionManager_getMaxActiveSessions(SessionManager_T M) {
        (void)M;
        return 0;
}

inline void SessionManager_setMaxActiveSessions(SessionManager_T M, int max) {
        (void)M;
        (void)max;
}

inline void SessionManager_setMaxInactiveInterval(SessionManager_T M, int seconds) {
        (void)M;
        (void)seconds;
}

inline void SessionManager_saveSessions(SessionManager_T M, int value) {
        (void)M;
        (void)value;
}

/* --------------------------------------------------------------- HttpSession */

inline const char* HttpSession_getId(HttpSession_T S) {
        (void)S;
        return nullptr;
}

inline int HttpSession_isNew(HttpSession_T S) {
        (void)S;
        return 0;
}

inline int HttpSession_isValid(HttpSession_T S) {
        (void)S;
        return 0;
}

inline void HttpSession_access(HttpSession_T S) {
        (void)S;
}

inline void HttpSession_invalidate(HttpSession_T S) {
        (void)S;
}

inline void HttpSession_increment(HttpSession_T S) {
        (void)S;
}

inline void HttpSession_decrement(HttpSession_T S) {
        (void)S;
}

inline Principal_T HttpSession_getPrincipal(HttpSession_T S) {
        (void)S;
        return nullptr;
}

inline const char* HttpSession_getAuthType(HttpSession_T S) {
        (void)S;
        return nullptr;
}

/* ------------------------------------------------------------- Authenticator */

// Non-zero when the authenticator has answered the request itself.
inline int Authenticator_invoke(HttpRequest_T req, HttpResponse_T res) {
        (void)req;
        (void)res;
        return 0;
}
