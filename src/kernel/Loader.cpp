#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include <vesk/Container.h>
#include <vesk/Context.h>
#include <vesk/Dir.h>
#include <vesk/Dso.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/Loader.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/assert.h>

#include "thread/Lock.hpp"
#include "util/TableWalk.hpp"

struct Loader_S {
        Arena_T arena;
        pthread_mutex_t mutex;
        Table_T servlets;
        Context_T context;
};

namespace {

// The names of all servlets now known, for walks that unload as they go.
std::vector<std::string> names(Loader_T L) {
        std::vector<std::string> all;
        Table_map(
            L->servlets,
            [](const void* key, void**, void* cl) {
                    static_cast<std::vector<std::string>*>(cl)->emplace_back(
                        static_cast<const char*>(key));
            },
            &all);
        return all;
}

bool changed(Wrapper_T servlet) {
        return File_mtime(Wrapper_getFilePath(servlet)) != Wrapper_getLastModified(servlet);
}

// Called with the mutex held. init and destroy run once per Wrapper, so the old module
// is destroyed on the first reload and the new one is not initialised again.
Wrapper_T reLoad(Loader_T L, Wrapper_T servlet) {
        assert(Wrapper_isVirtual(servlet) == false);
        Wrapper_doDestroy(servlet);
        std::string name = Wrapper_getName(servlet);
        if (!Dso_reLoad(servlet)) {
                Table_remove(L->servlets, name.c_str());
                return nullptr;
        }
        Wrapper_doInit(servlet);
        return servlet;
}

void initServlet(Loader_T L, const char* name) {
        Wrapper_T servlet = static_cast<Wrapper_T>(Table_get(L->servlets, name));
        if (!servlet)
                return;
        bool failed = false;
        char message[EXCEPTION_MESSAGE_LENGTH] = "";
        const char* exception = "Exception";
        try {
                TRY
                        Wrapper_doInit(servlet);
                ELSE
                        failed = true;
                        exception = Exception_frame.exception->name;
                        snprintf(message, sizeof message, "%s", Exception_frame.message);
                END_TRY;
        } catch (const std::exception& e) {
                failed = true;
                snprintf(message, sizeof message, "%s", e.what());
        }
        if (failed) {
                Error_error("%s when calling servlet '%s' init method -- %s\n", exception, name,
                            message);
                Loader_unLoad(L, name);
        }
}

}  // namespace

Loader_T Loader_new(Arena_T arena) {
        assert(arena);
        Loader_T L = static_cast<Loader_T>(ARENA_CALLOC(arena, 1, sizeof(struct Loader_S)));
        L->arena = arena;
        Exception_wrapper(pthread_mutex_init(&(L->mutex), NULL));
        L->servlets = Table_alloc(arena, 10, Str_cmp, Str_hash);
        return L;
}

void Loader_free(Loader_T* L) {
        assert(L && *L);
        // Servlets still here when the Loader goes (a Context never started, or not
        // stopped) are released without their destroy.
        vesk::eachValue<Wrapper_T>((*L)->servlets, [](Wrapper_T servlet) {
                if (!Wrapper_isVirtual(servlet))
                        Dso_unLoad(servlet);
                Wrapper_free(&servlet);
        });
        Exception_wrapper(pthread_mutex_destroy(&((*L)->mutex)));
        *L = nullptr;
}

void Loader_setContext(Loader_T L, Context_T context) {
        assert(L);
        L->context = context;
}

Context_T Loader_getContext(Loader_T L) {
        assert(L);
        return L->context;
}

void Loader_start(Loader_T L) {
        assert(L);
        assert(L->context);
        Error_debug("Loader for Context '%s' started\n", Context_getContextPath(L->context));
        Loader_loadAll(L);
        for (const std::string& name : names(L))
                initServlet(L, name.c_str());
}

