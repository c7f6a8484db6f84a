#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include <vesk/Cache.h>
#include <vesk/Exception.h>
#include <vesk/Mem.h>
#include <vesk/Table.h>

#include "thread/Lock.hpp"

#include <vesk/assert.h>

namespace {

// The value stands first, so that the entry's address is the value's slot.
struct Entry {
        void* value;
        pthread_mutex_t mutex;
        int refs;  // only through count()
};

// The counters live in Mem memory, where a std::atomic is never constructed; atomic_ref
// gives the same operations on the plain int.
inline std::atomic_ref<int> count(int& counter) {
        return std::atomic_ref<int>(counter);
}

// Polls until counter is 0: holders leave outside the table's mutex, so there is
// nothing to wait on but the count itself.
void drain(int& counter) {
        while (count(counter).load() > 0)
                usleep(100);
}

}  // namespace

struct Cache_S {
        Table_T table;
        pthread_mutex_t mutex;
        int active;  // entries checked out, only through count()
};

Cache_T Cache_new(int hint, int (*cmp)(const void* x, const void* y),
                  unsigned int (*hash)(const void* key)) {
        Cache_T C;
        NEW0(C);
        C->table = Table_new(hint, cmp, hash);
        Exception_wrapper(pthread_mutex_init(&C->mutex, NULL));
        return C;
}

void Cache_free(Cache_T* C) {
        assert(C && *C);
        Table_map((*C)->table,
                  [](const void*, void** value, void*) {
                          Entry* e = static_cast<Entry*>(*value);
                          Exception_wrapper(pthread_mutex_destroy(&e->mutex));
                          FREE(e);
                  },
                  nullptr);
        Table_free(&(*C)->table);
        Exception_wrapper(pthread_mutex_destroy(&(*C)->mutex));
        FREE(*C);
}

void* Cache_put(Cache_T C, const void* key, void* value) {
        assert(C);
        assert(key);
        Entry* e;
        {
                vesk::Lock lock(C->mutex);
                e = static_cast<Entry*>(Table_get(C->table, key));
                if (e) {
                        count(e->refs)++;
                } else {
                        NEW0(e);
                        e->value = value;
                        TRY
                                Exception_wrapper(pthread_mutex_init(&e->mutex, NULL));
                                Table_put(C->table, key, e);
                        ELSE
                                FREE(e);
                                RETHROW;
                        END_TRY;
                        return nullptr;
                }
        }
        // The table is free again; only this entry's holder delays us.
        void* old;
        {
                vesk::Lock lock(e->mutex);
                old = e->value;
                e->value = value;
        }
        count(e->refs)--;
        return old;
}

void** Cache_get(Cache_T C, const void* key) {
        assert(C);
        assert(key);
        Entry* e;
        {
                vesk::Lock lock(C->mutex);
                e = static_cast<Entry*>(Table_get(C->table, key));
                if (!e)
                        return nullptr;
                count(e->refs)++;
                count(C->active)++;
        }
        LOCK(e->mutex);
        return &e->value;
}

void Cache_return(Cache_T C, void** c) {
        assert(C);
        assert(c);
        Entry* e = reinterpret_cast<Entry*>(c);
        UNLOCK(e->mutex);
        count(e->refs)--;
        count(C->active)--;
}

void* Cache_remove(Cache_T C, const void* key) {
        assert(C);
        assert(key);
        Entry* e;
        {
                vesk::Lock lock(C->mutex);
                e = static_cast<Entry*>(Table_remove(C->table, key));
        }
        if (!e)
                return nullptr;
        // Out of the table no new check-out can start; wait for those under way.
        drain(e->refs);
        void* value = e->value;
        Exception_wrapper(pthread_mutex_destroy(&e->mutex));
        FREE(e);
        return value;
}

int Cache_has(Cache_T C, const void* key) {
        assert(C);
        if (!key)
                return false;
        vesk::Lock lock(C->mutex);
        return Table_has(C->table, key);
}

int Cache_size(Cache_T C) {
        assert(C);
        return Table_length(C->table);
}

namespace {

struct Apply {
        void (*apply)(const void* key, void* value, void* ap);
        void* ap;
};

void applyEntry(const void* key, void** value, void* cl) {
        Apply* a = static_cast<Apply*>(cl);
        a->apply(key, static_cast<Entry*>(*value)->value, a->ap);
}

}  // namespace

void Cache_map(Cache_T C, void (*apply)(const void* key, void* value, void* ap), void* ap) {
        assert(C);
        assert(apply);
        Apply a{apply, ap};
        // The guard releases the mutex also when apply raises, and the raise goes on.
        vesk::Lock lock(C->mutex);
        // Holding the table's mutex, no new check-out can start.
        drain(C->active);
        Table_map(C->table, applyEntry, &a);
}
