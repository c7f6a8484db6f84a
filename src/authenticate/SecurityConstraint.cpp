#include <string.h>

#include <vesk/Principal.h>
#include <vesk/SecurityConstraint.h>
#include <vesk/Str.h>
#include <vesk/assert.h>

struct SecurityConstraint_S {
        int allRoles;
        List_T authRoles;
        List_T ipAddresses;
        List_T collections;
        char* displayName;
        int authConstraint;
        char* userConstraint;
        Arena_T arena;
};

SecurityConstraint_T SecurityConstraint_new(Arena_T arena) {
        assert(arena);
        SecurityConstraint_T S = static_cast<SecurityConstraint_T>(
            ARENA_CALLOC(arena, 1, sizeof(struct SecurityConstraint_S)));
        S->arena = arena;
        S->authRoles = List_alloc(arena);
        S->ipAddresses = List_alloc(arena);
        S->collections = List_alloc(arena);
        S->userConstraint = STR_DUP_ARENA(arena, "NONE");
        return S;
}

void SecurityConstraint_addCollection(SecurityConstraint_T S, SecurityCollection_T collection) {
        assert(S);
        assert(collection);
        List_push(S->collections, collection);
}

void SecurityConstraint_addAuthRole(SecurityConstraint_T S, const char* authRole) {
        assert(S);
        assert(authRole);
        if (*authRole == '*') {
                S->allRoles = true;
                return;
        }
        List_push(S->authRoles, STR_DUP_ARENA(S->arena, authRole));
        S->authConstraint = true;
}

void SecurityConstraint_setAuthConstraint(SecurityConstraint_T S, int value) {
        assert(S);
        S->authConstraint = value;
}

int SecurityConstraint_getAuthConstraint(SecurityConstraint_T S) {
        assert(S);
        return S->authConstraint ? S->authConstraint : S->allRoles;
}

int SecurityConstraint_allRoles(SecurityConstraint_T S) {
        assert(S);
        return S->allRoles;
}

int SecurityConstraint_findAuthRoles(SecurityConstraint_T S, Principal_T principal) {
        assert(S);
        if (!principal)
                return false;
        if (S->allRoles)
                return true;
        for (list_t p = S->authRoles->head; p; p = p->next)
                if (Principal_hasRole(principal, static_cast<const char*>(p->e)))
                        return true;
        return false;
}

void SecurityConstraint_addIpAddress(SecurityConstraint_T S, const char* IpAddress) {
        assert(S);
        assert(IpAddress);
        char* prefix = STR_DUP_ARENA(S->arena, IpAddress);
        char* star = strchr(prefix, '*');
        if (star)
                *star = 0;
        List_push(S->ipAddresses, prefix);
}

int SecurityConstraint_findIpAddress(SecurityConstraint_T S, const char* address) {
        assert(S);
        if (List_length(S->ipAddresses) == 0)
                return true;
        if (!address)
                return false;
        // An IPv4 client on an IPv6 socket is compared by its IPv4 text.
        if (strncmp(address, "::ffff:", 7) == 0)
                address += 7;
        for (list_t p = S->ipAddresses->head; p; p = p->next) {
                const char* prefix = static_cast<const char*>(p->e);
                if (strncmp(address, prefix, strlen(prefix)) == 0)
                        return true;
        }
        return false;
}

int SecurityConstraint_included(SecurityConstraint_T S, const char* path, const char* method) {
        assert(S);
        if (!path || !method)
                return false;
        for (list_t p = S->collections->head; p; p = p->next) {
                SecurityCollection_T collection = static_cast<SecurityCollection_T>(p->e);
                if (SecurityCollection_hasMethods(collection) &&
                    !SecurityCollection_findMethod(collection, method))
                        continue;
                if (SecurityCollection_findPattern(collection, path))
                        return true;
        }
        return false;
}

int SecurityConstraint_containsCSRFProtection(SecurityConstraint_T S) {
        assert(S);
        for (list_t p = S->collections->head; p; p = p->next)
                if (SecurityCollection_containsCSRFProtectedPaths(
                        static_cast<SecurityCollection_T>(p->e)))
                        return true;
        return false;
}

SecurityCollection_T SecurityConstraint_getCSRFProtectedCollection(SecurityConstraint_T S,
                                                                   const char* path) {
        assert(S);
        if (!path)
                return nullptr;
        for (list_t p = S->collections->head; p; p = p->next) {
                SecurityCollection_T collection = static_cast<SecurityCollection_T>(p->e);
                if (SecurityCollection_isPathCSRFProtected(collection, path))
                        return collection;
        }
        return nullptr;
}

const char* SecurityConstraint_getUserConstraint(SecurityConstraint_T S) {
        assert(S);
        return S->userConstraint;
}

void SecurityConstraint_setUserConstraint(SecurityConstraint_T S, const char* userConstraint) {
        assert(S);
        assert(userConstraint);
        S->userConstraint = STR_DUP_ARENA(S->arena, userConstraint);
}

const char* SecurityConstraint_getDisplayName(SecurityConstraint_T S) {
        assert(S);
        return S->displayName;
}

void SecurityConstraint_setDisplayName(SecurityConstraint_T S, const char* displayName) {
        assert(S);
        assert(displayName);
        S->displayName = STR_DUP_ARENA(S->arena, displayName);
}
