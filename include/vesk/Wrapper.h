/*
 * Wrapper: one servlet and its entry points.
 *
 * A servlet module is a shared object WEB-INF/classes/NAME.clazz that may export any of
 *     void init(ServletConfig_T config);      once, when the application starts
 *     void destroy(void);                     once, when it stops
 *     int doGet(HttpRequest_T req, HttpResponse_T res);   and doHead, doPost, doPut,
 *                                             doDelete, doTrace, doOptions
 * A built-in ("virtual") servlet has no file and gets its entries from the setters.
 * The do functions run on processor threads, several at once; their result is passed
 * back through Context_invoke. A missing entry answers 405 with "Connection: close".
 * init and destroy each run at most once in a Wrapper's life, reloads included. Every
 * operation but Wrapper_new, Wrapper_free and Wrapper_list checks "W".
 */
#ifndef VESK_WRAPPER_INCLUDED
#define VESK_WRAPPER_INCLUDED

#include <time.h>

#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/HttpResponse.h>
#include <vesk/ServletConfig.h>

VESK_BEGIN_DECLS

typedef struct Wrapper_S* Wrapper_T;

/* A servlet's init entry. */
typedef void (*Wrapper_Init)(ServletConfig_T config);
/* A servlet's destroy entry. */
typedef void (*Wrapper_Destroy)(void);
/* A servlet's entry for one HTTP method. */
typedef int (*Wrapper_Service)(HttpRequest_T req, HttpResponse_T res);

/* A new virtual Wrapper with an empty ServletConfig. */
VESK_API Wrapper_T Wrapper_new(void);
/* Frees the ServletConfig, texts and object; clears *W. Checks "W && *W". */
VESK_API void Wrapper_free(Wrapper_T* W);
/* The servlet's name (copied), also the ServletConfig's. */
VESK_API void Wrapper_setName(Wrapper_T W, const char* name);
VESK_API const char* Wrapper_getName(Wrapper_T W);
/* The module's path (copied), NULL for a virtual servlet. */
VESK_API void Wrapper_setFilePath(Wrapper_T W, const char* path);
VESK_API const char* Wrapper_getFilePath(Wrapper_T W);
/* Whether the servlet is built in, with no file. */
VESK_API void Wrapper_setVirtual(Wrapper_T W, int isVirtual);
VESK_API int Wrapper_isVirtual(Wrapper_T W);
/* The dynamic linker's handle, or NULL. */
VESK_API void Wrapper_setHandle(Wrapper_T W, void* handle);
VESK_API void* Wrapper_getHandle(Wrapper_T W);
/* The Context; also gives the ServletConfig the Context's ServletContext. */
VESK_API void Wrapper_setContext(Wrapper_T W, Context_T context);
VESK_API Context_T Wrapper_getContext(Wrapper_T W);
/* The module file's modification time when it was loaded. */
VESK_API void Wrapper_setLastModified(Wrapper_T W, time_t lastModified);
VESK_API time_t Wrapper_getLastModified(Wrapper_T W);
/* The servlet's configuration, owned by the Wrapper. */
VESK_API ServletConfig_T Wrapper_getServletConfig(Wrapper_T W);
/* An init parameter, through the ServletConfig. */
VESK_API void Wrapper_addParameter(Wrapper_T W, const char* name, const char* value);
VESK_API const char* Wrapper_getParameter(Wrapper_T W, const char* name);

/* Store one entry point (NULL removes it). */
VESK_API void Wrapper_setInit(Wrapper_T W, Wrapper_Init init);
VESK_API void Wrapper_setDestroy(Wrapper_T W, Wrapper_Destroy destroy);
VESK_API void Wrapper_setDoGet(Wrapper_T W, Wrapper_Service doGet);
VESK_API void Wrapper_setDoHead(Wrapper_T W, Wrapper_Service doHead);
VESK_API void Wrapper_setDoPost(Wrapper_T W, Wrapper_Service doPost);
VESK_API void Wrapper_setDoPut(Wrapper_T W, Wrapper_Service doPut);
VESK_API void Wrapper_setDoDelete(Wrapper_T W, Wrapper_Service doDelete);
VESK_API void Wrapper_setDoTrace(Wrapper_T W, Wrapper_Service doTrace);
VESK_API void Wrapper_setDoOptions(Wrapper_T W, Wrapper_Service doOptions);

/* Calls init with the ServletConfig, the first time only. */
VESK_API void Wrapper_doInit(Wrapper_T W);
/* Calls destroy, the first time only. */
VESK_API void Wrapper_doDestroy(Wrapper_T W);
/* Call the entry for a method and return its result; without it, answer 405. */
VESK_API int Wrapper_doGet(Wrapper_T W, HttpRequest_T req, HttpResponse_T res);
VESK_API int Wrapper_doHead(Wrapper_T W, HttpRequest_T req, HttpResponse_T res);
VESK_API int Wrapper_doPost(Wrapper_T W, HttpRequest_T req, HttpResponse_T res);
VESK_API int Wrapper_doPut(Wrapper_T W, HttpRequest_T req, HttpResponse_T res);
VESK_API int Wrapper_doDelete(Wrapper_T W, HttpRequest_T req, HttpResponse_T res);
VESK_API int Wrapper_doTrace(Wrapper_T W, HttpRequest_T req, HttpResponse_T res);
VESK_API int Wrapper_doOptions(Wrapper_T W, HttpRequest_T req, HttpResponse_T res);
/* Prints what the Wrapper holds to standard output, for debugging. */
VESK_API void Wrapper_list(Wrapper_T W);

VESK_END_DECLS

#endif
