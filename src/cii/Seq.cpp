#include <stdarg.h>
#include <string.h>

#include <vesk/Mem.h>
#include <vesk/Seq.h>
#include <vesk/assert.h>

#include "cii/ArrayRep.h"

struct Seq_S {
        struct Array_S array;
        int length;
        int head;
};

namespace {

void** slots(Seq_T seq) {
        return reinterpret_cast<void**>(seq->array.array);
}

void*& at(Seq_T seq, int i) {
        return slots(seq)[(seq->head + i) % seq->array.length];
}

// Doubles the room. The elements from head to the old end move to the end of the new space, so
// that the circular order stays whole.
void expand(Seq_T seq) {
        int n = seq->array.length;
        Array_resize(&seq->array, 2 * n);
        if (seq->head > 0) {
                void** old = slots(seq) + seq->head;
                memcpy(old + n, old, static_cast<size_t>(n - seq->head) * sizeof(void*));
                seq->head += n;
        }
}

}  // namespace

Seq_T Seq_new(int hint) {
        assert(hint >= 0);
        if (hint == 0)
                hint = 16;
        Seq_T seq;
        NEW0(seq);
        ArrayRep_init(&seq->array, hint, static_cast<int>(sizeof(void*)),
                      CALLOC(hint, static_cast<int>(sizeof(void*))));
        return seq;
}

Seq_T Seq_seq(void* first, ...) {
        Seq_T seq = Seq_new(0);
        va_list ap;
        va_start(ap, first);
        for (void* x = first; x; x = va_arg(ap, void*))
                Seq_addhi(seq, x);
        va_end(ap);
        return seq;
}

void Seq_free(Seq_T* seq) {
        assert(seq && *seq);
        FREE((*seq)->array.array);
        FREE(*seq);
}

int Seq_length(Seq_T seq) {
        assert(seq);
        return seq->length;
}

void* Seq_get(Seq_T seq, int i) {
        assert(seq);
        assert(i >= 0 && i < seq->length);
        return at(seq, i);
}

void* Seq_put(Seq_T seq, int i, void* x) {
        assert(seq);
        assert(i >= 0 && i < seq->length);
        void* prev = at(seq, i);
        at(seq, i) = x;
        return prev;
}

void* Seq_addhi(Seq_T seq, void* x) {
        assert(seq);
        if (seq->length == seq->array.length)
                expand(seq);
        at(seq, seq->length++) = x;
        return x;
}

void* Seq_addlo(Seq_T seq, void* x) {
        assert(seq);
        if (seq->length == seq->array.length)
                expand(seq);
        seq->head = seq->head == 0 ? seq->array.length - 1 : seq->head - 1;
        seq->length++;
        at(seq, 0) = x;
        return x;
}

void* Seq_remhi(Seq_T seq) {
        assert(seq);
        assert(seq->length > 0);
        return at(seq, --seq->length);
}

void* Seq_remlo(Seq_T seq) {
        assert(seq);
        assert(seq->length > 0);
        void* x = at(seq, 0);
        seq->head = (seq->head + 1) % seq->array.length;
        seq->length--;
        return x;
}
