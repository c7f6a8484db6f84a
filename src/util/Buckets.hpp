// The chained hash buckets under Set and Table.
//
// The owner H keeps the bucket array in its own block, behind its fields, and its fields are
// named alike: size, index, iterator, freecount, freelist, cmp, hash, length, timestamp, arena
// and buckets. The bucket count is fixed at creation. A new node goes to the head of its chain;
// a removed one is recycled, or given back to the heap once a heap owner holds enough of them.
// Key names the node field compared and hashed, Item the one that remove and next hand out.
//
// The checks stay with the owners, so that their texts and functions are the owners' own.
#pragma once

#include <stddef.h>

#include <type_traits>

#include <vesk/Arena.h>
#include <vesk/Mem.h>

namespace vesk {

// The largest entry of primes below hint. The smallest entry stands twice at the start, so
// every hint up to the second entry gets the first.
template <size_t N>
inline int bucketCount(const int (&primes)[N], int hint) {
        size_t i;
        for (i = 1; i < N - 1 && primes[i] < hint; i++)
                ;
        return primes[i - 1];
}

template <typename H, auto Key, auto Item>
struct Buckets {
        using Node = std::remove_pointer_t<decltype(H::freelist)>;
        using Cmp = decltype(H::cmp);
        using Hash = decltype(H::hash);

        // Beyond this many recycled nodes a heap owner gives removed nodes back to the heap.
        static constexpr int kFreeLimit = 99;

        // A zeroed owner with size buckets in one block, in arena or on the heap; func is named
        // if the allocation fails.
        static H* alloc(Arena_T arena, int size, Cmp cmp, Hash hash, const char* func) {
                int nbytes = (int)(sizeof(H) + size * sizeof(Node*));
                H* h =
                    static_cast<H*>(arena ? Arena_calloc(arena, 1, nbytes, func, __FILE__, __LINE__)
                                          : Mem_calloc(1, nbytes, func, __FILE__, __LINE__));
                h->size = size;
                h->cmp = cmp;
                h->hash = hash;
                h->arena = arena;
                return h;
        }

        // Frees a heap owner with the nodes in its chains and on its free list, and clears *hp.
        static void dispose(H** hp) {
                H* h = *hp;
                for (int i = 0; i < h->size; i++)
                        freeChain(h->buckets[i]);
                freeChain(h->freelist);
                FREE(*hp);
        }

        static Node** bucketOf(H* h, const void* key) {
                return &h->buckets[h->hash(key) % (unsigned)h->size];
        }

        // The slot that points at the node of key, or at the terminating NULL of its chain.
        static Node** find(H* h, Node** pp, const void* key) {
                while (*pp && h->cmp(key, (*pp)->*Key) != 0)
                        pp = &(*pp)->link;
                return pp;
        }

        static Node** find(H* h, const void* key) { return find(h, bucketOf(h, key), key); }

        // A new node at the head of bucket, recycled or else allocated with func named on
        // failure; the caller fills in its fields.
        static Node* add(H* h, Node** bucket, const char* func) {
                Node* p = h->freelist;
                if (p) {
                        h->freelist = p->link;
                        h->freecount--;
                } else if (h->arena) {
                        p = static_cast<Node*>(
                            Arena_alloc(h->arena, sizeof *p, func, __FILE__, __LINE__));
                } else {
                        p = static_cast<Node*>(Mem_alloc(sizeof *p, func, __FILE__, __LINE__));
                }
                p->link = *bucket;
                *bucket = p;
                h->length++;
                h->timestamp++;
                return p;
        }

        // The node of key, or a new one holding key if there is none (*added, if given, tells
        // which). Either way the owner has changed.
        static Node* place(H* h, const void* key, const char* func, bool* added = NULL) {
                Node** bucket = bucketOf(h, key);
                Node* p = *find(h, bucket, key);
                if (added)
                        *added = p == NULL;
                if (p) {
                        h->timestamp++;
                } else {
                        p = add(h, bucket, func);
                        p->*Key = key;
                }
                return p;
        }

        // Removes the node of key and returns its item, or NULL.
        static void* remove(H* h, const void* key) {
                // A miss counts as a change too, so a walk in progress stops either way.
                h->timestamp++;
                Node** pp = find(h, key);
                Node* p = *pp;
                if (!p)
                        return NULL;
                *pp = p->link;
                h->length--;
                void* item = itemOf(p);
                if (h->arena == NULL && h->freecount > kFreeLimit) {
                        // A walk that had finished its chain resumes behind the removed node. A
                        // walk standing on the removed node must not keep a freed one.
                        if (h->iterator == NULL || h->iterator == p)
                                h->iterator = p->link;
                        FREE(p);
                } else {
                        if (h->iterator == p)
                                h->iterator = p->link;
                        p->link = h->freelist;
                        h->freelist = p;
                        h->freecount++;
                }
                return item;
        }

        static void rewind(H* h) {
                h->index = 0;
                h->iterator = NULL;
        }

        // The item of the next node of the walk, or NULL at the end.
        static void* next(H* h) {
                if (h->length < 1)
                        return NULL;
                Node* p = h->iterator;
                if (!p) {
                        while (h->index < h->size && !h->buckets[h->index])
                                h->index++;
                        if (h->index >= h->size)
                                return NULL;
                        p = h->buckets[h->index++];
                }
                h->iterator = p->link;
                return itemOf(p);
        }

        // The nodes bucket by bucket, each chain from its newest node, as a range. The next
        // node is taken only when the loop steps on, so a check closing the loop body sees a
        // change before the walk moves.
        struct Walk {
                H* h;
                int i;
                Node* p;

                Walk begin() const {
                        Walk w = *this;
                        w.settle();
                        return w;
                }
                Walk end() const { return Walk{h, h->size, NULL}; }
                Node* operator*() const { return p; }
                Walk& operator++() {
                        p = p->link;
                        settle();
                        return *this;
                }
                bool operator!=(const Walk& other) const { return p != other.p; }
                void settle() {
                        while (!p && ++i < h->size)
                                p = h->buckets[i];
                }
        };
        static Walk nodes(H* h) { return Walk{h, 0, h->buckets[0]}; }

private:
        static void* itemOf(Node* p) { return const_cast<void*>(p->*Item); }

        static void freeChain(Node* p) {
                for (Node* q; p; p = q) {
                        q = p->link;
                        FREE(p);
                }
        }
};

}  // namespace vesk
