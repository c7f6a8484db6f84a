#include <ctype.h>
#include <stdint.h>
#include <stdio.h>
#include <strings.h>
#include <sys/random.h>
#include <time.h>

#include <vesk/Map.h>
#include <vesk/Mem.h>
#include <vesk/Str.h>
#include <vesk/assert.h>

namespace {

struct Value {
        const char* value;
        Value* next;
};

struct Entry {
        const char* key;
        Entry* next;  // the list, newest key first
        Entry* prev;
        Entry* chain;   // the next entry in the same bucket
        Value* values;  // newest first
        uint32_t hash;  // valid once the map has buckets
        int count;      // of values
};

}  // namespace

struct Map_S {
        int length;
        Arena_T arena;
        unsigned int timestamp;
        Entry* list;
        int count;        // values of all keys
        int size;         // buckets, a power of two; 0 while the map is small
        Entry** buckets;  // an index over list
};

namespace {

// Up to this many keys a walk of the list beats hashing the key. Above it the map indexes its
// keys, so that a request with thousands of parameters costs no more per parameter than one
// with ten.
constexpr int kLinearLength = 16;

// A key for the hash, drawn once per process: names come from clients, and with a known hash
// they could be chosen to fall into one bucket.
struct Seed {
        uint64_t k0, k1;
};

const Seed& seed() {
        static const Seed s = [] {
                Seed k;
                if (getrandom(&k, sizeof k, 0) != static_cast<ssize_t>(sizeof k)) {
                        timespec t;
                        clock_gettime(CLOCK_MONOTONIC, &t);
                        k.k0 = static_cast<uint64_t>(t.tv_nsec) * 0x9e3779b97f4a7c15u ^
                               reinterpret_cast<uintptr_t>(&k);
                        k.k1 = static_cast<uint64_t>(t.tv_sec) ^ (k.k0 << 17);
                }
                return k;
        }();
        return s;
}

inline uint64_t rotl(uint64_t x, int b) {
        return (x << b) | (x >> (64 - b));
}

struct Sip {
        uint64_t v0, v1, v2, v3;
        void round() {
                v0 += v1;
                v1 = rotl(v1, 13);
                v1 ^= v0;
                v0 = rotl(v0, 32);
                v2 += v3;
                v3 = rotl(v3, 16);
                v3 ^= v2;
                v0 += v3;
                v3 = rotl(v3, 21);
                v3 ^= v0;
                v2 += v1;
                v1 = rotl(v1, 17);
                v1 ^= v2;
                v2 = rotl(v2, 32);
        }
        void eat(uint64_t m) {
                v3 ^= m;
                round();
                v0 ^= m;
        }
};

// SipHash-1-3 of the key folded to lower case, with tolower, so that keys equal under
// strcasecmp hash alike.
uint32_t hashOf(const char* key) {
        const Seed& k = seed();
        Sip s = {k.k0 ^ 0x736f6d6570736575u, k.k1 ^ 0x646f72616e646f6du, k.k0 ^ 0x6c7967656e657261u,
                 k.k1 ^ 0x7465646279746573u};
        uint64_t word = 0;
        uint64_t n = 0;
        for (const unsigned char* p = reinterpret_cast<const unsigned char*>(key); *p; p++, n++) {
                word |= static_cast<uint64_t>(tolower(*p) & 0xff) << (8 * (n & 7));
                if ((n & 7) == 7) {
                        s.eat(word);
                        word = 0;
                }
        }
        s.eat(word | n << 56);
        s.v2 ^= 0xff;
        s.round();
        s.round();
        s.round();
        uint64_t h = s.v0 ^ s.v1 ^ s.v2 ^ s.v3;
        return static_cast<uint32_t>(h ^ (h >> 32));
}

template <typename T>
T* make(Map_T M) {
        return static_cast<T*>(M->arena ? ARENA_ALLOC(M->arena, sizeof(T)) : ALLOC(sizeof(T)));
}

const char** newArray(Map_T M, int n) {
        int nbytes = n * (int)sizeof(char*);
        return static_cast<const char**>(M->arena ? ARENA_ALLOC(M->arena, nbytes) : ALLOC(nbytes));
}

// In an arena map nodes are left for the arena to take.
void dropValues(Map_T M, Entry* e) {
        if (!M->arena)
                for (Value *v = e->values, *next; v; v = next) {
                        next = v->next;
                        FREE(v);
                }
        M->count -= e->count;
        e->count = 0;
        e->values = NULL;
}

void dropEntry(Map_T M, Entry* e) {
        dropValues(M, e);
        if (!M->arena)
                FREE(e);
}

void dropBuckets(Map_T M) {
        if (!M->arena)
                FREE(M->buckets);
        M->buckets = NULL;
        M->size = 0;
}

Entry** bucketOf(Map_T M, uint32_t hash) {
        return &M->buckets[hash & static_cast<uint32_t>(M->size - 1)];
}

// Builds the index anew with size buckets; the entries' hashes are computed the first time.
void reindex(Map_T M, int size) {
        bool hashed = M->buckets != NULL;
        dropBuckets(M);
        int nbytes = size * (int)sizeof(Entry*);
        M->buckets =
            static_cast<Entry**>(M->arena ? ARENA_CALLOC(M->arena, 1, nbytes) : CALLOC(1, nbytes));
        M->size = size;
        for (Entry* e = M->list; e; e = e->next) {
                if (!hashed)
                        e->hash = hashOf(e->key);
                Entry** b = bucketOf(M, e->hash);
                e->chain = *b;
                *b = e;
        }
}

// The entry of key, or NULL. With an index, *hash is set to the key's hash.
Entry* find(Map_T M, const char* key, uint32_t* hash = NULL) {
        if (!key)
                return NULL;
        if (!M->buckets) {
                for (Entry* e = M->list; e; e = e->next)
                        if (strcasecmp(e->key, key) == 0)
                                return e;
                return NULL;
        }
        uint32_t h = hashOf(key);
        if (hash)
                *hash = h;
        for (Entry* e = *bucketOf(M, h); e; e = e->chain)
                if (e->hash == h && strcasecmp(e->key, key) == 0)
                        return e;
        return NULL;
}

Entry* findOrAdd(Map_T M, const char* key) {
        uint32_t hash = 0;
        Entry* e = find(M, key, &hash);
        if (e)
                return e;
        e = make<Entry>(M);
        e->key = key;
        e->values = NULL;
        e->count = 0;
        e->prev = NULL;
        e->next = M->list;
        if (M->list)
                M->list->prev = e;
        M->list = e;
        M->length++;
        if (M->buckets) {
                e->hash = hash;
                Entry** b = bucketOf(M, hash);
                e->chain = *b;
                *b = e;
                if (M->length > M->size)
                        reindex(M, M->size * 2);
        } else if (M->length > kLinearLength) {
                reindex(M, kLinearLength * 4);
        }
        return e;
}

void addValue(Map_T M, Entry* e, const char* value) {
        Value* v = make<Value>(M);
        v->value = value;
        v->next = e->values;
        e->values = v;
        e->count++;
        M->count++;
}

void unlink(Map_T M, Entry* e) {
        if (M->buckets) {
                Entry** pp = bucketOf(M, e->hash);
                while (*pp != e)
                        pp = &(*pp)->chain;
                *pp = e->chain;
        }
        if (e->prev)
                e->prev->next = e->next;
        else
                M->list = e->next;
        if (e->next)
                e->next->prev = e->prev;
}

// The formatted key, cut at 255 characters; an absent format gives an absent key.
struct FormattedKey {
        char text[256];
        const char* key = NULL;
        FormattedKey(const char* fmt, va_list ap) {
                if (fmt) {
                        vsnprintf(text, sizeof text, fmt, ap);
                        key = text;
                }
        }
};

}  // namespace

