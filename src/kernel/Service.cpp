#include <vesk/Error.h>
#include <vesk/HttpConnector.h>
#include <vesk/Mem.h>
#include <vesk/Service.h>
#include <vesk/Str.h>
#include <vesk/assert.h>

struct Service_S {
        char* name;
        Engine_T engine;
        List_T connectors;
};

Service_T Service_new(void) {
        Service_T S;
        NEW0(S);
        S->connectors = List_new();
        return S;
}

void Service_free(Service_T* S) {
        assert(S && *S);
        for (list_t p = (*S)->connectors->head; p; p = p->next) {
                HttpConnector_T connector = static_cast<HttpConnector_T>(p->e);
                HttpConnector_free(&connector);
        }
        FREE((*S)->name);
        List_free(&(*S)->connectors);
        FREE(*S);
}

void Service_setName(Service_T S, const char* name) {
        assert(S);
        FREE(S->name);
        S->name = name ? Str_dup(name) : nullptr;
}

const char* Service_getName(Service_T S) {
        assert(S);
        return S->name;
}

void Service_setEngine(Service_T S, Engine_T engine) {
        assert(S);
        S->engine = engine;
}

Engine_T Service_getEngine(Service_T S) {
        assert(S);
        return S->engine;
}

void Service_addConnector(Service_T S, HttpConnector_T connector) {
        assert(S);
        assert(connector);
        HttpConnector_setEngine(connector, S->engine);
        List_push(S->connectors, connector);
}

List_T Service_getConnectors(Service_T S) {
        assert(S);
        return S->connectors;
}

void Service_start(Service_T S) {
        assert(S);
        Error_debug("Service started\n");
        for (list_t p = S->connectors->head; p; p = p->next)
                HttpConnector_start(static_cast<HttpConnector_T>(p->e));
}

void Service_stop(Service_T S) {
        assert(S);
        for (list_t p = S->connectors->head; p; p = p->next)
                HttpConnector_stop(static_cast<HttpConnector_T>(p->e));
        Error_debug("Service stopped\n");
}

void Service_quiesce(Service_T S) {
        assert(S);
        for (list_t p = S->connectors->head; p; p = p->next)
                HttpConnector_quiesce(static_cast<HttpConnector_T>(p->e));
}

int Service_getBusy(Service_T S) {
        assert(S);
        int n = 0;
        for (list_t p = S->connectors->head; p; p = p->next)
                n += HttpConnector_getBusy(static_cast<HttpConnector_T>(p->e));
        return n;
}
