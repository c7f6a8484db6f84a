// What the request, the response, the lexer and the body store ask of the modules around
// them: the connector's settings, the context, sessions and principals, server pages,
// the file cache and the request-arena thread key.
//
// A connection without a connector (a bare socket pair) gets the default limits and the
// plain scheme, and a request without a context has no session manager, no error page, no
// dispatch and the default MIME type. The session and principal bodies are what a server
// without them does: none is ever found. When those modules arrive, their calls replace the
// bodies one for one (named in each comment); the callers stay as they are. The body store
// maps its temporary file here directly.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vesk/Arena.h>
#include <vesk/Context.h>
#include <vesk/File.h>
#include <vesk/FileCache.h>
#include <vesk/RequestDispatcher.h>
#include <vesk/ServletContext.h>
#include <vesk/Build.h>
#include <vesk/HttpConnector.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/ServerPage.h>
#include <vesk/ServletContext.h>

// The arena of the request this thread serves, or NULL outside a request.
inline Arena_T KernelSeam_requestArena() {
        return static_cast<Arena_T>(pthread_getspecific(Request_Arena));
}

// The connector's body limit; a connection without a connector has the default one.
inline long KernelSeam_contentLengthLimit(HttpConnector_T connector) {
        return connector ? HttpConnector_getContentLengthLimit(connector) : 51200000;
}

// The connector's scheme; "http" without a connector.
inline const char* KernelSeam_connectorScheme(HttpConnector_T connector) {
        return connector ? HttpConnector_getScheme(connector) : "http";
}

// The connector's proxy scheme, or NULL.
inline const char* KernelSeam_proxyScheme(HttpConnector_T connector) {
        return connector ? HttpConnector_getProxyScheme(connector) : nullptr;
}

// Context_getSessionManager.
inline SessionManager_T KernelSeam_sessionManager(Context_T context) {
        return context ? Context_getSessionManager(context) : nullptr;
}

// Context_getServletContext.
inline ServletContext_T KernelSeam_servletContext(Context_T context) {
        return context ? Context_getServletContext(context) : nullptr;
}

// Context_getContextPath.
inline const char* KernelSeam_contextPath(Context_T context) {
        return context ? Context_getContextPath(context) : "";
}

// Context_getErrorPage: the error page for status, or NULL.
inline const char* KernelSeam_errorPage(Context_T context, int status) {
        return context ? Context_getErrorPage(context, status) : nullptr;
}

// Context_dispatch: maps request to a servlet of context; false when none takes it.
inline int KernelSeam_dispatch(Context_T context, HttpRequest_T request) {
        return context && Context_dispatch(context, request) != nullptr;
}

// RequestDispatcher_new.
inline RequestDispatcher_T KernelSeam_newRequestDispatcher(HttpRequest_T request,
                                                           HttpRequest_T target) {
        return RequestDispatcher_new(request, target);
}

// ServletContext_getRealPath.
inline const char* KernelSeam_realPath(ServletContext_T context, const char* path) {
        return context ? ServletContext_getRealPath(context, path) : nullptr;
}

// ServletContext_getMimeType.
inline const char* KernelSeam_mimeType(ServletContext_T context, const char* path) {
        return context ? ServletContext_getMimeType(context, path) : "application/octet-stream";
}

// SessionManager_findSession.
inline HttpSession_T KernelSeam_findSession(SessionManager_T manager, const char* id) {
        (void)manager;
        (void)id;
        return nullptr;
}

// SessionManager_createSession.
inline HttpSession_T KernelSeam_createSession(SessionManager_T manager) {
        (void)manager;
        return nullptr;
}

// HttpSession_getId.
inline const char* KernelSeam_sessionId(HttpSession_T session) {
        (void)session;
        return nullptr;
}

// HttpSession_isNew.
inline int KernelSeam_sessionIsNew(HttpSession_T session) {
        (void)session;
        return 0;
}

// HttpSession_increment.
inline void KernelSeam_sessionIncrement(HttpSession_T session) {
        (void)session;
}

// HttpSession_decrement.
inline void KernelSeam_sessionDecrement(HttpSession_T session) {
        (void)session;
}

// HttpSession_getPrincipal.
inline Principal_T KernelSeam_sessionPrincipal(HttpSession_T session) {
        (void)session;
        return nullptr;
}

// HttpSession_getAuthType.
inline const char* KernelSeam_sessionAuthType(HttpSession_T session) {
        (void)session;
        return nullptr;
}

// Principal_increment.
inline void KernelSeam_principalIncrement(Principal_T principal) {
        (void)principal;
}

// Principal_decrement.
inline void KernelSeam_principalDecrement(Principal_T principal) {
        (void)principal;
}

// Principal_hasRole.
inline int KernelSeam_principalHasRole(Principal_T principal, const char* role) {
        (void)principal;
        (void)role;
        return 0;
}

// Principal_getName.
inline const char* KernelSeam_principalName(Principal_T principal) {
        (void)principal;
        return nullptr;
}

// ServerPage_new: the page at realPath for response, or NULL.
inline ServerPage_T KernelSeam_newServerPage(Arena_T arena, const char* realPath,
                                             HttpResponse_T response) {
        return ServerPage_new(arena, realPath, response);
}

// ServerPage_free.
inline void KernelSeam_freeServerPage(ServerPage_T* page) {
        ServerPage_free(page);
}

// ServerPage_setErrorPage, ServerPage_addInt(page, "Error.status_code", status),
// ServerPage_add(page, "Error.message", message), ServerPage_write.
inline void KernelSeam_writeErrorPage(ServerPage_T page, int status, const char* message) {
        ServerPage_setErrorPage(page);
        ServerPage_addInt(page, "Error.status_code", status);
        ServerPage_add(page, "Error.message", message);
        ServerPage_write(page);
}

// FileCache_return(FileCache_getInstance(), map).
inline void KernelSeam_returnFileMap(FileMap_T map) {
        FileCache_return(FileCache_getInstance(), map);
}

// The mapped file's size.
inline long long KernelSeam_fileMapSize(FileMap_T map) {
        return FileMap_getSize(map);
}

// The mapped file's path.
inline const char* KernelSeam_fileMapPath(FileMap_T map) {
        return File_getPath(FileMap_getFile(map));
}

// A writable shared mapping of a body file: File_map(file, "r+").
struct StoreMap {
        char* address;
        long size;
};

// Maps path; false with errno set on failure.
inline bool KernelSeam_mapStore(const char* path, StoreMap* map) {
        int fd = open(path, O_RDWR | O_CLOEXEC);
        if (fd < 0)
                return false;
        struct stat st;
        void* a = MAP_FAILED;
        if (fstat(fd, &st) == 0) {
                if (st.st_size > 0)
                        a = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ | PROT_WRITE,
                                 MAP_SHARED, fd, 0);
                else
                        errno = EINVAL;
        }
        int saved = errno;
        close(fd);
        errno = saved;
        if (a == MAP_FAILED)
                return false;
        map->address = static_cast<char*>(a);
        map->size = static_cast<long>(st.st_size);
        return true;
}

// File_unmap.
inline void KernelSeam_unmapStore(StoreMap* map) {
        if (map->address)
                munmap(map->address, static_cast<size_t>(map->size));
        map->address = nullptr;
        map->size = 0;
}