Map_T Map_new(void) {
        Map_T M;
        NEW0(M);
        return M;
}

Map_T Map_alloc(Arena_T arena) {
        assert(arena);
        Map_T M = static_cast<Map_T>(ARENA_CALLOC(arena, 1, sizeof(struct Map_S)));
        M->arena = arena;
        return M;
}

void Map_free(Map_T* M) {
        assert(M && *M);
        assert((*M)->arena == NULL);
        Map_clear(*M);
        FREE(*M);
}

void Map_put(Map_T M, const char* key, const char* value) {
        assert(M);
        if (!key)
                return;
        Entry* e = findOrAdd(M, key);
        if (value)
                addValue(M, e, value);
        M->timestamp++;
}

void Map_set(Map_T M, const char* key, const char* value) {
        assert(M);
        if (!key)
                return;
        Entry* e = findOrAdd(M, key);
        dropValues(M, e);
        if (value)
                addValue(M, e, value);
        M->timestamp++;
}

const char* Map_get(Map_T M, const char* key) {
        assert(M);
        Entry* e = find(M, key);
        return e && e->values ? e->values->value : NULL;
}

const char* Map_vget(Map_T M, const char* fmt, va_list ap) {
        assert(M);
        FormattedKey k(fmt, ap);
        return Map_get(M, k.key);
}

