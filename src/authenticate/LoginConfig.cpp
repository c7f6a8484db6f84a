#include <vesk/LoginConfig.h>
#include <vesk/Str.h>
#include <vesk/assert.h>

struct LoginConfig_S {
        Arena_T arena;
        char* loginPage;
        char* errorPage;
        char* realmName;
        char* authMethod;
};

LoginConfig_T LoginConfig_new(Arena_T arena) {
        assert(arena);
        LoginConfig_T L =
            static_cast<LoginConfig_T>(ARENA_CALLOC(arena, 1, sizeof(struct LoginConfig_S)));
        L->arena = arena;
        return L;
}

#define ACCESSORS(Name, field)                                           \
        const char* LoginConfig_get##Name(LoginConfig_T L) {             \
                assert(L);                                               \
                return L->field;                                         \
        }                                                                \
        void LoginConfig_set##Name(LoginConfig_T L, const char* field) { \
                assert(L);                                               \
                assert(field);                                           \
                L->field = STR_DUP_ARENA(L->arena, field);               \
        }
ACCESSORS(LoginPage, loginPage)
ACCESSORS(ErrorPage, errorPage)
ACCESSORS(RealmName, realmName)
ACCESSORS(AuthMethod, authMethod)
#undef ACCESSORS
