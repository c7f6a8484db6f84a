#include <pthread.h>
#include <cstddef>
#include <cstring>
#include <stdlib.h>

#include <vesk/Arena.h>
#include <vesk/Mem.h>
#include <vesk/System.h>
#include <vesk/assert.h>

// The handle and the header of every chunk share this shape.
struct Arena_S {
        Arena_T prev;
        char* avail;
        char* limit;
};

namespace {

// A chunk header padded so that the space behind it is aligned for any scalar.
union Header {
        struct Arena_S b;
        std::max_align_t a;
};

constexpr long kAlign = alignof(std::max_align_t);
constexpr long kSlack = 10240;
constexpr int kFreeListLimit = 10;

struct ThreadData {
        int count;
        Arena_T freelist;
};

pthread_key_t freechunks;
pthread_once_t once = PTHREAD_ONCE_INIT;

#define ThreadData_set(key, value) Exception_wrapper(pthread_setspecific((key), (value)))

void ThreadData_free(void* data) {
        auto* f = static_cast<ThreadData*>(data);
        while (f->freelist) {
                Arena_T next = f->freelist->prev;
                free(f->freelist);
                f->freelist = next;
        }
        free(f);
}

void ThreadData_create() {
        int status = pthread_key_create(&freechunks, ThreadData_free);
        if (status != 0)
                THROW(AssertException, "ThreadData_create() -- %s", System_getError(status));
}

inline ThreadData* ThreadData_get() {
        return static_cast<ThreadData*>(pthread_getspecific(freechunks));
}

}  // namespace

void Arena_init(void) {
        pthread_once(&once, ThreadData_create);
}

Arena_T Arena_new(void) {
        Arena_T A = static_cast<Arena_T>(CALLOC(1, sizeof(struct Arena_S)));
        if (!ThreadData_get()) {
                ThreadData* f = static_cast<ThreadData*>(CALLOC(1, sizeof(ThreadData)));
                ThreadData_set(freechunks, f);
        }
        return A;
}

void Arena_dispose(Arena_T* A) {
        assert(A && *A);
        Arena_free(*A);
        FREE(*A);
}

void* Arena_alloc(Arena_T A, int nbytes, const char* func, const char* file, int line) {
        assert(A);
        // Rounded in a wider type so that sizes near the int limit cannot overflow.
        long rounded = ((static_cast<long>(nbytes) + kAlign - 1) / kAlign) * kAlign;
        assert(nbytes > 0);
        while (rounded > A->limit - A->avail) {
                Arena_T chunk;
                char* limit;
                ThreadData* f = ThreadData_get();
                if (f && f->freelist) {
                        // A listed chunk may be too small; it then stays here, unused, until
                        // Arena_free.
                        chunk = f->freelist;
                        f->freelist = chunk->prev;
                        f->count--;
                        limit = chunk->limit;
                } else {
                        size_t m = sizeof(Header) + static_cast<size_t>(rounded + kSlack);
                        chunk = static_cast<Arena_T>(malloc(m));
                        if (!chunk) {
                                Exception_throw(&MemoryException, func, file, line, "%s",
                                                System_getLastError());
                                return nullptr;
                        }
                        limit = reinterpret_cast<char*>(chunk) + m;
                }
                *chunk = *A;
                A->avail = reinterpret_cast<char*>(reinterpret_cast<Header*>(chunk) + 1);
                A->limit = limit;
                A->prev = chunk;
        }
        A->avail += rounded;
        return A->avail - rounded;
}

void* Arena_calloc(Arena_T A, int count, int nbytes, const char* func, const char* file, int line) {
        assert(count > 0);
        long total = static_cast<long>(count) * nbytes;
        if (total > 0x7fffffffL) {
                Exception_throw(&MemoryException, func, file, line, "%s", System_getError(ENOMEM));
                return nullptr;
        }
        void* p = Arena_alloc(A, static_cast<int>(total), func, file, line);
        return p ? memset(p, 0, static_cast<size_t>(total)) : nullptr;
}

void Arena_free(Arena_T A) {
        assert(A);
        ThreadData* f = ThreadData_get();
        while (A->prev) {
                struct Arena_S saved = *A->prev;
                if (f && f->count < kFreeListLimit) {
                        A->prev->prev = f->freelist;
                        f->freelist = A->prev;
                        f->count++;
                        f->freelist->limit = A->limit;  // the chunk's own end
                } else {
                        free(A->prev);
                }
                *A = saved;
        }
        assert(A->limit == NULL);
        assert(A->avail == NULL);
}
