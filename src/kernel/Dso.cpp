#include <dlfcn.h>

#include <vesk/Dso.h>
#include <vesk/Error.h>
#include <vesk/File.h>
#include <vesk/assert.h>

namespace {

// Reads the linker's last error away, which also frees the record it keeps for this
// thread; processor threads come and go, and one ending as the process exits would
// leave the record behind.
void clearError() {
        while (dlerror()) {
        }
}

template <typename F>
F symbol(void* handle, const char* name) {
        return reinterpret_cast<F>(dlsym(handle, name));
}

// Opens the Wrapper's module and takes its entry points; frees the Wrapper and answers
// NULL when the module cannot be had.
Wrapper_T load(Wrapper_T W) {
        const char* path = Wrapper_getFilePath(W);
        if (!path || !File_isFile(path)) {
                Error_error("Loader: Error loading servlet '%s' -- No such file\n",
                            Wrapper_getName(W));
                Wrapper_free(&W);
                return nullptr;
        }
        // The time is taken first, so a file replaced while it is opened reloads again.
        Wrapper_setLastModified(W, File_mtime(path));
        void* handle = dlopen(path, RTLD_NOW);
        if (!handle) {
                const char* error = dlerror();
                Error_error("Loader: Error loading servlet '%s' -- %s\n", Wrapper_getName(W),
                            error ? error : "unknown error");
                clearError();
                Wrapper_free(&W);
                return nullptr;
        }
        Wrapper_setHandle(W, handle);
        Wrapper_setInit(W, symbol<Wrapper_Init>(handle, "init"));
        Wrapper_setDestroy(W, symbol<Wrapper_Destroy>(handle, "destroy"));
        Wrapper_setDoDelete(W, symbol<Wrapper_Service>(handle, "doDelete"));
        Wrapper_setDoGet(W, symbol<Wrapper_Service>(handle, "doGet"));
        Wrapper_setDoHead(W, symbol<Wrapper_Service>(handle, "doHead"));
        Wrapper_setDoPost(W, symbol<Wrapper_Service>(handle, "doPost"));
        Wrapper_setDoPut(W, symbol<Wrapper_Service>(handle, "doPut"));
        Wrapper_setDoTrace(W, symbol<Wrapper_Service>(handle, "doTrace"));
        Wrapper_setDoOptions(W, symbol<Wrapper_Service>(handle, "doOptions"));
        clearError();
        return W;
}

}  // namespace

Wrapper_T Dso_load(const char* path, const char* name) {
        if (!path || !File_isFile(path))
                return nullptr;
        Wrapper_T W = Wrapper_new();
        Wrapper_setName(W, name);
        Wrapper_setFilePath(W, path);
        Wrapper_setVirtual(W, 0);
        return load(W);
}

int Dso_unLoad(Wrapper_T W) {
        assert(W);
        void* handle = Wrapper_getHandle(W);
        if (!handle)
                return true;
        clearError();
        if (dlclose(handle) != 0) {
                const char* error = dlerror();
                Error_error("Loader: Error unloading Servlet '%s' -- %s\n", Wrapper_getName(W),
                            error ? error : "unknown error");
                clearError();
                return false;
        }
        Wrapper_setHandle(W, nullptr);
        return true;
}

Wrapper_T Dso_reLoad(Wrapper_T servlet) {
        assert(servlet);
        if (!Dso_unLoad(servlet)) {
                Wrapper_free(&servlet);
                return nullptr;
        }
        return load(servlet);
}
