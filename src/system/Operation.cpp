#include <pthread.h>

#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/List.h>
#include <vesk/Mem.h>
#include <vesk/Operation.h>
#include <vesk/assert.h>

#include "thread/Lock.hpp"

struct Operation_S {
        void* data;
        void (*execute)(void* data);
        void (*completed)(void* data);
};

namespace {

// Records kept for reuse beyond this many are freed.
constexpr int kPoolLimit = 65;

List_T _freelist;
pthread_mutex_t _mutex;

// The pool lives as long as the library: made when it is loaded, before any thread can
// ask for a record, and emptied when it is unloaded.
__attribute__((constructor)) void _Constructor() {
        Exception_wrapper(pthread_mutex_init(&_mutex, NULL));
        _freelist = List_new();
}

__attribute__((destructor)) void _Destructor() {
        while (List_length(_freelist) > 0) {
                Operation_T O = static_cast<Operation_T>(List_pop(_freelist));
                FREE(O);
        }
        List_free(&_freelist);
        pthread_mutex_destroy(&_mutex);
}

}  // namespace

Operation_T Operation_new(void (*execute)(void* data), void* data) {
        assert(execute);
        Operation_T O = nullptr;
        {
                vesk::Lock lock(_mutex);
                O = static_cast<Operation_T>(List_pop(_freelist));
        }
        if (!O)
                NEW(O);
        O->data = data;
        O->execute = execute;
        O->completed = nullptr;
        return O;
}

void Operation_setCompleted(Operation_T O, void (*completed)(void* data)) {
        assert(O);
        assert(completed);
        O->completed = completed;
}

void Operation_execute(Operation_T* O) {
        assert(O && *O);
        Operation_T o = *O;
        TRY
                o->execute(o->data);
                if (o->completed)
                        o->completed(o->data);
        ELSE
                Error_error("Operation: execute failed -- %s: %s\n",
                            Exception_frame.exception->name, Exception_frame.message);
        END_TRY;
        Operation_free(O);
}

void Operation_free(Operation_T* O) {
        assert(O && *O);
        {
                vesk::Lock lock(_mutex);
                if (List_length(_freelist) < kPoolLimit) {
                        List_push(_freelist, *O);
                        *O = nullptr;
                }
        }
        if (*O)
                FREE(*O);
}
