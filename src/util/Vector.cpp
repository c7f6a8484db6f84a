#include <limits.h>
#include <string.h>

#include <vesk/Mem.h>
#include <vesk/Vector.h>
#include <vesk/assert.h>

struct Vector_S {
        int length;
        int capacity;
        void** array;
        unsigned int timestamp;
};

namespace {

// The largest capacity whose array size still fits the allocator's int.
constexpr int kMaxCapacity = INT_MAX / (int)sizeof(void*);

inline void checkIndex(int i, int limit) {
        if (i < 0 || i >= limit)
                THROW(AssertException, "Index out of bounds");
}

// Doubles the array when it is full. New slots are not zeroed: length guards them.
void ensureCapacity(Vector_T V) {
        if (V->length < V->capacity)
                return;
        if (V->length >= kMaxCapacity)
                Exception_throw(&MemoryException, "ensureCapacity", __FILE__, __LINE__,
                                "Vector cannot grow beyond %d elements", kMaxCapacity);
        int capacity = V->length > kMaxCapacity / 2 ? kMaxCapacity : 2 * V->length;
        V->array = static_cast<void**>(Mem_resize(V->array, capacity * (int)sizeof(void*),
                                                  "ensureCapacity", __FILE__, __LINE__));
        V->capacity = capacity;
}

}  // namespace

Vector_T Vector_new(int hint) {
        // clang-format off
        assert(hint>=0);  // the check's text is part of the interface
        // clang-format on
        Vector_T V;
        NEW0(V);
        V->capacity = hint ? hint : 16;
        TRY
                V->array = static_cast<void**>(CALLOC(V->capacity, sizeof(void*)));
        ELSE
                FREE(V);
                RETHROW;
        END_TRY;
        return V;
}

void Vector_free(Vector_T* V) {
        assert(V && *V);
        FREE((*V)->array);
        FREE(*V);
}

void Vector_push(Vector_T V, void* e) {
        assert(V);
        // Counted before growing, so a failed growth still shows as a change.
        V->timestamp++;
        ensureCapacity(V);
        V->array[V->length++] = e;
}

void Vector_insert(Vector_T V, int i, void* e) {
        assert(V);
        checkIndex(i, V->length + 1);
        V->timestamp++;
        ensureCapacity(V);
        memmove(V->array + i + 1, V->array + i, (size_t)(V->length - i) * sizeof(void*));
        V->array[i] = e;
        V->length++;
}

void* Vector_set(Vector_T V, int i, void* e) {
        assert(V);
        checkIndex(i, V->length);
        V->timestamp++;
        void* old = V->array[i];
        V->array[i] = e;
        return old;
}

void* Vector_get(Vector_T V, int i) {
        assert(V);
        checkIndex(i, V->length);
        return V->array[i];
}

void* Vector_remove(Vector_T V, int i) {
        assert(V);
        checkIndex(i, V->length);
        V->timestamp++;
        void* e = V->array[i];
        V->length--;
        memmove(V->array + i, V->array + i + 1, (size_t)(V->length - i) * sizeof(void*));
        return e;
}

void* Vector_pop(Vector_T V) {
        assert(V);
        if (V->length == 0)
                THROW(AssertException, "Vector is empty");
        V->timestamp++;
        return V->array[--V->length];
}

void Vector_clear(Vector_T V) {
        assert(V);
        V->length = 0;
}

int Vector_size(Vector_T V) {
        assert(V);
        return V->length;
}

int Vector_isEmpty(Vector_T V) {
        assert(V);
        return V->length == 0;
}

void Vector_map(Vector_T V, void (*apply)(void* e, void* cl), void* cl) {
        assert(V);
        assert(apply);
        unsigned int stamp = V->timestamp;
        for (int i = 0; i < V->length; i++) {
                apply(V->array[i], cl);
                assert(V->timestamp == stamp);
        }
}

void** Vector_toArray(Vector_T V, void* end) {
        assert(V);
        void** array = static_cast<void**>(ALLOC((V->length + 1) * (int)sizeof(void*)));
        memcpy(array, V->array, (size_t)V->length * sizeof(void*));
        array[V->length] = end;
        return array;
}