const char** Map_gets(Map_T M, const char* key) {
        assert(M);
        Entry* e = find(M, key);
        if (!e)
                return NULL;
        const char** array = newArray(M, e->count + 1);
        int n = 0;
        for (Value* v = e->values; v; v = v->next)
                array[n++] = v->value;
        array[n] = NULL;
        return array;
}

const char** Map_vgets(Map_T M, const char* fmt, va_list ap) {
        assert(M);
        FormattedKey k(fmt, ap);
        return Map_gets(M, k.key);
}

int Map_has(Map_T M, const char* key) {
        assert(M);
        return find(M, key) != NULL;
}

int Map_hasValue(Map_T M, const char* key, const char* value) {
        assert(M);
        Entry* e = find(M, key);
        if (e && value)
                for (Value* v = e->values; v; v = v->next)
                        if (Str_sub(v->value, value))
                                return true;
        return false;
}

void Map_remove(Map_T M, const char* key) {
        assert(M);
        Entry* e = find(M, key);
        if (!e)
                return;
        unlink(M, e);
        dropEntry(M, e);
        M->length--;
        M->timestamp++;
}

void Map_clear(Map_T M) {
        assert(M);
        for (Entry *e = M->list, *next; e; e = next) {
                next = e->next;
                dropEntry(M, e);
        }
        dropBuckets(M);
        M->list = NULL;
        M->length = 0;
        M->count = 0;
        M->timestamp++;
}

int Map_length(Map_T M) {
        assert(M);
        return M->length;
}

int Map_count(Map_T M) {
        assert(M);
        return M->count;
}

const char** Map_keys(Map_T M) {
        assert(M);
        const char** array = newArray(M, M->length + 1);
        int n = 0;
        for (Entry* e = M->list; e; e = e->next)
                array[n++] = e->key;
        array[n] = NULL;
        return array;
}

const char** Map_values(Map_T M) {
        assert(M);
        const char** array = newArray(M, M->count + 1);
        int n = 0;
        for (Entry* e = M->list; e; e = e->next)
                for (Value* v = e->values; v; v = v->next)
                        array[n++] = v->value;
        array[n] = NULL;
        return array;
}

void Map_map(Map_T M, void (*apply)(const char* key, const char* value, void* cl), void* cl) {
        assert(M);
        assert(apply);
        unsigned int stamp = M->timestamp;
        for (Entry* e = M->list; e; e = e->next) {
                if (!e->values) {
                        apply(e->key, NULL, cl);
                        assert(M->timestamp == stamp);
                }
                for (Value* v = e->values; v; v = v->next) {
                        apply(e->key, v->value, cl);
                        assert(M->timestamp == stamp);
                }
        }
}

void Map_list(Map_T M) {
        assert(M);
        printf("{");
        for (Entry* e = M->list; e; e = e->next) {
                printf("%s={", e->key);
                if (!e->values)
                        printf("null}");
                for (Value* v = e->values; v; v = v->next)
                        printf("%p%s", (const void*)v->value, v->next ? ", " : "}");
                if (e->next)
                        printf(", ");
        }
        printf("}\n");
}
