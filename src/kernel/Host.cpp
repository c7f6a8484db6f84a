#include <limits.h>
#include <string.h>

#include <vesk/Arena.h>
#include <vesk/Error.h>
#include <vesk/File.h>
#include <vesk/Host.h>
#include <vesk/Mem.h>
#include <vesk/Str.h>
#include <vesk/Table.h>
#include <vesk/assert.h>

#include "util/TableWalk.hpp"

struct Host_S {
        SSL_T ssl;
        char* name;
        Logger_T logger;
        char* address;
        char* ciphers;
        List_T aliases;
        char* appBase;
        Table_T contexts;
        char* certificate;
        Logger_T accessLogger;
        Context_T defaultContext;
        Arena_T arena;
};

namespace {

constexpr const char* kCiphers = "ALL:!DES:!3DES:!RC4:!aNULL:!LOW:!EXP:!IDEA:!MD5:@STRENGTH";

char* lowered(Host_T H, const char* s) {
        return Str_toLower(STR_DUP_ARENA(H->arena, s));
}

}  // namespace

Host_T Host_new(void) {
        Host_T H;
        NEW0(H);
        H->arena = Arena_new();
        H->aliases = List_alloc(H->arena);
        H->contexts = Table_alloc(H->arena, 5, Str_cmp, Str_hash);
        H->ciphers = STR_DUP_ARENA(H->arena, kCiphers);
        return H;
}

void Host_free(Host_T* H) {
        assert(H && *H);
        vesk::eachValue<Context_T>((*H)->contexts,
                                   [](Context_T context) { Context_free(&context); });
        if ((*H)->logger)
                Logger_free(&(*H)->logger);
        if ((*H)->accessLogger)
                Logger_free(&(*H)->accessLogger);
        Arena_dispose(&(*H)->arena);
        if ((*H)->ssl)
                SSLFree(&(*H)->ssl);
        FREE(*H);
}

void Host_setName(Host_T H, const char* name) {
        assert(H);
        assert(name);
        H->name = lowered(H, name);
}

const char* Host_getName(Host_T H) {
        assert(H);
        return H->name;
}

void Host_setAddress(Host_T H, const char* address) {
        assert(H);
        assert(address);
        H->address = lowered(H, address);
}

const char* Host_getAddress(Host_T H) {
        assert(H);
        return H->address;
}

void Host_addAlias(Host_T H, const char* alias) {
        assert(H);
        assert(alias);
        List_append(H->aliases, lowered(H, alias));
}

List_T Host_getAliases(Host_T H) {
        assert(H);
        return H->aliases;
}

void Host_setAppBase(Host_T H, const char* appBase) {
        assert(H);
        assert(appBase);
        if (!File_isDirectory(appBase))
                THROW(AssertException, "Host appbase '%s' is not a directory", appBase);
        H->appBase = STR_DUP_ARENA(H->arena, appBase);
}

const char* Host_getAppBase(Host_T H) {
        assert(H);
        return H->appBase;
}

void Host_setCertificate(Host_T H, const char* certificate) {
        assert(H);
        assert(certificate);
        H->certificate = STR_DUP_ARENA(H->arena, certificate);
}

const char* Host_getCertificate(Host_T H) {
        assert(H);
        return H->certificate;
}

void Host_setCiphers(Host_T H, const char* ciphers) {
        assert(H);
        assert(ciphers);
        H->ciphers = STR_DUP_ARENA(H->arena, ciphers);
}

const char* Host_getCiphers(Host_T H) {
        assert(H);
        return H->ciphers;
}

void Host_setLogger(Host_T H, Logger_T logger) {
        assert(H);
        assert(logger);
        if (H->logger && H->logger != logger)
                Logger_free(&H->logger);
        Logger_setUnbuffered(logger);
        H->logger = logger;
}

Logger_T Host_getLogger(Host_T H) {
        return H ? H->logger : nullptr;
}

void Host_setAccessLogger(Host_T H, Logger_T logger) {
        assert(H);
        assert(logger);
        if (H->accessLogger && H->accessLogger != logger)
                Logger_free(&H->accessLogger);
        Logger_setTimestamp(logger, 0);
        H->accessLogger = logger;
}

Logger_T Host_getAccessLogger(Host_T H) {
        return H ? H->accessLogger : nullptr;
}

void Host_addContext(Host_T H, Context_T context) {
        assert(H);
        assert(context);
        const char* path = Context_getContextPath(context);
        assert(path);
        Context_T old = static_cast<Context_T>(Table_put(H->contexts, path, context));
        if (old && old != context) {
                // The Host owns its contexts: the one replaced goes now.
                if (H->defaultContext == old)
                        H->defaultContext = nullptr;
                Context_free(&old);
        }
        Context_setHost(context, H);
}

Context_T Host_getContext(Host_T H, const char* path) {
        assert(H);
        return path ? static_cast<Context_T>(Table_get(H->contexts, path)) : nullptr;
}

void Host_setDefaultContext(Host_T H, Context_T context) {
        assert(H);
        assert(context);
        H->defaultContext = context;
        Host_addContext(H, context);
}

Context_T Host_getDefaultContext(Host_T H) {
        assert(H);
        return H->defaultContext;
}

Context_T Host_map(Host_T H, const char* uri) {
        assert(H);
        if (!uri || !*uri)
                return H->defaultContext;
        char buf[PATH_MAX + 1];
        size_t i = strlen(uri);
        assert(i <= PATH_MAX);
        memcpy(buf, uri, i + 1);
        for (;;) {
                Context_T context = static_cast<Context_T>(Table_get(H->contexts, buf));
                if (context)
                        return context;
                while (i > 0 && buf[i - 1] != '/')
                        i--;
                if (i == 0)
                        return H->defaultContext;
                buf[--i] = 0;
                if (i == 0)
                        return H->defaultContext;
        }
}

SSL_T Host_SSLAccept(Host_T H, InetAddress_T inet) {
        assert(H);
        assert(inet);
        assert(H->ssl);
        return SSLAccept(H->ssl, inet);
}

void Host_start(Host_T H) {
        assert(H);
        if (H->certificate)
                H->ssl = SSLNew(H->certificate, H->ciphers);
        Error_debug("Host '%s' started\n", H->name ? H->name : "?");
        vesk::eachValue<Context_T>(H->contexts, Context_start);
}

void Host_stop(Host_T H) {
        assert(H);
        vesk::eachValue<Context_T>(H->contexts, Context_stop);
        if (H->ssl)
                SSLFree(&H->ssl);
        Error_debug("Host '%s' stopped\n", H->name ? H->name : "?");
}
