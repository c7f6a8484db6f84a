/*
 * List: a singly linked list of untyped references.
 *
 * The list holds references only; what they refer to stays the caller's. A
 * list lives on the heap (List_new) or in an arena (List_alloc); an arena list
 * is never freed alone and disappears with its arena, so List_free refuses it.
 * Removed nodes are kept for reuse, so a warm list adds without allocating.
 *
 * The record and its nodes are public so that a walk is a plain loop:
 *
 *     for (list_t p = L->head; p; p = p->next) use(p->e);
 *
 * List_map stops with AssertException "L->timestamp == stamp" when the list
 * gains or loses an element during the walk. Absent handles fail the check "L".
 */
#ifndef VESK_LIST_INCLUDED
#define VESK_LIST_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* One node: the element and the next node, or NULL at the end. */
struct List_Node {
        void* e;
        struct List_Node* next;
};
typedef struct List_Node* list_t;

struct List_S {
        int length;
        unsigned int timestamp; /* raised by adding and removing */
        Arena_T arena;          /* where the nodes live, or NULL for the heap */
        list_t head;
        list_t tail; /* meaningful only while head is present */
        list_t freelist;
};
typedef struct List_S* List_T;

/* A new empty list on the heap; free it with List_free. */
VESK_API List_T List_new(void);

/* A new empty list in arena, which must be present. */
VESK_API List_T List_alloc(Arena_T arena);

/* Frees a heap list and its nodes and clears *L; the elements stay the caller's. */
VESK_API void List_free(List_T* L);

/* Adds e at the front. */
VESK_API void List_push(List_T L, void* e);

/* Adds e at the end. */
VESK_API void List_append(List_T L, void* e);

/* Removes and returns the first element; NULL when the list is empty. */
VESK_API void* List_pop(List_T L);

/* Removes the first element that is the reference e and returns e; NULL if e is absent or not
   found. Compares references, never contents. */
VESK_API void* List_remove(List_T L, void* e);

/* Appends every element of list to L; list is left as it was. L onto itself does nothing. */
VESK_API void List_cat(List_T L, List_T list);

/* Reverses the list in place. */
VESK_API void List_reverse(List_T L);

/* The number of elements. */
VESK_API int List_length(List_T L);

/* Removes all elements in constant time, keeping the nodes for reuse. */
VESK_API void List_clear(List_T L);

/* Calls apply(e, cl) for each element from the front. */
VESK_API void List_map(List_T L, void (*apply)(void* e, void* cl), void* cl);

/* A new heap array of the elements closed by NULL, even for an arena list; free it with
   Mem_free. */
VESK_API void** List_toArray(List_T L);

VESK_END_DECLS

#endif
