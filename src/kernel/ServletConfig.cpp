#include <vesk/Arena.h>
#include <vesk/Map.h>
#include <vesk/Mem.h>
#include <vesk/ServletConfig.h>
#include <vesk/Str.h>
#include <vesk/assert.h>

// Names and values are copies in the object's own arena, which goes with it.
struct ServletConfig_S {
        Map_T parameters;
        char* servletName;
        const char** parameterNames;
        ServletContext_T servletContext;
        Arena_T arena;
};

ServletConfig_T ServletConfig_new(void) {
        ServletConfig_T C;
        NEW0(C);
        C->arena = Arena_new();
        C->parameters = Map_alloc(C->arena);
        return C;
}

void ServletConfig_free(ServletConfig_T* C) {
        assert(C && *C);
        FREE((*C)->servletName);
        Arena_dispose(&(*C)->arena);
        FREE(*C);
}

const char* ServletConfig_getServletName(ServletConfig_T C) {
        assert(C);
        return C->servletName;
}

void ServletConfig_setServletName(ServletConfig_T C, const char* name) {
        assert(C);
        FREE(C->servletName);
        C->servletName = name ? Str_dup(name) : nullptr;
}

ServletContext_T ServletConfig_getServletContext(ServletConfig_T C) {
        assert(C);
        return C->servletContext;
}

void ServletConfig_setServletContext(ServletConfig_T C, ServletContext_T servletContext) {
        assert(C);
        C->servletContext = servletContext;
}

const char* ServletConfig_getInitParameter(ServletConfig_T C, const char* name) {
        assert(C);
        assert(name);
        return Map_get(C->parameters, name);
}

void ServletConfig_setInitParameter(ServletConfig_T C, const char* name, const char* value) {
        assert(C);
        assert(name);
        const char* key = Map_has(C->parameters, name) ? name : STR_DUP_ARENA(C->arena, name);
        Map_set(C->parameters, key, value ? STR_DUP_ARENA(C->arena, value) : nullptr);
}

const char** ServletConfig_getInitParameterNames(ServletConfig_T C) {
        assert(C);
        if (!C->parameterNames)
                C->parameterNames = Map_keys(C->parameters);
        return C->parameterNames;
}
