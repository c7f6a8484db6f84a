/*
 * Engine: the virtual hosts of the server and the way a request finds its Context.
 *
 * Hosts are added while server.xml is read and only read afterwards, so look-ups take
 * no lock. Host names, aliases and addresses are kept in lower case and looked up
 * case-sensitively. A request for an unknown host name goes to the default host.
 * Engine_map, Engine_findHost and Engine_findHostWithAddress check nothing and answer
 * NULL for what they cannot find; every other operation checks "E", and Engine_free
 * checks "E && *E". Duplicate names, addresses or aliases raise AssertException.
 */
#ifndef VESK_ENGINE_INCLUDED
#define VESK_ENGINE_INCLUDED

#include <vesk/Export.h>
#include <vesk/Host.h>
#include <vesk/HttpRequest.h>
#include <vesk/Service.h>

VESK_BEGIN_DECLS

typedef struct Engine_S* Engine_T;

/* A new Engine with no hosts. */
VESK_API Engine_T Engine_new(void);
/* Frees every Host, the tables, then the Service and the Engine; clears *E. */
VESK_API void Engine_free(Engine_T* E);
/* Adds host under its name, its address (if any) and each alias; the Engine owns it.
   Raises "A host with the name '%s' has already been added" and the like for
   addresses and aliases. */
VESK_API void Engine_addHost(Engine_T E, Host_T host);
/* The Host with this name, else with this alias; NULL if none. */
VESK_API Host_T Engine_findHost(Engine_T E, const char* name);
/* The SSL Host that listens on address; NULL if none. */
VESK_API Host_T Engine_findHostWithAddress(Engine_T E, const char* address);
/* The Context for req: its host by server name (a request without one gets the default
   host's name), else the default host, then the longest context path; NULL if none. */
VESK_API Context_T Engine_map(Engine_T E, HttpRequest_T req);
/* The Host for requests that name no known host; also remembers its name. */
VESK_API void Engine_setDefaultHost(Engine_T E, Host_T host);
/* The default Host, or NULL. */
VESK_API Host_T Engine_getDefaultHost(Engine_T E);
/* The Service, which Engine_free frees. */
VESK_API void Engine_setService(Engine_T E, Service_T service);
/* The Service, or NULL. */
VESK_API Service_T Engine_getService(Engine_T E);
/* Starts every Host, then the Service; checks "Default host not defined". */
VESK_API void Engine_start(Engine_T E);
/* Stops every Host, then the Service: applications stop while connectors still stand. */
VESK_API void Engine_stop(Engine_T E);
/* True from Engine_stop until the next Engine_start has finished. */
VESK_API int Engine_isStopped(Engine_T E);

VESK_END_DECLS

#endif
