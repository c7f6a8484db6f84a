#include <vesk/Arena.h>
#include <vesk/Engine.h>
#include <vesk/Error.h>
#include <vesk/Mem.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/assert.h>

#include "util/TableWalk.hpp"

struct Engine_S {
        int stopped;
        Table_T hosts;
        Table_T aliases;
        Table_T addresses;
        Service_T service;
        Host_T defaultHost;
        const char* defaultHostName;
        Arena_T arena;
};

Engine_T Engine_new(void) {
        Engine_T E;
        NEW0(E);
        E->arena = Arena_new();
        E->hosts = Table_alloc(E->arena, 10, Str_cmp, Str_hash);
        E->aliases = Table_alloc(E->arena, 20, Str_cmp, Str_hash);
        E->addresses = Table_alloc(E->arena, 20, Str_cmp, Str_hash);
        return E;
}

void Engine_free(Engine_T* E) {
        assert(E && *E);
        vesk::eachValue<Host_T>((*E)->hosts, [](Host_T host) { Host_free(&host); });
        Arena_dispose(&(*E)->arena);
        if ((*E)->service)
                Service_free(&(*E)->service);
        FREE(*E);
}

void Engine_addHost(Engine_T E, Host_T host) {
        assert(E);
        assert(host);
        const char* name = Host_getName(host);
        assert(name);
        // A duplicate is refused before it can displace the entry it collides with.
        if (Table_get(E->hosts, name))
                THROW(AssertException, "A host with the name '%s' has already been added", name);
        Table_put(E->hosts, name, host);
        const char* address = Host_getAddress(host);
        if (address) {
                if (Table_get(E->addresses, address))
                        THROW(AssertException,
                              "A host with the address '%s' has already been added", address);
                Table_put(E->addresses, address, host);
        }
        for (list_t p = Host_getAliases(host)->head; p; p = p->next) {
                char* alias = Str_toLower(STR_DUP_ARENA(E->arena, static_cast<char*>(p->e)));
                if (Table_get(E->aliases, alias))
                        THROW(AssertException, "A host with the alias '%s' has already been added",
                              alias);
                Table_put(E->aliases, alias, host);
        }
}

Host_T Engine_findHost(Engine_T E, const char* name) {
        if (!E || !name)
                return nullptr;
        Host_T host = static_cast<Host_T>(Table_get(E->hosts, name));
        return host ? host : static_cast<Host_T>(Table_get(E->aliases, name));
}

Host_T Engine_findHostWithAddress(Engine_T E, const char* address) {
        if (!E || !address)
                return nullptr;
        return static_cast<Host_T>(Table_get(E->addresses, address));
}

Context_T Engine_map(Engine_T E, HttpRequest_T req) {
        if (!E || !req)
                return nullptr;
        const char* name = HttpRequest_getServerName(req);
        if (!name && E->defaultHostName) {
                HttpRequest_setServerName(req, E->defaultHostName);
                name = HttpRequest_getServerName(req);
        }
        Host_T host = Engine_findHost(E, name);
        if (!host)
                host = E->defaultHost;
        if (!host)
                return nullptr;
        return Host_map(host, HttpRequest_getRequestURI(req));
}

void Engine_setDefaultHost(Engine_T E, Host_T host) {
        assert(E);
        E->defaultHost = host;
        E->defaultHostName = host ? Host_getName(host) : nullptr;
}

Host_T Engine_getDefaultHost(Engine_T E) {
        assert(E);
        return E->defaultHost;
}

void Engine_setService(Engine_T E, Service_T service) {
        assert(E);
        E->service = service;
}

Service_T Engine_getService(Engine_T E) {
        assert(E);
        return E->service;
}

void Engine_start(Engine_T E) {
        assert(E);
        if (!E->defaultHost)
                THROW(AssertException, "Default host not defined");
        Error_debug("Engine started\n");
        vesk::eachValue<Host_T>(E->hosts, Host_start);
        if (E->service)
                Service_start(E->service);
        E->stopped = 0;
}

void Engine_stop(Engine_T E) {
        assert(E);
        E->stopped = 1;
        vesk::eachValue<Host_T>(E->hosts, Host_stop);
        if (E->service)
                Service_stop(E->service);
        Error_debug("Engine stopped\n");
}

int Engine_isStopped(Engine_T E) {
        assert(E);
        return E->stopped;
}
