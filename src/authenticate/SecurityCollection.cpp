#include <limits.h>
#include <string.h>

#include <vesk/SecurityCollection.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/assert.h>

struct SecurityCollection_S {
        char* name;
        int get;
        int post;
        int head;
        int put;
        int delete_;
        int trace;
        int options;
        int hasMethods;
        Table_T patterns;
        char* description;
        int containsCSRFProtectedPaths;
        Arena_T arena;
};

namespace {

// The two values of a pattern: protected against CSRF or not.
char yes, no;
void* const YES = &yes;
void* const NO = &no;

constexpr int kMaxPattern = 4096;

void addPattern(SecurityCollection_T S, const char* pattern, void* value) {
        assert(S);
        assert(pattern);
        if (strlen(pattern) > kMaxPattern)
                THROW(AssertException, "url-pattern too long, max length = %d", kMaxPattern);
        const char* key = strcmp(pattern, "/*") == 0 ? "/" : STR_DUP_ARENA(S->arena, pattern);
        Table_put(S->patterns, key, value);
}

// The value of the pattern that path matches first, or NULL: exact, longest prefix,
// extension of the path's first dot, then the default "/".
void* match(SecurityCollection_T S, const char* path) {
        if (!path || *path != '/')
                return nullptr;
        void* value = Table_get(S->patterns, path);
        if (value)
                return value;
        char buf[kMaxPattern + 3];
        size_t n = strlen(path);
        if (n > kMaxPattern)
                n = kMaxPattern;
        memcpy(buf, path, n);
        while (n > 0) {
                memcpy(buf + n, "/*", 3);
                if ((value = Table_get(S->patterns, buf)))
                        return value;
                do
                        n--;
                while (n > 0 && buf[n] != '/');
        }
        if (strcmp(path, "/") == 0)
                return Table_get(S->patterns, "/");
        const char* dot = strchr(path + 1, '.');
        if (!dot)
                return Table_get(S->patterns, "/");
        if (dot[-1] == '/') {
                value = Table_get(S->patterns, "*");
        } else {
                const char* end = strchr(dot, '/');
                size_t k = end ? static_cast<size_t>(end - dot) : strlen(dot);
                if (k > kMaxPattern)
                        k = kMaxPattern;
                buf[0] = '*';
                memcpy(buf + 1, dot, k);
                buf[k + 1] = 0;
                value = Table_get(S->patterns, buf);
        }
        return value ? value : Table_get(S->patterns, "/");
}

}  // namespace

SecurityCollection_T SecurityCollection_new(Arena_T arena) {
        assert(arena);
        SecurityCollection_T S = static_cast<SecurityCollection_T>(
            ARENA_CALLOC(arena, 1, sizeof(struct SecurityCollection_S)));
        S->arena = arena;
        S->patterns = Table_alloc(arena, 15, Str_cmp, Str_hash);
        return S;
}

void SecurityCollection_addMethod(SecurityCollection_T S, const char* method) {
        assert(S);
        assert(method);
        int* flag = Str_isEqual(method, "GET")       ? &S->get
                    : Str_isEqual(method, "POST")    ? &S->post
                    : Str_isEqual(method, "HEAD")    ? &S->head
                    : Str_isEqual(method, "PUT")     ? &S->put
                    : Str_isEqual(method, "DELETE")  ? &S->delete_
                    : Str_isEqual(method, "TRACE")   ? &S->trace
                    : Str_isEqual(method, "OPTIONS") ? &S->options
                                                     : nullptr;
        if (!flag)
                THROW(AssertException, "Invalid HTTP method '%s'", method);
        *flag = true;
        S->hasMethods = true;
}

int SecurityCollection_findMethod(SecurityCollection_T S, const char* method) {
        assert(S);
        assert(method);
        switch (method[0]) {
        case 'G':
                return S->get;
        case 'P':
                return method[1] == 'O' ? S->post : method[1] == 'U' ? S->put : false;
        case 'H':
                return S->head;
        case 'D':
                return S->delete_;
        case 'T':
                return S->trace;
        case 'O':
                return S->options;
        default:
                return false;
        }
}

int SecurityCollection_hasMethods(SecurityCollection_T S) {
        assert(S);
        return S->hasMethods;
}

void SecurityCollection_addPattern(SecurityCollection_T S, const char* pattern) {
        addPattern(S, pattern, NO);
}

void SecurityCollection_addPatternWithCSRFProtection(SecurityCollection_T S, const char* pattern) {
        addPattern(S, pattern, YES);
        S->containsCSRFProtectedPaths = true;
}

int SecurityCollection_findPattern(SecurityCollection_T S, const char* path) {
        assert(S);
        return match(S, path) != nullptr;
}

int SecurityCollection_isPathCSRFProtected(SecurityCollection_T S, const char* path) {
        assert(S);
        return match(S, path) == YES;
}

int SecurityCollection_containsCSRFProtectedPaths(SecurityCollection_T S) {
        assert(S);
        return S->containsCSRFProtectedPaths;
}

const char* SecurityCollection_getName(SecurityCollection_T S) {
        assert(S);
        return S->name;
}

void SecurityCollection_setName(SecurityCollection_T S, const char* name) {
        assert(S);
        assert(name);
        S->name = STR_DUP_ARENA(S->arena, name);
}

const char* SecurityCollection_getDescription(SecurityCollection_T S) {
        assert(S);
        return S->description;
}

void SecurityCollection_setDescription(SecurityCollection_T S, const char* description) {
        assert(S);
        assert(description);
        S->description = STR_DUP_ARENA(S->arena, description);
}
