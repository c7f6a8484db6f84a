#include <stddef.h>

#include <vesk/LRU.h>
#include <vesk/Mem.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/assert.h>

namespace {

struct Node {
        Node* next;
        Node* prev;
        const char* key;
        void* value;
};

// The ring of use: head is the most recently used node and head->next the eldest.
struct Circ {
        Node* head;
        Node* freelist;
        int freecount;
        int length;
};

// A ring keeps at most this many removed nodes for reuse.
constexpr int kFreeLimit = 10;

Node* new_node(Circ* C) {
        Node* n = C->freelist;
        if (n) {
                C->freelist = n->next;
                C->freecount--;
                return n;
        }
        return static_cast<Node*>(Mem_alloc(sizeof *n, "new_node", __FILE__, __LINE__));
}

// Links n in behind head and makes it the head.
void Circ_link(Circ* C, Node* n) {
        if (C->head) {
                n->prev = C->head;
                n->next = C->head->next;
                C->head->next->prev = n;
                C->head->next = n;
        } else {
                n->next = n->prev = n;
        }
        C->head = n;
}

void Circ_unlink(Node* n) {
        n->prev->next = n->next;
        n->next->prev = n->prev;
}

Node* Circ_add(Circ* C, const char* key, void* value) {
        Node* n = new_node(C);
        n->key = key;
        n->value = value;
        Circ_link(C, n);
        C->length++;
        return n;
}

void Circ_access(Circ* C, Node* n) {
        assert(C->length > 0);
        if (n != C->head) {
                Circ_unlink(n);
                Circ_link(C, n);
        }
}

void Circ_remove(Circ* C, Node* n) {
        assert(C);
        assert(n);
        assert(C->length > 0);
        if (C->length == 1) {
                C->head = NULL;
        } else {
                if (n == C->head)
                        C->head = n->prev;
                Circ_unlink(n);
        }
        C->length--;
        if (C->freecount < kFreeLimit) {
                n->next = C->freelist;
                C->freelist = n;
                C->freecount++;
        } else {
                FREE(n);
        }
}

void freeChain(Node* n, int count) {
        while (count-- > 0) {
                Node* next = n->next;
                FREE(n);
                n = next;
        }
}

}  // namespace

struct LRU_S {
        Circ circ;
        Table_T table;
        Node* iterator;
        int index;
        bool started;
};

namespace {

void* removeNode(LRU_T L, Node* n) {
        Table_remove(L->table, n->key);
        if (L->iterator == n)
                L->iterator = n->prev;
        L->index--;
        void* value = n->value;
        Circ_remove(&L->circ, n);
        if (!L->circ.head)
                L->iterator = NULL;  // never left on a recycled node
        return value;
}

}  // namespace

LRU_T LRU_new(int hint) {
        LRU_T L;
        NEW0(L);
        TRY
                L->table = Table_new(hint, Str_cmp, Str_hash);
        ELSE
                FREE(L);
                RETHROW;
        END_TRY;
        return L;
}

void LRU_free(LRU_T* L) {
        assert(L && *L);
        LRU_T l = *L;
        if (l->circ.head)
                freeChain(l->circ.head, l->circ.length);
        freeChain(l->circ.freelist, l->circ.freecount);
        Table_free(&l->table);
        FREE(*L);
}

void* LRU_put(LRU_T L, const char* key, void* value) {
        assert(L);
        assert(key);
        Node* n = static_cast<Node*>(Table_get(L->table, key));
        if (n) {
                // A put is not a use: the entry keeps its place in the order.
                void* old = n->value;
                n->value = value;
                return old;
        }
        n = Circ_add(&L->circ, key, value);
        TRY
                Table_put(L->table, key, n);
        ELSE
                Circ_remove(&L->circ, n);
                RETHROW;
        END_TRY;
        return NULL;
}

void* LRU_get(LRU_T L, const char* key) {
        assert(L);
        assert(key);
        Node* n = static_cast<Node*>(Table_get(L->table, key));
        if (!n)
                return NULL;
        Circ_access(&L->circ, n);
        return n->value;
}

void* LRU_remove(LRU_T L, const char* key) {
        assert(L);
        assert(key);
        Node* n = static_cast<Node*>(Table_get(L->table, key));
        return n ? removeNode(L, n) : NULL;
}

void* LRU_removeEldest(LRU_T L) {
        assert(L);
        if (!L->circ.head)
                return NULL;
        L->started = false;
        return removeNode(L, L->circ.head->next);
}

int LRU_length(LRU_T L) {
        assert(L);
        return Table_length(L->table);
}

void LRU_rewind(LRU_T L) {
        assert(L);
        L->index = 0;
        L->started = false;
        L->iterator = L->circ.head;
}

void* LRU_next(LRU_T L) {
        assert(L);
        Circ* C = &L->circ;
        if (C->length == 0 || (C->length == 1 && L->started) || L->index >= C->length ||
            !L->iterator)
                return NULL;
        L->index++;
        L->started = true;
        L->iterator = L->iterator->next;
        return L->iterator->value;
}
