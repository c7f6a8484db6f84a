#include <stdlib.h>

#include <vesk/Mem.h>
#include <vesk/System.h>
#include <vesk/assert.h>

namespace {

void* failed(const char* func, const char* file, int line) {
        Exception_throw(&MemoryException, func, file, line, "%s", System_getLastError());
        return nullptr;  // only when a replaced abort handler returns
}

}  // namespace

void* Mem_alloc(int nbytes, const char* func, const char* file, int line) {
        assert(nbytes > 0);
        void* p = malloc(static_cast<size_t>(nbytes));
        return p ? p : failed(func, file, line);
}

void* Mem_calloc(int count, int nbytes, const char* func, const char* file, int line) {
        assert(count > 0);
        assert(nbytes > 0);
        void* p = calloc(static_cast<size_t>(count), static_cast<size_t>(nbytes));
        return p ? p : failed(func, file, line);
}

void* Mem_resize(void* ptr, int nbytes, const char* func, const char* file, int line) {
        assert(ptr);
        assert(nbytes > 0);
        void* p = realloc(ptr, static_cast<size_t>(nbytes));
        return p ? p : failed(func, file, line);
}

void Mem_free(void* ptr, const char*, const char*, int) {
        free(ptr);
}
