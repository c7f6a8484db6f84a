#include <stdarg.h>

#include <vesk/Mem.h>
#include <vesk/Ring.h>
#include <vesk/assert.h>

namespace {

struct Node {
        Node* llink;
        Node* rlink;
        void* value;
};

}  // namespace

struct Ring_S {
        Node* head;
        int length;
};

namespace {

// The node of element i, reached the shorter way round.
Node* nodeAt(Ring_T ring, int i) {
        Node* q = ring->head;
        if (i <= ring->length / 2) {
                while (i-- > 0)
                        q = q->rlink;
        } else {
                for (i = ring->length - i; i-- > 0;)
                        q = q->llink;
        }
        return q;
}

// Links a new node holding x to the left of q.
Node* insertBefore(Node* q, void* x) {
        Node* p;
        NEW(p);
        p->value = x;
        p->llink = q->llink;
        q->llink->rlink = p;
        p->rlink = q;
        q->llink = p;
        return p;
}

void* unlink(Ring_T ring, Node* q) {
        void* x = q->value;
        q->llink->rlink = q->rlink;
        q->rlink->llink = q->llink;
        FREE(q);
        if (--ring->length == 0)
                ring->head = nullptr;
        return x;
}

}  // namespace

Ring_T Ring_new(void) {
        Ring_T ring;
        NEW0(ring);
        return ring;
}

Ring_T Ring_ring(void* x, ...) {
        Ring_T ring = Ring_new();
        va_list ap;
        va_start(ap, x);
        for (; x; x = va_arg(ap, void*))
                Ring_addhi(ring, x);
        va_end(ap);
        return ring;
}

void Ring_free(Ring_T* ring) {
        assert(ring && *ring);
        if (Node* p = (*ring)->head) {
                for (int n = (*ring)->length; n-- > 0;) {
                        Node* q = p->rlink;
                        FREE(p);
                        p = q;
                }
        }
        FREE(*ring);
}

int Ring_length(Ring_T ring) {
        assert(ring);
        return ring->length;
}

void* Ring_get(Ring_T ring, int i) {
        assert(ring);
        assert(i >= 0 && i < ring->length);
        return nodeAt(ring, i)->value;
}

void* Ring_put(Ring_T ring, int i, void* x) {
        assert(ring);
        assert(i >= 0 && i < ring->length);
        Node* q = nodeAt(ring, i);
        void* prev = q->value;
        q->value = x;
        return prev;
}

void* Ring_addhi(Ring_T ring, void* x) {
        assert(ring);
        if (ring->head) {
                insertBefore(ring->head, x);
        } else {
                Node* p;
                NEW(p);
                p->value = x;
                p->llink = p->rlink = p;
                ring->head = p;
        }
        ring->length++;
        return x;
}

void* Ring_addlo(Ring_T ring, void* x) {
        assert(ring);
        Ring_addhi(ring, x);
        ring->head = ring->head->llink;
        return x;
}

void* Ring_add(Ring_T ring, int pos, void* x) {
        assert(ring);
        // The text of this check is part of the interface: keep its spacing.
        // clang-format off
        assert(pos >= -ring->length && pos<=ring->length+1);
        // clang-format on
        if (pos == 1 || pos == -ring->length)
                return Ring_addlo(ring, x);
        if (pos == 0 || pos == ring->length + 1)
                return Ring_addhi(ring, x);
        insertBefore(nodeAt(ring, pos < 0 ? pos + ring->length : pos - 1), x);
        ring->length++;
        return x;
}

void* Ring_remove(Ring_T ring, int i) {
        assert(ring);
        assert(ring->length > 0);
        assert(i >= 0 && i < ring->length);
        Node* q = nodeAt(ring, i);
        if (i == 0)
                ring->head = ring->head->rlink;
        return unlink(ring, q);
}

void* Ring_remhi(Ring_T ring) {
        assert(ring);
        assert(ring->length > 0);
        return unlink(ring, ring->head->llink);
}

void* Ring_remlo(Ring_T ring) {
        assert(ring);
        assert(ring->length > 0);
        Node* q = ring->head;
        ring->head = q->rlink;
        return unlink(ring, q);
}

void Ring_rotate(Ring_T ring, int n) {
        assert(ring);
        assert(n >= -ring->length && n <= ring->length);
        if (ring->length == 0)
                return;
        int i = n >= 0 ? n % ring->length : n + ring->length;
        // A turn to the right by i makes the element i places left of head the new head.
        ring->head = nodeAt(ring, (ring->length - i) % ring->length);
}
