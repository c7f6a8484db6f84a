#include <limits.h>
#include <stddef.h>

#include <vesk/Mem.h>
#include <vesk/Set.h>
#include <vesk/assert.h>

namespace {

struct Member {
        Member* link;
        const void* member;
};

// 127 comes twice: a hint picks the largest entry below it, and every hint up to 509 gets 127.
constexpr int primes[] = {127, 127, 509, 1021, 2053, 4093, 8191, 16381, 32771, 65521, INT_MAX};

// Beyond this many recycled nodes a heap set gives removed nodes back to the heap.
constexpr int kFreeLimit = 99;

}  // namespace

struct Set_S {
        int length;
        int index;
        Member* iterator;
        int freecount;
        Member* freelist;
        unsigned int timestamp;
        int (*cmp)(const void* x, const void* y);
        unsigned int (*hash)(const void* x);
        int size;
        Arena_T arena;
        Member* buckets[];
};

namespace {

Member* new_member(Set_T S) {
        Member* p = S->freelist;
        if (p) {
                S->freelist = p->link;
                S->freecount--;
                return p;
        }
        if (S->arena)
                return static_cast<Member*>(
                    Arena_alloc(S->arena, sizeof *p, "new_member", __FILE__, __LINE__));
        return static_cast<Member*>(Mem_alloc(sizeof *p, "new_member", __FILE__, __LINE__));
}

inline Member** bucketOf(Set_T S, const void* member) {
        return &S->buckets[S->hash(member) % (unsigned)S->size];
}

// The slot that points at the node of member, or at the terminating NULL of its chain.
Member** find(Set_T S, Member** pp, const void* member) {
        while (*pp && S->cmp(member, (*pp)->member) != 0)
                pp = &(*pp)->link;
        return pp;
}

inline Member** find(Set_T S, const void* member) {
        return find(S, bucketOf(S, member), member);
}

// Adds a member known to be new, with no search.
void insert(Set_T S, const void* member) {
        Member** bucket = bucketOf(S, member);
        Member* p = new_member(S);
        p->member = member;
        p->link = *bucket;
        *bucket = p;
        S->length++;
        S->timestamp++;
}

template <typename F>
void each(Set_T S, F f) {
        for (int i = 0; i < S->size; i++)
                for (Member* p = S->buckets[i]; p; p = p->link)
                        f(p->member);
}

inline Set_T empty(Set_T like, int hint) {
        return Set_alloc(like->arena, hint, like->cmp, like->hash);
}

Set_T copy(Set_T t, int hint) {
        Set_T s = empty(t, hint);
        each(t, [s](const void* m) { insert(s, m); });
        return s;
}

inline void checkAgree(Set_T s, Set_T t) {
        assert(s->cmp == t->cmp && s->hash == t->hash && s->arena == t->arena);
}

inline int smaller(int x, int y) {
        return x < y ? x : y;
}

}  // namespace

Set_T Set_alloc(Arena_T arena, int hint, int (*cmp)(const void* x, const void* y),
                unsigned int (*hash)(const void* x)) {
        assert(hint >= 0);
        assert(cmp);
        assert(hash);
        int i;
        for (i = 1; primes[i] < hint; i++)
                ;
        int size = primes[i - 1];
        int nbytes = (int)(sizeof(struct Set_S) + size * sizeof(Member*));
        Set_T S = static_cast<Set_T>(arena ? ARENA_CALLOC(arena, 1, nbytes) : CALLOC(1, nbytes));
        S->size = size;
        S->cmp = cmp;
        S->hash = hash;
        S->arena = arena;
        return S;
}

Set_T Set_new(int hint, int (*cmp)(const void* x, const void* y),
              unsigned int (*hash)(const void* x)) {
        return Set_alloc(NULL, hint, cmp, hash);
}

void Set_free(Set_T* S) {
        assert(S && *S);
        assert((*S)->arena == NULL);
        Set_T s = *S;
        for (int i = 0; i < s->size; i++)
                for (Member *p = s->buckets[i], *q; p; p = q) {
                        q = p->link;
                        FREE(p);
                }
        for (Member *p = s->freelist, *q; p; p = q) {
                q = p->link;
                FREE(p);
        }
        FREE(*S);
}

