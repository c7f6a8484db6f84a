// What the server's object tree asks of modules that live elsewhere: the HTTP connector,
// sessions, authentication and principals, the built-in content servlets, the default
// deployment descriptor and the request-arena thread key.
//
// Where a module is not there yet, the body is what a server without it does: a Context
// without a session manager has no sessions; without a realm every request passes
// authentication and no principal has a role; with no request bound to the thread, real paths go to
// a per-thread buffer. When a module arrives its call replaces the body (named above each), and the
// callers stay as they are.
#pragma once

#include <limits.h>

#include <vesk/Arena.h>
#include <vesk/Build.h>
#include <vesk/Config.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/List.h>
#include <vesk/Service.h>
#include <vesk/DefaultServlet.h>
#include <vesk/ServerPageServlet.h>
#include <vesk/Wrapper.h>

namespace kernelseam {

inline void connectorSetEngine(HttpConnector_T connector, Engine_T engine) {
        HttpConnector_setEngine(connector, engine);
}

inline void connectorStart(HttpConnector_T connector) {
        HttpConnector_start(connector);
}

inline void connectorStop(HttpConnector_T connector) {
        HttpConnector_stop(connector);
}

inline void connectorFree(HttpConnector_T* connector) {
        HttpConnector_free(connector);
}

// SessionManager_new(arena, context); NULL leaves the Context without sessions.
inline SessionManager_T sessionManagerNew(Arena_T arena, Context_T context) {
        (void)arena;
        (void)context;
        return nullptr;
}

// SessionManager_free.
inline void sessionManagerFree(SessionManager_T* manager) {
        *manager = nullptr;
}

// SessionManager_start.
inline void sessionManagerStart(SessionManager_T manager) {
        (void)manager;
}

// SessionManager_stop.
inline void sessionManagerStop(SessionManager_T manager) {
        (void)manager;
}

// SessionManager_setMaxInactiveInterval, which checks "interval>0".
inline void sessionManagerSetMaxInactiveInterval(SessionManager_T manager, int interval) {
        (void)manager;
        (void)interval;
}

// SessionManager_saveSessions.
inline void sessionManagerSaveSessions(SessionManager_T manager, int save) {
        (void)manager;
        (void)save;
}

// SessionManager_getActiveSessions.
inline int sessionManagerActiveSessions(SessionManager_T manager) {
        (void)manager;
        return 0;
}

// SessionManager_getMaxActiveSessions.
inline int sessionManagerMaxActiveSessions(SessionManager_T manager) {
        (void)manager;
        return 0;
}

// HttpSession_isValid.
inline int sessionIsValid(HttpSession_T session) {
        (void)session;
        return 0;
}

// HttpSession_access.
inline void sessionAccess(HttpSession_T session) {
        (void)session;
}

// Authenticator_invoke: non-zero when the authenticator has answered the request.
inline int authenticatorInvoke(HttpRequest_T req, HttpResponse_T res) {
        (void)req;
        (void)res;
        return 0;
}

// Principal_hasRole.
inline int principalHasRole(Principal_T principal, const char* role) {
        (void)principal;
        (void)role;
        return 0;
}

// CreateDefaultServlet.
inline void createDefaultServlet(Wrapper_T servlet) {
        CreateDefaultServlet(servlet);
}

// CreateServerPageServlet.
inline void createServerPageServlet(Wrapper_T servlet) {
        CreateServerPageServlet(servlet);
}

inline const char* configMimeType(const char* path) {
        return Config_getMimeType(path);
}

inline List_T configWelcomeFiles() {
        return Config_getWelcomeFiles();
}

inline Arena_T requestArena() {
        return static_cast<Arena_T>(pthread_getspecific(Request_Arena));
}

// Where a real path is kept when no request arena is bound to the thread.
inline char* realPathBuffer() {
        static thread_local char buffer[PATH_MAX + 1];
        return buffer;
}

}  // namespace kernelseam
