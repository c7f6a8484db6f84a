#include <stdio.h>

#include <vesk/Context.h>
#include <vesk/Mem.h>
#include <vesk/Str.h>
#include <vesk/Wrapper.h>
#include <vesk/assert.h>

struct Wrapper_S {
        char* name;
        void* handle;
        char* filePath;
        int isVirtual;
        Context_T context;
        time_t lastModified;
        int initialized;
        int destroyed;
        ServletConfig_T servletConfig;
        Wrapper_Destroy destroy;
        Wrapper_Init init;
        Wrapper_Service doGet;
        Wrapper_Service doPut;
        Wrapper_Service doHead;
        Wrapper_Service doPost;
        Wrapper_Service doDelete;
        Wrapper_Service doTrace;
        Wrapper_Service doOptions;
};

namespace {

int serve(Wrapper_Service entry, HttpRequest_T req, HttpResponse_T res) {
        if (entry)
                return entry(req, res);
        HttpResponse_setHeader(res, "Connection", "close");
        HttpResponse_sendError(res, 405, "Method: %s not allowed for this URL",
                               HttpRequest_getMethod(req));
        return 0;
}

const char* yesNo(bool b) {
        return b ? "true" : "false";
}

const char* orNull(const char* s) {
        return s ? s : "null";
}

}  // namespace

Wrapper_T Wrapper_new(void) {
        Wrapper_T W;
        NEW0(W);
        W->isVirtual = 1;
        W->servletConfig = ServletConfig_new();
        return W;
}

void Wrapper_free(Wrapper_T* W) {
        assert(W && *W);
        ServletConfig_free(&(*W)->servletConfig);
        FREE((*W)->filePath);
        FREE((*W)->name);
        FREE(*W);
}

void Wrapper_setName(Wrapper_T W, const char* name) {
        assert(W);
        FREE(W->name);
        W->name = name ? Str_dup(name) : nullptr;
        ServletConfig_setServletName(W->servletConfig, name);
}

const char* Wrapper_getName(Wrapper_T W) {
        assert(W);
        return W->name;
}

void Wrapper_setFilePath(Wrapper_T W, const char* path) {
        assert(W);
        FREE(W->filePath);
        W->filePath = path ? Str_dup(path) : nullptr;
}

const char* Wrapper_getFilePath(Wrapper_T W) {
        assert(W);
        return W->filePath;
}

void Wrapper_setVirtual(Wrapper_T W, int isVirtual) {
        assert(W);
        W->isVirtual = isVirtual;
}

int Wrapper_isVirtual(Wrapper_T W) {
        assert(W);
        return W->isVirtual;
}

void Wrapper_setHandle(Wrapper_T W, void* handle) {
        assert(W);
        W->handle = handle;
}

void* Wrapper_getHandle(Wrapper_T W) {
        assert(W);
        return W->handle;
}

void Wrapper_setContext(Wrapper_T W, Context_T context) {
        assert(W);
        W->context = context;
        ServletConfig_setServletContext(W->servletConfig,
                                        context ? Context_getServletContext(context) : nullptr);
}

Context_T Wrapper_getContext(Wrapper_T W) {
        assert(W);
        return W->context;
}

void Wrapper_setLastModified(Wrapper_T W, time_t lastModified) {
        assert(W);
        W->lastModified = lastModified;
}

time_t Wrapper_getLastModified(Wrapper_T W) {
        assert(W);
        return W->lastModified;
}

ServletConfig_T Wrapper_getServletConfig(Wrapper_T W) {
        assert(W);
        return W->servletConfig;
}

void Wrapper_addParameter(Wrapper_T W, const char* name, const char* value) {
        assert(W);
        ServletConfig_setInitParameter(W->servletConfig, name, value);
}

const char* Wrapper_getParameter(Wrapper_T W, const char* name) {
        assert(W);
        return ServletConfig_getInitParameter(W->servletConfig, name);
}

#define SETTER(Name, field, Type)                     \
        void Wrapper_set##Name(Wrapper_T W, Type f) { \
                assert(W);                            \
                W->field = f;                         \
        }
SETTER(Init, init, Wrapper_Init)
SETTER(Destroy, destroy, Wrapper_Destroy)
SETTER(DoGet, doGet, Wrapper_Service)
SETTER(DoHead, doHead, Wrapper_Service)
SETTER(DoPost, doPost, Wrapper_Service)
SETTER(DoPut, doPut, Wrapper_Service)
SETTER(DoDelete, doDelete, Wrapper_Service)
SETTER(DoTrace, doTrace, Wrapper_Service)
SETTER(DoOptions, doOptions, Wrapper_Service)
#undef SETTER

void Wrapper_doInit(Wrapper_T W) {
        assert(W);
        if (W->init && !W->initialized) {
                W->initialized = 1;
                W->init(W->servletConfig);
        }
}

void Wrapper_doDestroy(Wrapper_T W) {
        assert(W);
        if (W->destroy && !W->destroyed) {
                W->destroyed = 1;
                W->destroy();
        }
}

#define ENTRY(Name, field)                                                         \
        int Wrapper_do##Name(Wrapper_T W, HttpRequest_T req, HttpResponse_T res) { \
                assert(W);                                                         \
                return serve(W->field, req, res);                                  \
        }
ENTRY(Get, doGet)
ENTRY(Head, doHead)
ENTRY(Post, doPost)
ENTRY(Put, doPut)
ENTRY(Delete, doDelete)
ENTRY(Trace, doTrace)
ENTRY(Options, doOptions)
#undef ENTRY

void Wrapper_list(Wrapper_T W) {
        if (!W)
                return;
        printf("Name: %s\n", orNull(W->name));
        printf("File Path: %s\n", orNull(W->filePath));
        printf("Last modified: %ld\n", static_cast<long>(W->lastModified));
        printf("Is Virtual: %s\n", yesNo(W->isVirtual));
        printf("Has handle: %s\n", yesNo(W->handle));
        printf("Has init method: %s\n", yesNo(W->init));
        printf("Has destroy method: %s\n", yesNo(W->destroy));
        printf("Has doDelete method: %s\n", yesNo(W->doDelete));
        printf("Has doGet method: %s\n", yesNo(W->doGet));
        printf("Has doHead method: %s\n", yesNo(W->doHead));
        printf("Has doPost method: %s\n", yesNo(W->doPost));
        printf("Has doPut method: %s\n", yesNo(W->doPut));
        printf("Has doTrace method: %s\n", yesNo(W->doTrace));
        printf("Has doOptions method: %s\n", yesNo(W->doOptions));
}
