#include <stdio.h>
#include <strings.h>

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
        Entry* next;
        Value* values;
};

}  // namespace

struct Map_S {
        int length;
        Arena_T arena;
        unsigned int timestamp;
        Entry* list;
};

namespace {

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
        e->values = NULL;
}

void dropEntry(Map_T M, Entry* e) {
        dropValues(M, e);
        if (!M->arena)
                FREE(e);
}

Entry* find(Map_T M, const char* key) {
        if (key)
                for (Entry* e = M->list; e; e = e->next)
                        if (strcasecmp(e->key, key) == 0)
                                return e;
        return NULL;
}

Entry* findOrAdd(Map_T M, const char* key) {
        Entry* e = find(M, key);
        if (!e) {
                e = make<Entry>(M);
                e->key = key;
                e->values = NULL;
                e->next = M->list;
                M->list = e;
                M->length++;
        }
        return e;
}

void addValue(Map_T M, Entry* e, const char* value) {
        Value* v = make<Value>(M);
        v->value = value;
        v->next = e->values;
        e->values = v;
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
        int n = 0;
        for (Value* v = e->values; v; v = v->next)
                n++;
        const char** array = newArray(M, n + 1);
        n = 0;
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
        if (!key)
                return;
        for (Entry** pp = &M->list; *pp; pp = &(*pp)->next)
                if (strcasecmp((*pp)->key, key) == 0) {
                        Entry* e = *pp;
                        *pp = e->next;
                        dropEntry(M, e);
                        M->length--;
                        M->timestamp++;
                        return;
                }
}

void Map_clear(Map_T M) {
        assert(M);
        for (Entry *e = M->list, *next; e; e = next) {
                next = e->next;
                dropEntry(M, e);
        }
        M->list = NULL;
        M->length = 0;
        M->timestamp++;
}

int Map_length(Map_T M) {
        assert(M);
        return M->length;
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
        int n = 0;
        for (Entry* e = M->list; e; e = e->next)
                for (Value* v = e->values; v; v = v->next)
                        n++;
        const char** array = newArray(M, n + 1);
        n = 0;
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
