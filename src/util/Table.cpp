#include <limits.h>
#include <stddef.h>

#include <vesk/Mem.h>
#include <vesk/Table.h>
#include <vesk/assert.h>

namespace {

struct Binding {
        Binding* link;
        const void* key;
        void* value;
};

// 19 comes twice: a hint picks the largest entry below it, and every hint up to 37 gets 19.
constexpr int primes[] = {19,   19,   37,   67,    127,   509,   1021,
                          2053, 4093, 8191, 16381, 32771, 65521, INT_MAX};

// Beyond this many recycled bindings a heap table gives removed bindings back to the heap.
constexpr int kFreeLimit = 99;

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

Binding* new_binding(Table_T H) {
        Binding* p = H->freelist;
        if (p) {
                H->freelist = p->link;
                H->freecount--;
                return p;
        }
        if (H->arena)
                return static_cast<Binding*>(
                    Arena_alloc(H->arena, sizeof *p, "new_binding", __FILE__, __LINE__));
        return static_cast<Binding*>(Mem_alloc(sizeof *p, "new_binding", __FILE__, __LINE__));
}

inline Binding** bucketOf(Table_T H, const void* key) {
        return &H->buckets[H->hash(key) % (unsigned)H->size];
}

// The slot that points at the binding of key, or at the terminating NULL of its chain.
Binding** find(Table_T H, Binding** pp, const void* key) {
        while (*pp && H->cmp(key, (*pp)->key) != 0)
                pp = &(*pp)->link;
        return pp;
}

inline Binding** find(Table_T H, const void* key) {
        return find(H, bucketOf(H, key), key);
}

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
        int i;
        for (i = 1; primes[i] < hint; i++)
                ;
        int size = primes[i - 1];
        int nbytes = (int)(sizeof(struct Table_S) + size * sizeof(Binding*));
        Table_T H =
            static_cast<Table_T>(arena ? ARENA_CALLOC(arena, 1, nbytes) : CALLOC(1, nbytes));
        H->size = size;
        H->cmp = cmp;
        H->hash = hash;
        H->arena = arena;
        return H;
}

Table_T Table_new(int hint, int (*cmp)(const void* x, const void* y),
                  unsigned int (*hash)(const void* key)) {
        return Table_alloc(NULL, hint, cmp, hash);
}

void Table_free(Table_T* H) {
        assert(H && *H);
        assert((*H)->arena == NULL);
        Table_T t = *H;
        for (int i = 0; i < t->size; i++)
                for (Binding *p = t->buckets[i], *q; p; p = q) {
                        q = p->link;
                        FREE(p);
                }
        for (Binding *p = t->freelist, *q; p; p = q) {
                q = p->link;
                FREE(p);
        }
        FREE(*H);
}

void* Table_put(Table_T H, const void* key, void* value) {
        assert(H);
        assert(key);
        Binding** bucket = bucketOf(H, key);
        Binding** pp = find(H, bucket, key);
        if (*pp) {
                void* prev = (*pp)->value;
                (*pp)->value = value;
                H->timestamp++;
                return prev;
        }
        Binding* p = new_binding(H);
        p->key = key;
        p->value = value;
        p->link = *bucket;
        *bucket = p;
        H->length++;
        H->timestamp++;
        return NULL;
}

void* Table_get(Table_T H, const void* key) {
        assert(H);
        assert(key);
        Binding* p = *find(H, key);
        return p ? p->value : NULL;
}

int Table_has(Table_T H, const void* key) {
        assert(H);
        return key && *find(H, key) != NULL;
}

void* Table_remove(Table_T H, const void* key) {
        assert(H);
        assert(key);
        // A miss counts as a change too, so a walk in progress stops either way.
        H->timestamp++;
        Binding** pp = find(H, key);
        Binding* p = *pp;
        if (!p)
                return NULL;
        *pp = p->link;
        H->length--;
        void* value = p->value;
        if (H->arena == NULL && H->freecount > kFreeLimit) {
                // A walk that had finished its chain resumes behind the removed binding. A
                // walk standing on the removed binding must not keep a freed one.
                if (H->iterator == NULL || H->iterator == p)
                        H->iterator = p->link;
                FREE(p);
        } else {
                if (H->iterator == p)
                        H->iterator = p->link;
                p->link = H->freelist;
                H->freelist = p;
                H->freecount++;
        }
        return value;
}

int Table_length(Table_T H) {
        assert(H);
        return H->length;
}

void Table_map(Table_T H, void (*apply)(const void* key, void** value, void* cl), void* cl) {
        assert(H);
        assert(apply);
        unsigned int stamp = H->timestamp;
        for (int i = 0; i < H->size; i++)
                for (Binding* p = H->buckets[i]; p; p = p->link) {
                        apply(p->key, &p->value, cl);
                        assert(H->timestamp == stamp);
                }
}

void Table_rewind(Table_T H) {
        assert(H);
        H->index = 0;
        H->iterator = NULL;
}

void* Table_next(Table_T H) {
        assert(H);
        if (H->length < 1)
                return NULL;
        Binding* p = H->iterator;
        if (!p) {
                while (H->index < H->size && !H->buckets[H->index])
                        H->index++;
                if (H->index >= H->size)
                        return NULL;
                p = H->buckets[H->index++];
        }
        H->iterator = p->link;
        return p->value;
}

void** Table_keys(Table_T H) {
        assert(H);
        void** array = newArray(H, H->length + 1);
        int j = 0;
        for (int i = 0; i < H->size; i++)
                for (Binding* p = H->buckets[i]; p; p = p->link)
                        array[j++] = const_cast<void*>(p->key);
        array[j] = NULL;
        return array;
}

void** Table_toArray(Table_T H) {
        assert(H);
        void** array = newArray(H, 2 * H->length + 1);
        int j = 0;
        for (int i = 0; i < H->size; i++)
                for (Binding* p = H->buckets[i]; p; p = p->link) {
                        array[j++] = const_cast<void*>(p->key);
                        array[j++] = p->value;
                }
        array[j] = NULL;
        return array;
}