void Set_put(Set_T S, const void* member) {
        assert(S);
        assert(member);
        Member* p = *find(S, member);
        if (p) {
                p->member = member;
                S->timestamp++;
        } else {
                insert(S, member);
        }
}

int Set_member(Set_T S, const void* member) {
        assert(S);
        assert(member);
        return *find(S, member) != NULL;
}

void* Set_remove(Set_T S, const void* member) {
        assert(S);
        assert(member);
        // A miss counts as a change too, so a walk in progress stops either way.
        S->timestamp++;
        Member** pp = find(S, member);
        Member* p = *pp;
        if (!p)
                return NULL;
        *pp = p->link;
        S->length--;
        void* stored = const_cast<void*>(p->member);
        if (S->arena == NULL && S->freecount > kFreeLimit) {
                // A walk that had finished its chain resumes behind the removed node. A walk
                // standing on the removed node must not keep a freed one.
                if (S->iterator == NULL || S->iterator == p)
                        S->iterator = p->link;
                FREE(p);
        } else {
                if (S->iterator == p)
                        S->iterator = p->link;
                p->link = S->freelist;
                S->freelist = p;
                S->freecount++;
        }
        return stored;
}

int Set_length(Set_T S) {
        assert(S);
        return S->length;
}

void Set_map(Set_T S, void (*apply)(const void* member, void* cl), void* cl) {
        assert(S);
        assert(apply);
        unsigned int stamp = S->timestamp;
        for (int i = 0; i < S->size; i++)
                for (Member* p = S->buckets[i]; p; p = p->link) {
                        apply(p->member, cl);
                        assert(S->timestamp == stamp);
                }
}

void Set_rewind(Set_T S) {
        assert(S);
        S->index = 0;
        S->iterator = NULL;
}

void* Set_next(Set_T S) {
        assert(S);
        if (S->length < 1)
                return NULL;
        Member* p = S->iterator;
        if (!p) {
                while (S->index < S->size && !S->buckets[S->index])
                        S->index++;
                if (S->index >= S->size)
                        return NULL;
                p = S->buckets[S->index++];
        }
        S->iterator = p->link;
        return const_cast<void*>(p->member);
}

Set_T Set_union(Set_T s, Set_T t) {
        if (!s) {
                assert(t);
                return copy(t, t->size);
        }
        if (!t)
                return copy(s, s->size);
        checkAgree(s, t);
        Set_T set = copy(s, s->size > t->size ? s->size : t->size);
        each(t, [set](const void* m) { Set_put(set, m); });
        return set;
}

namespace {

// Adds to set each member of from that is (or is not) a member of other.
void addWhere(Set_T set, Set_T from, Set_T other, bool inOther) {
        each(from, [set, other, inOther](const void* m) {
                if ((Set_member(other, m) != 0) == inOther)
                        insert(set, m);
        });
}

}  // namespace

Set_T Set_inter(Set_T s, Set_T t) {
        if (!s) {
                assert(t);
                return empty(t, t->size);
        }
        if (!t)
                return empty(s, s->size);
        if (s->length < t->length)
                return Set_inter(t, s);
        checkAgree(s, t);
        Set_T set = empty(s, smaller(s->size, t->size));
        addWhere(set, t, s, true);
        return set;
}

Set_T Set_minus(Set_T t, Set_T s) {
        if (!t) {
                assert(s);
                return empty(s, s->size);
        }
        if (!s)
                return copy(t, t->size);
        checkAgree(s, t);
        Set_T set = empty(t, smaller(s->size, t->size));
        addWhere(set, t, s, false);
        return set;
}

Set_T Set_diff(Set_T s, Set_T t) {
        if (!s) {
                assert(t);
                return copy(t, t->size);
        }
        if (!t)
                return copy(s, s->size);
        checkAgree(s, t);
        Set_T set = empty(s, smaller(s->size, t->size));
        addWhere(set, t, s, false);
        addWhere(set, s, t, false);
        return set;
}
