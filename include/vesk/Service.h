/*
 * Service: the server's connectors. One Service exists for each server, beside its
 * Engine; connectors are added while server.xml is read and started and stopped as a
 * group, last added first. The Service owns its connectors. Every operation checks
 * "S"; Service_free checks "S && *S".
 */
#ifndef VESK_SERVICE_INCLUDED
#define VESK_SERVICE_INCLUDED

#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/List.h>

VESK_BEGIN_DECLS

typedef struct Service_S* Service_T;
typedef struct Engine_S* Engine_T;

/* A new Service with no connectors. */
VESK_API Service_T Service_new(void);
/* Frees every connector, the name and the Service; clears *S. */
VESK_API void Service_free(Service_T* S);
/* A name for the Service (copied); nothing in the server needs one. */
VESK_API void Service_setName(Service_T S, const char* name);
/* The name, or NULL. */
VESK_API const char* Service_getName(Service_T S);
/* The Engine that the connectors hand requests to. */
VESK_API void Service_setEngine(Service_T S, Engine_T engine);
/* The Engine, or NULL. */
VESK_API Engine_T Service_getEngine(Service_T S);
/* Gives connector the Engine and puts it at the head of the list; the Service owns it. */
VESK_API void Service_addConnector(Service_T S, HttpConnector_T connector);
/* The connectors, last added first. */
VESK_API List_T Service_getConnectors(Service_T S);
/* Starts each connector in list order. */
VESK_API void Service_start(Service_T S);
/* Stops each connector in list order. */
VESK_API void Service_stop(Service_T S);
/* The first step of a graceful stop: HttpConnector_quiesce of each connector. */
VESK_API void Service_quiesce(Service_T S);
/* The requests of all connectors still being answered: the sum of HttpConnector_getBusy. */
VESK_API int Service_getBusy(Service_T S);

VESK_END_DECLS

#endif