void Loader_stop(Loader_T L) {
        assert(L);
        assert(L->context);
        for (const std::string& name : names(L)) {
                Error_debug("Unloading servlet %s\n", name.c_str());
                Loader_unLoad(L, name.c_str());
        }
        Error_debug("Loader for Context '%s' stopped\n", Context_getContextPath(L->context));
}

void Loader_loadAll(Loader_T L) {
        assert(L);
        const char* docBase = L->context ? Context_getDocBase(L->context) : nullptr;
        assert(docBase);
        Dir_T dir = Dir_glob("%s%sWEB-INF%sclasses%s*.%s", docBase, SEPARATOR, SEPARATOR, SEPARATOR,
                             "clazz");
        if (!dir)
                return;
        std::vector<std::string> found;
        for (File_T file = Dir_next(dir); file; file = Dir_next(dir))
                if (File_isaFile(file))
                        found.emplace_back(File_getPath(file));
        Dir_free(&dir);
        for (std::string& path : found) {
                char name[PATH_MAX + 1];
                Str_copy(name, path.c_str(), PATH_MAX);
                if (File_noExtension(name))
                        Loader_load(L, name);
        }
}

Wrapper_T Loader_load(Loader_T L, const char* name) {
        assert(L);
        if (!name)
                return nullptr;
        vesk::Lock lock(L->mutex);
        Wrapper_T servlet = static_cast<Wrapper_T>(Table_get(L->servlets, name));
        if (servlet) {
                if (Context_getReloadable(L->context) && !Wrapper_isVirtual(servlet) &&
                    changed(servlet))
                        servlet = reLoad(L, servlet);
                return servlet;
        }
        const char* docBase = Context_getDocBase(L->context);
        if (!docBase)
                return nullptr;
        char path[PATH_MAX + 1];
        snprintf(path, sizeof path, "%s%sWEB-INF%sclasses%s%s.clazz", docBase, SEPARATOR, SEPARATOR,
                 SEPARATOR, name);
        if (!File_isFile(path)) {
                Error_debug("Servlet '%s' does not exist at '%s'\n", name, path);
                return nullptr;
        }
        Error_debug("Found servlet: %s\n", name);
        Error_debug("Loading servlet: %s\n", path);
        servlet = Dso_load(path, name);
        if (servlet) {
                Table_put(L->servlets, STR_DUP_ARENA(L->arena, Wrapper_getName(servlet)), servlet);
                Wrapper_setContext(servlet, L->context);
                Context_createDefaultMapping(L->context, name);
        }
        return servlet;
}

Wrapper_T Loader_lookup(Loader_T L, const char* name) {
        assert(L);
        if (!name)
                return nullptr;
        Wrapper_T servlet = static_cast<Wrapper_T>(Table_get(L->servlets, name));
        if (!servlet)
                return nullptr;
        if (!Context_getReloadable(L->context) || Wrapper_isVirtual(servlet) || !changed(servlet))
                return servlet;
        vesk::Lock lock(L->mutex);
        return reLoad(L, servlet);
}

Wrapper_T Loader_createServlet(Loader_T L, const char* name) {
        assert(L);
        assert(name);
        Loader_unLoad(L, name);
        Wrapper_T servlet = Wrapper_new();
        Wrapper_setName(servlet, name);
        Wrapper_setVirtual(servlet, 1);
        vesk::Lock lock(L->mutex);
        Table_put(L->servlets, STR_DUP_ARENA(L->arena, name), servlet);
        return servlet;
}

int Loader_unLoad(Loader_T L, const char* name) {
        assert(L);
        if (!name)
                return false;
        Wrapper_T servlet = static_cast<Wrapper_T>(Table_get(L->servlets, name));
        if (!servlet)
                return false;
        std::string key = name;  // name may be the servlet's own, which goes below
        Wrapper_doDestroy(servlet);
        vesk::Lock lock(L->mutex);
        if (!Wrapper_isVirtual(servlet))
                Dso_unLoad(servlet);
        Table_remove(L->servlets, key.c_str());
        Wrapper_free(&servlet);
        return true;
}
