/*
 * Build: the server's configuration, read from conf/server.xml into the object tree
 * (one Engine with its Hosts and Contexts, one Service with its connectors), and the
 * start and stop of that tree.
 *
 * Build_init is the library's one-time start-up; Container_new runs it. Build_parse
 * reads server.xml and then conf/web.xml of the home and returns the tree; Build_start
 * checks the defaults, starts the Engine and runs the Reactor until Build_stop, called
 * on the Reactor's thread, ends it; Build_free(&B) releases everything and clears the
 * caller's pointer. A fault in server.xml raises AssertException
 * "<reason> -- in '<file>' near line <n>"; the partial tree is released first. Absent
 * objects fail the check "B".
 */
#ifndef VESK_BUILD_INCLUDED
#define VESK_BUILD_INCLUDED

#include <pthread.h>

#include <vesk/Container.h>
#include <vesk/Export.h>
#include <vesk/List.h>

VESK_BEGIN_DECLS

typedef struct Host_S* Host_T;
typedef struct Realm_S* Realm_T;

/* Thread key whose value is the Arena of the request the thread serves. */
VESK_API extern pthread_key_t Request_Arena;

/* The library's one-time start-up; runs once per process however often called. */
VESK_API void Build_init(void);
/* A new, empty tree and the process-wide singletons. Build_parse calls it. */
VESK_API Build_T Build_new(void);
/* The tree configured by server_xml, with containerHome as the home. Checks
   "containerHome" and "server_xml". */
VESK_API Build_T Build_parse(const char* containerHome, const char* server_xml);
/* Checks the defaults, starts the Engine and serves until Build_stop. */
VESK_API void Build_start(Build_T B);
/* Stops accepting, lets the requests in flight finish (for up to 30 seconds), then stops
   the Engine and the Reactor; returns at once while the Reactor winds down. Call it on
   the Reactor thread. */
VESK_API void Build_stop(Build_T B);
/* Releases the tree and the singletons; clears *B. Checks "B && *B". */
VESK_API void Build_free(Build_T* B);
/* The Host known by name or alias, or NULL. Owned by B. */
VESK_API Host_T Build_findHost(Build_T B, const char* name);
/* The default Host; raises AssertException "The Default Host is not defined" if none. */
VESK_API Host_T Build_defaultHost(Build_T B);
/* The List of HttpConnector_T, the last in the file first. Owned by B. */
VESK_API List_T Build_connectors(Build_T B);
/* The Realm singleton, whose database may be unset. */
VESK_API Realm_T Build_realm(Build_T B);

VESK_END_DECLS

#endif
