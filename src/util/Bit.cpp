#include <Judy.h>

#include <vesk/Bit.h>
#include <vesk/Mem.h>
#include <vesk/assert.h>

struct Bit_S {
        Pvoid_t array;
        unsigned int index;
        bool started;
};

namespace {

// Whether a Judy1 call changed the array; the library running out of memory raises.
bool changed(int status, const char* call) {
        if (status == JERR)
                THROW(MemoryException, "%s", call);
        return status == 1;
}

// Holds an array while a result is built, so that a raise in the middle frees it.
struct Building {
        Pvoid_t array = nullptr;
        Building() = default;
        Building(const Building&) = delete;
        Building& operator=(const Building&) = delete;
        ~Building() { Judy1FreeArray(&array, PJE0); }
        void put(Word_t n) { changed(Judy1Set(&array, n, PJE0), "Judy1Set"); }
        Bit_T done() {
                Bit_T B;
                NEW0(B);
                B->array = array;
                array = nullptr;
                return B;
        }
};

bool has(Pcvoid_t array, Word_t n) {
        return Judy1Test(array, n, PJE0) == 1;
}

// Calls f(n) for each member of the array in rising order.
template <typename F>
void forEach(Pcvoid_t array, F&& f) {
        Word_t n = 0;
        for (int found = Judy1First(array, &n, PJE0); found == 1;
             found = Judy1Next(array, &n, PJE0))
                f(n);
}

// True if every member of s is one of t.
bool within(Pcvoid_t s, Pcvoid_t t) {
        bool inside = true;
        forEach(s, [&](Word_t n) { inside = inside && has(t, n); });
        return inside;
}

Bit_T copy(Bit_T B) {
        Building b;
        forEach(B->array, [&](Word_t n) { b.put(n); });
        return b.done();
}

}  // namespace

Bit_T Bit_new(void) {
        Bit_T B;
        NEW0(B);
        return B;
}

void Bit_free(Bit_T* B) {
        assert(B && *B);
        Judy1FreeArray(&(*B)->array, PJE0);
        FREE(*B);
}

int Bit_put(Bit_T B, unsigned int n) {
        assert(B);
        return changed(Judy1Set(&B->array, n, PJE0), "Judy1Set");
}

int Bit_remove(Bit_T B, unsigned int n) {
        assert(B);
        return changed(Judy1Unset(&B->array, n, PJE0), "Judy1Unset");
}

int Bit_member(Bit_T B, unsigned int n) {
        assert(B);
        return has(B->array, n);
}

long long Bit_length(Bit_T B) {
        assert(B);
        return static_cast<long long>(Judy1Count(B->array, 0, static_cast<Word_t>(-1), PJE0));
}

void Bit_clear(Bit_T B) {
        assert(B);
        Judy1FreeArray(&B->array, PJE0);
        B->index = 0;
        B->started = false;
}

void Bit_map(Bit_T B, void (*apply)(unsigned int n, void* cl), void* cl) {
        assert(B);
        assert(apply);
        forEach(B->array, [&](Word_t n) { apply(static_cast<unsigned int>(n), cl); });
}

void Bit_rmap(Bit_T B, void (*apply)(unsigned int n, void* cl), void* cl) {
        assert(B);
        assert(apply);
        Word_t n = static_cast<Word_t>(-1);
        for (int found = Judy1Last(B->array, &n, PJE0); found == 1;
             found = Judy1Prev(B->array, &n, PJE0))
                apply(static_cast<unsigned int>(n), cl);
}

void Bit_rewind(Bit_T B) {
        assert(B);
        B->index = 0;
        B->started = false;
}

long long Bit_next(Bit_T B) {
        assert(B);
        Word_t n = B->index;
        int found = B->started ? Judy1Next(B->array, &n, PJE0) : Judy1First(B->array, &n, PJE0);
        if (found != 1)
                return -1;
        B->index = static_cast<unsigned int>(n);
        B->started = true;
        return static_cast<long long>(n);
}

int Bit_eq(Bit_T s, Bit_T t) {
        if (s == t)
                return 1;
        if (!s || !t || Bit_length(s) != Bit_length(t))
                return 0;
        return within(s->array, t->array);
}

int Bit_lt(Bit_T s, Bit_T t) {
        if (!s) {
                assert(t);
                return 1;
        }
        if (!t || Bit_length(s) >= Bit_length(t))
                return 0;
        return within(s->array, t->array);
}

Bit_T Bit_union(Bit_T s, Bit_T t) {
        if (!s) {
                assert(t);
                return copy(t);
        }
        if (!t)
                return copy(s);
        Building b;
        forEach(s->array, [&](Word_t n) { b.put(n); });
        forEach(t->array, [&](Word_t n) { b.put(n); });
        return b.done();
}

Bit_T Bit_inter(Bit_T s, Bit_T t) {
        if (!s) {
                assert(t);
                return Bit_new();
        }
        if (!t)
                return Bit_new();
        if (Bit_length(s) < Bit_length(t))
                return Bit_inter(t, s);
        // t is the smaller: walk it and look each member up in s.
        Building b;
        forEach(t->array, [&](Word_t n) {
                if (has(s->array, n))
                        b.put(n);
        });
        return b.done();
}

Bit_T Bit_minus(Bit_T s, Bit_T t) {
        if (!s) {
                assert(t);
                return Bit_new();
        }
        if (!t)
                return copy(s);
        Building b;
        forEach(s->array, [&](Word_t n) {
                if (!has(t->array, n))
                        b.put(n);
        });
        return b.done();
}

Bit_T Bit_diff(Bit_T s, Bit_T t) {
        if (!s) {
                assert(t);
                return copy(t);
        }
        if (!t)
                return copy(s);
        Building b;
        forEach(s->array, [&](Word_t n) {
                if (!has(t->array, n))
                        b.put(n);
        });
        forEach(t->array, [&](Word_t n) {
                if (!has(s->array, n))
                        b.put(n);
        });
        return b.done();
}
