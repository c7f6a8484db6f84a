#include <limits.h>
#include <stddef.h>

#include <vesk/Mem.h>
#include <vesk/Table.h>
#include <vesk/assert.h>

#include "Buckets.hpp"

namespace {

struct Binding {
        Binding* link;
        const void* key;
        void* value;
};

// 19 comes twice: a hint picks the largest entry below it, and every hint up to 37 gets 19.
constexpr int primes[] = {19,   19,   37,   67,    127,   509,   1021,
                          2053, 4093, 8191, 16381, 32771, 65521, INT_MAX};

}  // namespace

struct Table_S {
        int size;
        int index;
        Binding* iterator;
        int freecount;
        Binding* freelist;
        int (*cmp)(const void* x, const void* y);
        unsigned int (*hash)(const void* key);
        int length;
        unsigned int timestamp;
        Arena_T arena;
        Binding* buckets[];
};

namespace {

using Chains = vesk::Buckets<Table_S, &Binding::key, &Binding::value>;

void** newArray(Table_T H, int n) {
        int nbytes = n * (int)sizeof(void*);
        return static_cast<void**>(H->arena ? ARENA_ALLOC(H->arena, nbytes) : ALLOC(nbytes));
}

}  // namespace

Table_T Table_alloc(Arena_T arena, int hint, int (*cmp)(const void* x, const void* y),
                    unsigned int (*hash)(const void* key)) {
        assert(hint >= 0);
        assert(cmp);
        assert(hash);
        return Chains::alloc(arena, vesk::bucketCount(primes, hint), cmp, hash, __func__);
}

Table_T Table_new(int hint, int (*cmp)(const void* x, const void* y),
                  unsigned int (*hash)(const void* key)) {
        return Table_alloc(NULL, hint, cmp, hash);
}

void Table_free(Table_T* H) {
        assert(H && *H);
        assert((*H)->arena == NULL);
        Chains::dispose(H);
}

void* Table_put(Table_T H, const void* key, void* value) {
        assert(H);
        assert(key);
        bool added;
        Binding* p = Chains::place(H, key, "new_binding", &added);
        void* prev = added ? NULL : p->value;
        p->value = value;
        return prev;
}

void* Table_get(Table_T H, const void* key) {
        assert(H);
        assert(key);
        Binding* p = *Chains::find(H, key);
        return p ? p->value : NULL;
}

int Table_has(Table_T H, const void* key) {
        assert(H);
        return key && *Chains::find(H, key) != NULL;
}

void* Table_remove(Table_T H, const void* key) {
        assert(H);
        assert(key);
        return Chains::remove(H, key);
}

int Table_length(Table_T H) {
        assert(H);
        return H->length;
}

void Table_map(Table_T H, void (*apply)(const void* key, void** value, void* cl), void* cl) {
        assert(H);
        assert(apply);
        unsigned int stamp = H->timestamp;
        for (Binding* p : Chains::nodes(H)) {
                apply(p->key, &p->value, cl);
                assert(H->timestamp == stamp);
        }
}

void Table_rewind(Table_T H) {
        assert(H);
        Chains::rewind(H);
}

void* Table_next(Table_T H) {
        assert(H);
        return Chains::next(H);
}

void** Table_keys(Table_T H) {
        assert(H);
        void** array = newArray(H, H->length + 1);
        int j = 0;
        for (Binding* p : Chains::nodes(H))
                array[j++] = const_cast<void*>(p->key);
        array[j] = NULL;
        return array;
}

void** Table_toArray(Table_T H) {
        assert(H);
        void** array = newArray(H, 2 * H->length + 1);
        int j = 0;
        for (Binding* p : Chains::nodes(H)) {
                array[j++] = const_cast<void*>(p->key);
                array[j++] = p->value;
        }
        array[j] = NULL;
        return array;
}
