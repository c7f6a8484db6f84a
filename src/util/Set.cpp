#include <limits.h>
#include <stddef.h>

#include <vesk/Set.h>
#include <vesk/assert.h>

#include "Buckets.hpp"

namespace {

struct Member {
        Member* link;
        const void* member;
};

// 127 comes twice: a hint picks the largest entry below it, and every hint up to 509 gets 127.
constexpr int primes[] = {127, 127, 509, 1021, 2053, 4093, 8191, 16381, 32771, 65521, INT_MAX};

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

using Chains = vesk::Buckets<Set_S, &Member::member, &Member::member>;

// Adds a member known to be new, with no search.
void insert(Set_T S, const void* member) {
        Chains::add(S, Chains::bucketOf(S, member), "new_member")->member = member;
}

template <typename F>
void each(Set_T S, F f) {
        for (Member* p : Chains::nodes(S))
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
        return Chains::alloc(arena, vesk::bucketCount(primes, hint), cmp, hash, __func__);
}

Set_T Set_new(int hint, int (*cmp)(const void* x, const void* y),
              unsigned int (*hash)(const void* x)) {
        return Set_alloc(NULL, hint, cmp, hash);
}

void Set_free(Set_T* S) {
        assert(S && *S);
        assert((*S)->arena == NULL);
        Chains::dispose(S);
}

void Set_put(Set_T S, const void* member) {
        assert(S);
        assert(member);
        Chains::place(S, member, "new_member")->member = member;
}

int Set_member(Set_T S, const void* member) {
        assert(S);
        assert(member);
        return *Chains::find(S, member) != NULL;
}

void* Set_remove(Set_T S, const void* member) {
        assert(S);
        assert(member);
        return Chains::remove(S, member);
}

int Set_length(Set_T S) {
        assert(S);
        return S->length;
}

void Set_map(Set_T S, void (*apply)(const void* member, void* cl), void* cl) {
        assert(S);
        assert(apply);
        unsigned int stamp = S->timestamp;
        for (Member* p : Chains::nodes(S)) {
                apply(p->member, cl);
                assert(S->timestamp == stamp);
        }
}

void Set_rewind(Set_T S) {
        assert(S);
        Chains::rewind(S);
}

void* Set_next(Set_T S) {
        assert(S);
        return Chains::next(S);
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

// A new set, sized for the smaller operand, of the members of t that are (or are not) in s.
Set_T filtered(Set_T s, Set_T t, bool inS) {
        checkAgree(s, t);
        Set_T set = empty(s, smaller(s->size, t->size));
        addWhere(set, t, s, inS);
        return set;
}

}  // namespace

Set_T Set_inter(Set_T s, Set_T t) {
        if (!s) {
                assert(t);
                return empty(t, t->size);
        }
        if (!t)
                return empty(s, s->size);
        // Walk the smaller set.
        if (s->length < t->length)
                return Set_inter(t, s);
        return filtered(s, t, true);
}

Set_T Set_minus(Set_T t, Set_T s) {
        if (!t) {
                assert(s);
                return empty(s, s->size);
        }
        if (!s)
                return copy(t, t->size);
        return filtered(s, t, false);
}

Set_T Set_diff(Set_T s, Set_T t) {
        if (!s) {
                assert(t);
                return copy(t, t->size);
        }
        if (!t)
                return copy(s, s->size);
        Set_T set = filtered(s, t, false);
        addWhere(set, s, t, false);
        return set;
}
