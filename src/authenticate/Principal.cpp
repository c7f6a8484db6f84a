#include <atomic>

#include <vesk/Crypto.h>
#include <vesk/Mem.h>
#include <vesk/Principal.h>
#include <vesk/Set.h>
#include <vesk/Str.h>
#include <vesk/assert.h>

struct Principal_S {
        char* name;
        Set_T roles;
        int purged;
        char* credentials;
        int refcount;
};

namespace {

// The fields live in Mem memory, where no std::atomic is ever constructed.
std::atomic_ref<int> count(Principal_T P) {
        return std::atomic_ref<int>(P->refcount);
}

std::atomic_ref<int> purged(Principal_T P) {
        return std::atomic_ref<int>(P->purged);
}

}  // namespace

Principal_T Principal_new(const char* name, const char* credentials) {
        assert(name);
        assert(credentials);
        Principal_T P;
        NEW0(P);
        P->name = Str_dup(name);
        P->credentials = Str_dup(credentials);
        P->roles = Set_new(1, Str_cmp, Str_hash);
        return P;
}

void Principal_free(Principal_T* P) {
        assert(P && *P);
        Set_rewind((*P)->roles);
        while (void* role = Set_next((*P)->roles)) {
                Set_remove((*P)->roles, role);
                FREE(role);
        }
        Set_free(&(*P)->roles);
        FREE((*P)->credentials);
        FREE((*P)->name);
        FREE(*P);
}

const char* Principal_getName(Principal_T P) {
        assert(P);
        return P->name;
}

void Principal_addRole(Principal_T P, const char* role) {
        assert(P);
        assert(role);
        if (!Set_member(P->roles, role))
                Set_put(P->roles, Str_dup(role));
}

int Principal_hasRole(Principal_T P, const char* role) {
        assert(P);
        return role && Set_member(P->roles, role);
}

int Principal_authenticate(Principal_T P, const char* credentials) {
        assert(P);
        if (!credentials)
                return false;
        char digest[MD_SIZE];
        if (!Crypto_md5(credentials, digest))
                return false;
        return Str_compareConstantTime(digest, P->credentials) == 0;
}

void Principal_increment(Principal_T P) {
        assert(P);
        count(P).fetch_add(1, std::memory_order_relaxed);
}

void Principal_decrement(Principal_T P) {
        assert(P);
        // Whoever gives back the last reference of a purged record frees it; the purge
        // itself holds a reference while it marks, so the mark is seen here.
        if (count(P).fetch_sub(1, std::memory_order_acq_rel) <= 1 &&
            purged(P).load(std::memory_order_acquire))
                Principal_free(&P);
}

int Principal_refcount(Principal_T P) {
        assert(P);
        return count(P).load(std::memory_order_acquire);
}

void Principal_purge(Principal_T P) {
        assert(P);
        purged(P).store(true, std::memory_order_release);
}
