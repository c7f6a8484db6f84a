#include <stddef.h>

#include <vesk/List.h>
#include <vesk/Mem.h>
#include <vesk/assert.h>

namespace {

// Recycled nodes first; a fresh node comes from the list's arena, or the heap without one.
list_t new_node(List_T L) {
        list_t p = L->freelist;
        if (p) {
                L->freelist = p->next;
                return p;
        }
        if (L->arena)
                return static_cast<list_t>(
                    Arena_alloc(L->arena, sizeof *p, "new_node", __FILE__, __LINE__));
        return static_cast<list_t>(Mem_alloc(sizeof *p, "new_node", __FILE__, __LINE__));
}

void recycle(List_T L, list_t p) {
        p->next = L->freelist;
        L->freelist = p;
        L->length--;
        L->timestamp++;
}

void free_chain(list_t p) {
        while (p) {
                list_t next = p->next;
                FREE(p);
                p = next;
        }
}

}  // namespace

List_T List_new(void) {
        List_T L;
        NEW0(L);
        return L;
}

List_T List_alloc(Arena_T arena) {
        assert(arena);
        List_T L = static_cast<List_T>(ARENA_CALLOC(arena, 1, sizeof *L));
        L->arena = arena;
        return L;
}

void List_free(List_T* L) {
        assert(L && *L);
        assert((*L)->arena == NULL);
        free_chain((*L)->head);
        free_chain((*L)->freelist);
        FREE(*L);
}

void List_push(List_T L, void* e) {
        assert(L);
        list_t p = new_node(L);
        p->e = e;
        p->next = L->head;
        if (!L->head)
                L->tail = p;
        L->head = p;
        L->length++;
        L->timestamp++;
}

void List_append(List_T L, void* e) {
        assert(L);
        list_t p = new_node(L);
        p->e = e;
        p->next = NULL;
        if (L->head)
                L->tail->next = p;
        else
                L->head = p;
        L->tail = p;
        L->length++;
        L->timestamp++;
}

void* List_pop(List_T L) {
        assert(L);
        list_t p = L->head;
        if (!p)
                return NULL;
        // tail stays as it was: adding looks at head, never at a stale tail.
        L->head = p->next;
        void* e = p->e;
        recycle(L, p);
        return e;
}

void* List_remove(List_T L, void* e) {
        assert(L);
        if (!e || !L->head)
                return NULL;
        if (L->head->e == e)
                return List_pop(L);
        for (list_t prev = L->head; prev->next; prev = prev->next) {
                list_t p = prev->next;
                if (p->e == e) {
                        prev->next = p->next;
                        if (p == L->tail)
                                L->tail = prev;
                        recycle(L, p);
                        return e;
                }
        }
        return NULL;
}

void List_cat(List_T L, List_T list) {
        assert(L);
        assert(list);
        if (L == list)
                return;
        for (list_t p = list->head; p; p = p->next)
                List_append(L, p->e);
}

void List_reverse(List_T L) {
        assert(L);
        list_t prev = NULL;
        list_t p = L->head;
        L->tail = p;
        while (p) {
                list_t next = p->next;
                p->next = prev;
                prev = p;
                p = next;
        }
        L->head = prev;
}

int List_length(List_T L) {
        assert(L);
        return L->length;
}

void List_clear(List_T L) {
        assert(L);
        // The whole chain goes to the recycle list at once. After the last pop, tail still
        // names a node that is already recycled, so only a present head has a chain to give.
        if (L->head) {
                L->tail->next = L->freelist;
                L->freelist = L->head;
        }
        L->head = L->tail = NULL;
        L->length = 0;
}

void List_map(List_T L, void (*apply)(void* e, void* cl), void* cl) {
        assert(L);
        assert(apply);
        unsigned int stamp = L->timestamp;
        for (list_t p = L->head; p; p = p->next) {
                apply(p->e, cl);
                assert(L->timestamp == stamp);
        }
}

void** List_toArray(List_T L) {
        assert(L);
        void** array = static_cast<void**>(ALLOC((L->length + 1) * (int)sizeof(void*)));
        int i = 0;
        for (list_t p = L->head; p; p = p->next)
                array[i++] = p->e;
        array[i] = NULL;
        return array;
}
