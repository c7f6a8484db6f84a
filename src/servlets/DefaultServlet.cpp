// The file server behind every Context's "/" mapping. Each request works on locals only;
// the one shared object is the FileCache, which locks for itself.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <vesk/Config.h>
#include <vesk/Context.h>
#include <vesk/DefaultServlet.h>
#include <vesk/Error.h>
#include <vesk/File.h>
#include <vesk/FileCache.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/List.h>
#include <vesk/Metrics.h>
#include <vesk/ServletContext.h>
#include <vesk/Str.h>
#include <vesk/System.h>
#include <vesk/Time.h>
#include <vesk/assert.h>
#include "servlets/DefaultServlet.hpp"
#include "system/FileCache.hpp"

namespace {

constexpr const char* kNotFound = "The requested URL was not found on this server";
constexpr int kPathMax = 4096;

// Welcome files with these extensions go back through servlet mapping, never out as text.
bool isMappedPage(const char* entry) {
        const char* dot = strrchr(entry, '.');
        return dot && (Str_isEqual(dot + 1, "csp") || Str_isEqual(dot + 1, "php"));
}

// Finds a welcome file after the trailing '/' of path, whose first root bytes are the
// application's directory; false when an answer was sent.
bool findWelcomeFile(HttpRequest_T req, HttpResponse_T res, ServletContext_T servletContext,
                     char* path, size_t root) {
        List_T welcome = ServletContext_getWelcomeFiles(servletContext);
        size_t base = strlen(path);
        int room = kPathMax - 1 - static_cast<int>(base);
        if (welcome && room > 0)
                for (list_t p = welcome->head; p && welcome->length > 0; p = p->next) {
                        const char* entry = static_cast<const char*>(p->e);
                        Str_copy(path + base, entry, room);
                        if (Context_isPrivatePath(path + root) || !File_isFile(path))
                                continue;
                        if (isMappedPage(entry)) {
                                HttpResponse_sendRedirect(res, "%s%s",
                                                          HttpRequest_getRequestURL(req), entry);
                                return false;
                        }
                        return true;
                }
        HttpResponse_sendError(res, 404, "%s", kNotFound);
        return false;
}

// The lexer has removed dot segments already; this guard keeps a path that slipped past
// it from leaving the application's directory.
bool climbsUp(const char* path) {
        for (const char* p = strstr(path, "/.."); p; p = strstr(p + 1, "/.."))
                if (p[3] == '/' || p[3] == 0)
                        return true;
        return false;
}

// True if a directory of path below its first base bytes is a symbolic link.
bool linkOnTheWay(char* path, size_t base) {
        if (base >= strlen(path))
                return true;
        for (char* slash = strchr(path + base + 1, '/'); slash; slash = strchr(slash + 1, '/')) {
                *slash = 0;
                struct stat st;
                bool link = lstat(path, &st) != 0 || !S_ISDIR(st.st_mode);
                *slash = '/';
                if (link)
                        return true;
        }
        return false;
}

// The size is worth it, and the type is not an application type.
bool compressible(const char* mimeType, off_t size) {
        if (size <= 1024 || size >= 131072000)
                return false;
        const char* registered = mimeType ? Config_getMimeType(mimeType) : nullptr;
        return !(registered && Str_startsWith(registered, "application/"));
}

// The validators of a response, made from the modification time and size of the file
// whose bytes it sends.
struct Validators {
        time_t mtime;  // Time_gmt of the modification time
        char etag[26];
};

Validators validatorsOf(time_t modified, off_t size) {
        Validators v;
        v.mtime = Time_gmt(modified);
        snprintf(v.etag, sizeof v.etag, "\"%ld-%lld\"", static_cast<long>(v.mtime),
                 static_cast<long long>(size));
        return v;
}

void setLastModified(HttpResponse_T res, const Validators& v) {
        char date[30];
        HttpResponse_setHeader(res, "Last-Modified", "%s GMT", Time_string(v.mtime, date));
}

// What the request's preconditions make of the answer: 0 when the file is sent, or the
// status that answers instead (304 or 412).
int preconditionStatus(HttpRequest_T req, const Validators& v) {
        const char* ifMatch = HttpRequest_getHeader(req, "If-Match");
        if (ifMatch && !strchr(ifMatch, '*') && !strstr(v.etag, ifMatch))
                return 412;
        const char* ifNoneMatch = HttpRequest_getHeader(req, "If-None-Match");
        if (ifNoneMatch && (strchr(ifNoneMatch, '*') || strstr(v.etag, ifNoneMatch))) {
                int method = HttpRequest_method(req);
                return method == HttpRequest_GET || method == HttpRequest_HEAD ? 304 : 412;
        }
        time_t since = HttpRequest_getDateHeader(req, "If-Modified-Since");
        if (since > -1 && !ifNoneMatch && v.mtime <= since)
                return 304;
        time_t unmodified = HttpRequest_getDateHeader(req, "If-Unmodified-Since");
        if (unmodified > -1 && v.mtime > unmodified)
                return 412;
        return 0;
}

// Answers a failed precondition; false when processing goes on.
bool answerPrecondition(HttpResponse_T res, int status) {
        if (status == 412)
                HttpResponse_sendError(res, 412, NULL);
        else if (status)
                HttpResponse_setStatus(res, status);
        return status != 0;
}

// The mapping of the file as st describes it. A cached mapping of an older state of the
// file leaves the cache at once, so that neither this response nor a later one sends
// bytes that its validators do not describe; its holders still read it whole.
FileMap_T currentMapping(FileCache_T cache, bool compress, const char* path,
                         const struct stat* st) {
        FileMap_T map = FileCache_get(cache, compress, path);
        if (map && !FileMap_isCurrent(map, st)) {
                FileCache_discard(cache, map);
                FileCache_return(cache, map);
                map = FileCache_get(cache, compress, path);
        }
        return map;
}

// Serves the file the request names. With cachedOnly, as on the event loop, only a regular
// file whose current form is in the file cache is answered, with 200 or 304, and anything
// else returns 0 before the response is touched, so that a processor thread can answer it
// as usual.
int serveResource(HttpRequest_T req, HttpResponse_T res, int includeContent, bool cachedOnly) {
        FileCache_T cache = FileCache_getInstance();
        const char* relativePath = HttpRequest_getServletPath(req);
        Context_T context = HttpRequest_getContext(req);
        ServletContext_T servletContext = HttpRequest_getServletContext(req);
        assert(relativePath);
        if (!*relativePath)
                relativePath = "/";
        else if (*relativePath != '/' || Context_isPrivatePath(relativePath) ||
                 climbsUp(relativePath)) {
                if (cachedOnly)
                        return 0;
                HttpResponse_sendError(res, 404, "%s", kNotFound);
                return 1;
        }
        // Without an application directory there is nothing to serve.
        const char* docBase = context ? Context_getDocBase(context) : nullptr;
        if (!docBase || !*docBase) {
                if (cachedOnly)
                        return 0;
                HttpResponse_sendError(res, 404, "%s", kNotFound);
                return 1;
        }
        char path[kPathMax];
        _Str_join(path, kPathMax - 1, docBase, relativePath, (const char*)0);
        size_t length = strlen(path);
        if (length && path[length - 1] == '/') {
                if (cachedOnly || !findWelcomeFile(req, res, servletContext, path, strlen(docBase)))
                        return cachedOnly ? 0 : 1;
        }
        bool acceptsGzip = HttpRequest_getAcceptEncoding(req) == 1;
        // A file in neither form in the cache is not looked at on the event loop.
        if (cachedOnly) {
                FileMap_T seen = FileCache_find(cache, acceptsGzip, path);
                if (!seen && acceptsGzip)
                        seen = FileCache_find(cache, 0, path);
                if (!seen)
                        return 0;
                FileCache_return(cache, seen);
        }
        struct stat st;
        if (lstat(path, &st) != 0) {
                if (cachedOnly)
                        return 0;
                if (errno == ENOENT) {
                        Error_error("[client %s] File does not exist: %s\n",
                                    HttpRequest_getRemoteAddr(req), path);
                        HttpResponse_sendError(res, 404, "%s", kNotFound);
                } else {
                        Error_error("[client %s] Could not stat file: %s -- %s\n",
                                    HttpRequest_getRemoteAddr(req), path, System_getLastError());
                        HttpResponse_sendError(res, 500, "Could not load the requested URL");
                }
                return 1;
        }
        if (S_ISDIR(st.st_mode)) {
                if (cachedOnly)
                        return 0;
                HttpResponse_sendRedirect(res, "%s/", HttpRequest_getRequestURL(req));
                return 1;
        }
        // lstat, not stat: a symbolic link is neither and is never followed, not even
        // as a directory on the way to the file.
        if (!S_ISREG(st.st_mode) || linkOnTheWay(path, strlen(docBase))) {
                if (cachedOnly)
                        return 0;
                HttpResponse_sendError(res, 404, "%s", kNotFound);
                return 1;
        }
        Validators validators = validatorsOf(st.st_mtime, st.st_size);
        const char* mimeType = ServletContext_getMimeType(servletContext, path);
        // Such a file has two forms, and a shared cache must not give one for the other.
        bool twoForms = compressible(mimeType, st.st_size);
        bool compress = twoForms && acceptsGzip;
        int precondition = preconditionStatus(req, validators);
        bool sendsBody = includeContent && st.st_size > 0 && precondition == 0;
        FileMap_T map = nullptr;
        if (cachedOnly) {
                if (precondition == 412)
                        return 0;
                map = FileCache_find(cache, compress, path);
                if (!map || !FileMap_isCurrent(map, &st)) {
                        if (map)
                                FileCache_return(cache, map);
                        return 0;
                }
                // Counted as the one look-up that a processor thread makes for a body.
                if (sendsBody) {
                        Metrics_fileCacheLookup(1);
                } else {
                        FileCache_return(cache, map);
                        map = nullptr;
                }
        }
        HttpResponse_setHeader(res, "Accept-Ranges", "bytes");
        setLastModified(res, validators);
        HttpResponse_setContentType(res, mimeType ? mimeType : "text/plain");
        HttpResponse_setHeader(res, "ETag", "%s", validators.etag);
        if (twoForms)
                HttpResponse_setHeader(res, "Vary", "Accept-Encoding");
        if (answerPrecondition(res, precondition))
                return 1;
        if (!sendsBody) {
                HttpResponse_setContentLength(res, 0);
                return 1;
        }
        if (!map) {
                map = currentMapping(cache, compress, path, &st);
                if (!map) {
                        HttpResponse_sendError(res, 500, "Could not load the requested file");
                        return 1;
                }
                // The file changed again while it was being mapped: the answer describes
                // what the mapping holds, and is decided on that.
                if (!FileMap_isCurrent(map, &st)) {
                        File_T source = FileMap_getFile(map);
                        validators = validatorsOf(File_getMtime(source), File_getSize(source));
                        setLastModified(res, validators);
                        HttpResponse_setHeader(res, "ETag", "%s", validators.etag);
                        if (answerPrecondition(res, preconditionStatus(req, validators))) {
                                FileCache_return(cache, map);
                                return 1;
                        }
                }
        }
        if (FileMap_isCompressed(map))
                HttpResponse_setHeader(res, "Content-Encoding", "gzip");
        HttpResponse_setFileMap(res, map);
        Metrics_fileServed(map);
        return 1;
}

int doGet(HttpRequest_T req, HttpResponse_T res) {
        return serveResource(req, res, 1, false);
}

int doHead(HttpRequest_T req, HttpResponse_T res) {
        return serveResource(req, res, 0, false);
}

int doOptions(HttpRequest_T req, HttpResponse_T res) {
        const char* path = HttpRequest_getServletPath(req);
        if (path && *path && !strchr(path, '*'))
                return serveResource(req, res, 0, false);
        HttpResponse_setHeader(res, "Accept-Ranges", "bytes");
        HttpResponse_setContentLength(res, 0);
        return 1;
}

int forbidden(HttpRequest_T req, HttpResponse_T res) {
        (void)req;
        HttpResponse_sendError(res, 403, NULL);
        return 1;
}

}  // namespace

void CreateDefaultServlet(Wrapper_T D) {
        assert(D);
        assert(Wrapper_isVirtual(D));
        Wrapper_setDoPut(D, forbidden);
        Wrapper_setDoGet(D, doGet);
        Wrapper_setDoHead(D, doHead);
        Wrapper_setDoPost(D, doGet);
        Wrapper_setDoDelete(D, forbidden);
        Wrapper_setDoTrace(D, forbidden);
        Wrapper_setDoOptions(D, doOptions);
}

int DefaultServlet_serveCached(HttpRequest_T req, HttpResponse_T res) {
        assert(req);
        assert(res);
        int method = HttpRequest_method(req);
        if (method != HttpRequest_GET && method != HttpRequest_HEAD)
                return 0;
        return serveResource(req, res, method == HttpRequest_GET, true);
}
