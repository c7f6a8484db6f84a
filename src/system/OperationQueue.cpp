#include <vesk/CacheQueue.h>
#include <vesk/List.h>
#include <vesk/Mem.h>
#include <vesk/Operation.h>
#include <vesk/OperationQueue.h>
#include <vesk/assert.h>

struct OperationQueue_S {
        CacheQueue_T queue;
};

namespace {

// The engine of the cache queue: runs the whole batch, leaving nothing to try again.
void invoke(List_T work) {
        while (List_length(work) > 0) {
                Operation_T o = static_cast<Operation_T>(List_pop(work));
                Operation_execute(&o);
        }
}

}  // namespace

OperationQueue_T OperationQueue_new(int timeout, int length) {
        CacheQueue_T queue = CacheQueue_new(timeout, length, invoke);
        OperationQueue_T O;
        NEW(O);
        O->queue = queue;
        return O;
}

void OperationQueue_add(OperationQueue_T O, Operation_T o) {
        assert(O);
        assert(o);
        CacheQueue_add(O->queue, o);
}

void OperationQueue_invoke(OperationQueue_T O) {
        assert(O);
        CacheQueue_flush(O->queue);
}

int OperationQueue_size(OperationQueue_T O) {
        assert(O);
        return CacheQueue_size(O->queue);
}

void OperationQueue_free(OperationQueue_T* O) {
        assert(O && *O);
        CacheQueue_free(&(*O)->queue);
        FREE(*O);
}
