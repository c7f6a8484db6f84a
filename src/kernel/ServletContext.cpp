#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vesk/Build.h>
#include <vesk/Config.h>
#include <vesk/Container.h>
#include <vesk/Context.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/Mem.h>
#include <vesk/ServletContext.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/assert.h>

#include "kernel/WebXmlReader.hpp"
#include "thread/Lock.hpp"

namespace {

struct Attribute {
        char* name;
        void* value;
};

// Where a real path is kept when no request arena is bound to the thread.
char* realPathBuffer() {
        static thread_local char buffer[PATH_MAX + 1];
        return buffer;
}

}  // namespace

struct ServletContext_S {
        Loader_T loader;
        Context_T parent;
        Table_T mimeTypes;
        Table_T attributes;
        List_T welcomeFiles;
        pthread_mutex_t mutex;
        Arena_T arena;
};

ServletContext_T ServletContext_new(Arena_T arena) {
        assert(arena);
        ServletContext_T C =
            static_cast<ServletContext_T>(ARENA_CALLOC(arena, 1, sizeof(struct ServletContext_S)));
        C->arena = arena;
        C->mimeTypes = Table_alloc(arena, 100, Str_cmp, Str_hash);
        C->attributes = Table_alloc(arena, 20, Str_cmp, Str_hash);
        C->welcomeFiles = List_alloc(arena);
        Exception_wrapper(pthread_mutex_init(&(C->mutex), NULL));
        return C;
}

void ServletContext_free(ServletContext_T* C) {
        assert(C && *C);
        // The entries go; the values behind them stay their owners'.
        void** all = Table_toArray((*C)->attributes);
        for (int i = 0; all[i]; i += 2) {
                Attribute* entry = static_cast<Attribute*>(all[i + 1]);
                FREE(entry->name);
                FREE(entry);
        }
        Exception_wrapper(pthread_mutex_destroy(&((*C)->mutex)));
        *C = nullptr;
}

void ServletContext_setContext(ServletContext_T C, Context_T context) {
        assert(C);
        C->parent = context;
        C->loader = context ? Context_getLoader(context) : nullptr;
}

Context_T ServletContext_getContext(ServletContext_T C) {
        assert(C);
        return C->parent;
}

void ServletContext_parseConf(ServletContext_T C) {
        assert(C);
        assert(C->parent);
        vesk::WebXmlReader_read({C->parent, C->loader, C->arena, C->mimeTypes, C->welcomeFiles});
}

const char* ServletContext_getServerInfo(void) {
        return "Vesk/2.0";
}

const char* ServletContext_getContextPath(ServletContext_T C) {
        assert(C);
        return C->parent ? Context_getContextPath(C->parent) : nullptr;
}

const char* ServletContext_getDocumentBase(ServletContext_T C) {
        assert(C);
        return C->parent ? Context_getDocBase(C->parent) : nullptr;
}

const char* ServletContext_getRealPath(ServletContext_T C, const char* path) {
        assert(C);
        if (!path || Context_isPrivatePath(path))
                return nullptr;
        const char* docBase = ServletContext_getDocumentBase(C);
        if (!docBase)
                return nullptr;
        char joined[PATH_MAX + 1];
        snprintf(joined, sizeof joined, "%s%s%s", docBase, *path == '/' ? "" : "/", path);
        Str_replaceChar(joined, '/', SEPARATOR_CHAR);
        char real[PATH_MAX + 1];
        if (!File_getRealPath(joined, real))
                return nullptr;
        if (auto arena = static_cast<Arena_T>(pthread_getspecific(Request_Arena)))
                return STR_DUP_ARENA(arena, real);
        return Str_copy(realPathBuffer(), real, PATH_MAX);
}

FileInputStream_T ServletContext_getResourceAsStream(ServletContext_T C, const char* path) {
        const char* real = ServletContext_getRealPath(C, path);
        if (!real)
                return nullptr;
        File_T file = File_new("%s", real);
        FileInputStream_T stream = File_isaFile(file) ? FileInputStream_new(file) : nullptr;
        File_free(&file);
        return stream;
}

const char* ServletContext_getMimeType(ServletContext_T C, const char* path) {
        assert(C);
        if (!path)
                return nullptr;
        const char* extension = File_extension(path);
        if (!extension)
                return nullptr;
        const char* type = static_cast<const char*>(Table_get(C->mimeTypes, extension));
        return type ? type : Config_getMimeType(path);
}

List_T ServletContext_getWelcomeFiles(ServletContext_T C) {
        assert(C);
        return List_length(C->welcomeFiles) > 0 ? C->welcomeFiles : Config_getWelcomeFiles();
}

void* ServletContext_getAttribute(ServletContext_T C, const char* name) {
        assert(C);
        if (!name)
                return nullptr;
        vesk::Lock lock(C->mutex);
        Attribute* entry = static_cast<Attribute*>(Table_get(C->attributes, name));
        return entry ? entry->value : nullptr;
}

void* ServletContext_setAttribute(ServletContext_T C, const char* name, void* value) {
        assert(C);
        assert(name);
        if (!value)
                return ServletContext_removeAttribute(C, name);
        vesk::Lock lock(C->mutex);
        Attribute* entry = static_cast<Attribute*>(Table_get(C->attributes, name));
        if (entry) {
                void* previous = entry->value;
                entry->value = value;
                return previous;
        }
        lock.unlock();
        NEW(entry);
        entry->name = Str_dup(name);
        entry->value = value;
        lock.lock();
        Attribute* previous = static_cast<Attribute*>(Table_get(C->attributes, name));
        if (previous) {
                // Another thread added the same name in the gap: its entry stays, with this value.
                void* old = previous->value;
                previous->value = value;
                FREE(entry->name);
                FREE(entry);
                return old;
        }
        Table_put(C->attributes, entry->name, entry);
        return nullptr;
}

void* ServletContext_removeAttribute(ServletContext_T C, const char* name) {
        assert(C);
        if (!name)
                return nullptr;
        Attribute* entry;
        {
                vesk::Lock lock(C->mutex);
                entry = static_cast<Attribute*>(Table_remove(C->attributes, name));
        }
        if (!entry)
                return nullptr;
        void* value = entry->value;
        FREE(entry->name);
        FREE(entry);
        return value;
}

void ServletContext_log(ServletContext_T C, const char* m, ...) {
        assert(C);
        if (!m || !C->parent)
                return;
        va_list ap;
        va_start(ap, m);
        Context_vlog(C->parent, m, ap);
        va_end(ap);
}
