/*
 * Host: one virtual host, with its contexts, its application and access logs, and an
 * SSL server context when a certificate is set. Names, addresses and aliases are kept
 * in lower case; other texts are copied as given. A Host owns its contexts and
 * loggers. Host_getLogger and Host_getAccessLogger accept a NULL Host and answer NULL;
 * every other operation checks "H", and setters check their argument by its name.
 */
#ifndef VESK_HOST_INCLUDED
#define VESK_HOST_INCLUDED

#include <vesk/Context.h>
#include <vesk/Export.h>
#include <vesk/InetAddress.h>
#include <vesk/List.h>
#include <vesk/Logger.h>
#include <vesk/SSL.h>

VESK_BEGIN_DECLS

typedef struct Host_S* Host_T;

/* A new Host with the default cipher list. */
VESK_API Host_T Host_new(void);
/* Frees every Context, both loggers, the SSL context and the Host; clears *H. */
VESK_API void Host_free(Host_T* H);
/* The host name, lowered. */
VESK_API void Host_setName(Host_T H, const char* name);
VESK_API const char* Host_getName(Host_T H);
/* The local IP address of an SSL host, lowered. */
VESK_API void Host_setAddress(Host_T H, const char* address);
VESK_API const char* Host_getAddress(Host_T H);
/* Appends another name for the host, lowered. */
VESK_API void Host_addAlias(Host_T H, const char* alias);
/* The aliases in the order added. */
VESK_API List_T Host_getAliases(Host_T H);
/* The directory of the host's applications; raises "Host appbase '%s' is not a
   directory" unless it is one. */
VESK_API void Host_setAppBase(Host_T H, const char* appBase);
VESK_API const char* Host_getAppBase(Host_T H);
/* The PEM file that makes this an SSL host. */
VESK_API void Host_setCertificate(Host_T H, const char* certificate);
VESK_API const char* Host_getCertificate(Host_T H);
/* The cipher list for the SSL context. */
VESK_API void Host_setCiphers(Host_T H, const char* ciphers);
VESK_API const char* Host_getCiphers(Host_T H);
/* The application log, made unbuffered; frees an earlier one. */
VESK_API void Host_setLogger(Host_T H, Logger_T logger);
/* The application log, or NULL (also for a NULL Host). */
VESK_API Logger_T Host_getLogger(Host_T H);
/* The access log, with timestamps off; frees an earlier one. */
VESK_API void Host_setAccessLogger(Host_T H, Logger_T logger);
/* The access log, or NULL (also for a NULL Host). */
VESK_API Logger_T Host_getAccessLogger(Host_T H);
/* Puts context under its path, replacing one of the same path, and sets its Host. */
VESK_API void Host_addContext(Host_T H, Context_T context);
/* The Context with exactly this path, or NULL. */
VESK_API Context_T Host_getContext(Host_T H, const char* path);
/* The Context with the empty path; also added like Host_addContext. */
VESK_API void Host_setDefaultContext(Host_T H, Context_T context);
VESK_API Context_T Host_getDefaultContext(Host_T H);
/* The Context whose path is the longest prefix of uri at a '/', else the default
   Context; checks "i <= PATH_MAX" for the length of uri. */
VESK_API Context_T Host_map(Host_T H, const char* uri);
/* Starts TLS on inet with the host's SSL context; checks "inet". */
VESK_API SSL_T Host_SSLAccept(Host_T H, InetAddress_T inet);
/* Makes the SSL context if a certificate is set, then starts every Context. */
VESK_API void Host_start(Host_T H);
/* Stops every Context, then frees the SSL context. */
VESK_API void Host_stop(Host_T H);

VESK_END_DECLS

#endif
