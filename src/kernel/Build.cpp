#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <vesk/Arena.h>
#include <vesk/Build.h>
#include <vesk/Config.h>
#include <vesk/Container.h>
#include <vesk/Context.h>
#include <vesk/Engine.h>
#include <vesk/Error.h>
#include <vesk/Exception.h>
#include <vesk/File.h>
#include <vesk/FileCache.h>
#include <vesk/Host.h>
#include <vesk/HttpConnector.h>
#include <vesk/Mem.h>
#include <vesk/OS.h>
#include <vesk/Reactor.h>
#include <vesk/Realm.h>
#include <vesk/SSL.h>
#include <vesk/Service.h>
#include <vesk/System.h>
#include <vesk/Time.h>
#include <vesk/Thread.h>
#include <vesk/assert.h>

#include "kernel/ServerXmlReader.hpp"

pthread_key_t Request_Arena;

struct Build_S {
        Engine_T engine;
        Service_T service;
        int stopping;      // a stop waits for the requests in flight
        int64_t deadline;  // milliseconds: when it stops waiting
        int drainTimer;
};

namespace {

constexpr int kPath = 4096;
// The default Context's docBase holds at most this many bytes with the terminator.
constexpr int kField = 256;

// Releases a tree that failed to configure, so that a caller that goes on living (a test,
// a launcher that reports and retries) keeps no half-built server.
void discard(Build_T* B) {
        Config_destroy();
        Engine_free(&(*B)->engine);
        FREE(*B);
        Realm_free();
}

void checkDefaults(Build_T B) {
        Host_T host = Engine_getDefaultHost(B->engine);
        if (!host) {
                THROW(AssertException, "Default host is not defined");
                // Reached only when a replaced abort handler returns.
                Error_warn("Warning: Realm database not defined.\n");
                return;
        }
        if (Host_getDefaultContext(host))
                return;
        char root[kField];
        snprintf(root, sizeof root, "%s%s%s", Host_getAppBase(host), SEPARATOR, "ROOT");
        if (!File_isDirectory(root))
                THROW(AssertException,
                      "Default ROOT appBase '%s' for the default Context does not exist", root);
        Context_T context = Context_new();
        Context_setContextPath(context, "");
        Context_setDocBase(context, root);
        Host_setDefaultContext(host, context);
}

pthread_once_t once = PTHREAD_ONCE_INIT;

void Build_fini(void) {
        SSLStop();
        Thread_fini();
}

void init(void) {
        Arena_init();
        Exception_init();
        Thread_init();
        Container_Concurrency = OS_concurrency();
        SSLStart();
        if (atexit(Build_fini) != 0)
                Error_error("%s: Cannot push cleanup routine to atexit() -- %s\n", Container_Name,
                            System_getLastError());
}

}  // namespace

void Build_init(void) {
        pthread_once(&once, init);
}

Build_T Build_new(void) {
        Build_init();
        Build_T B;
        NEW0(B);
        Config_init();
        B->engine = Engine_new();
        B->service = Service_new();
        Engine_setService(B->engine, B->service);
        Service_setEngine(B->service, B->engine);
        Realm_getInstance();
        Reactor_getInstance();
        FileCache_getInstance();
        return B;
}

Build_T Build_parse(const char* containerHome, const char* server_xml) {
        assert(containerHome);
        assert(server_xml);
        Build_T B = Build_new();
        TRY
                std::string defaultHost =
                    vesk::ServerXmlReader_read(containerHome, server_xml, B->engine, B->service);
                if (!defaultHost.empty()) {
                        Error_debug("Setting Host '%s' as default Host\n", defaultHost.c_str());
                        Host_T host = Engine_findHost(B->engine, defaultHost.c_str());
                        if (!host)
                                THROW(AssertException, "Unknown Default Host '%s'",
                                      defaultHost.c_str());
                        Engine_setDefaultHost(B->engine, host);
                }
                // The home given, not the control file's directory, holds the default descriptor.
                char webXml[kPath + 1];
                snprintf(webXml, sizeof webXml, "%s%s%s%s%s", containerHome, SEPARATOR, "conf",
                         SEPARATOR, "web.xml");
                if (File_existFile(webXml))
                        Config_parseDeploy(webXml);
                else
                        Error_debug("Warning: default Deployment Descriptor not found in '%s'\n",
                                    webXml);
        ELSE
                discard(&B);
                RETHROW;
        END_TRY;
        return B;
}

void Build_start(Build_T B) {
        assert(B);
        checkDefaults(B);
        B->stopping = 0;
        Engine_start(B->engine);
        if (Container_Standalone)
                Error_error("%s %s started\n", Container_Name, Container_Version);
        Reactor_start(Reactor_getInstance());
}

namespace {

// Requests already read when a stop comes may take this long to finish; then the
// applications stop regardless.
constexpr int64_t kStopGrace = 30000;
constexpr unsigned kDrainPoll = 20;  // milliseconds

int busy(Build_T B) {
        return B->service ? Service_getBusy(B->service) : 0;
}

void finishStop(Build_T B) {
        Engine_stop(B->engine);
        Reactor_stop(Reactor_getInstance());
}

void drain(Timer_T timer) {
        Build_T B = static_cast<Build_T>(Timer_getData(timer));
        if (busy(B) && Time_milli() < B->deadline)
                return;
        Reactor_cancelTimer(Reactor_getInstance(), B->drainTimer);
        finishStop(B);
}

}  // namespace

void Build_stop(Build_T B) {
        assert(B);
        if (B->stopping)
                return;  // a second signal, while the first stop waits or after it
        B->stopping = 1;
        Error_error("%s %s is shutting down.. (please wait)\n", Container_Name, Container_Version);
        // Applications are destroyed only once no processor thread runs their code: the
        // listeners close now, and what is in flight is answered first.
        if (B->service)
                Service_quiesce(B->service);
        if (!busy(B)) {
                finishStop(B);
                return;
        }
        B->deadline = Time_milli() + kStopGrace;
        Reactor_T reactor = Reactor_getInstance();
        Timer_T timer = Reactor_createTimer(reactor);
        Timer_setData(timer, B);
        Timer_setHandler(timer, drain);
        B->drainTimer = Reactor_scheduleTimer(reactor, timer, kDrainPoll, kDrainPoll);
}

void Build_free(Build_T* B) {
        assert(B && *B);
        Config_destroy();
        Engine_free(&(*B)->engine);
        FREE(*B);
        FileCache_free();
        Realm_free();
        Error_destroy();
        Reactor_free();
        // After Error_destroy: the line reaches standard error, never the error log.
        Error_error("%s %s stopped\n", Container_Name, Container_Version);
}

Host_T Build_findHost(Build_T B, const char* name) {
        assert(B);
        return Engine_findHost(B->engine, name);
}

Host_T Build_defaultHost(Build_T B) {
        assert(B);
        Host_T host = Engine_getDefaultHost(B->engine);
        if (!host)
                THROW(AssertException, "The Default Host is not defined");
        return host;
}

List_T Build_connectors(Build_T B) {
        assert(B);
        return Service_getConnectors(B->service);
}

Realm_T Build_realm(Build_T B) {
        assert(B);
        return Realm_getInstance();
}
