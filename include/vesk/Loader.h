/*
 * Loader: the servlets of one Context, by name. It finds modules in the application's
 * WEB-INF/classes, loads them, reloads a changed module when the Context is
 * reloadable, and unloads them. The Loader lives in the Context's arena and owns its
 * Wrappers. Look-ups take no lock; changes to the table take the Loader's mutex.
 * Nothing waits for requests still running in a module that is reloaded or unloaded.
 */
#ifndef VESK_LOADER_INCLUDED
#define VESK_LOADER_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/Wrapper.h>

VESK_BEGIN_DECLS

typedef struct Loader_S* Loader_T;

/* A new empty Loader in arena. */
VESK_API Loader_T Loader_new(Arena_T arena);
/* Destroys the mutex and clears *L; the memory goes with the arena. */
VESK_API void Loader_free(Loader_T* L);
/* The Context whose servlets these are. */
VESK_API void Loader_setContext(Loader_T L, Context_T context);
VESK_API Context_T Loader_getContext(Loader_T L);
/* Loads every module and runs every servlet's init; a servlet whose init raises is
   logged and unloaded. Checks "L" and "L->context". */
VESK_API void Loader_start(Loader_T L);
/* Destroys and unloads every servlet. Checks "L" and "L->context". */
VESK_API void Loader_stop(Loader_T L);
/* Loads every WEB-INF/classes/ *.clazz of the application; checks "docBase". */
VESK_API void Loader_loadAll(Loader_T L);
/* The servlet name, loading WEB-INF/classes/name.clazz and mapping "/name" if it is
   new, reloading it if changed; NULL if there is no such module or it fails to load. */
VESK_API Wrapper_T Loader_load(Loader_T L, const char* name);
/* The servlet name, reloaded first if its file changed in a reloadable Context; NULL
   if none. */
VESK_API Wrapper_T Loader_lookup(Loader_T L, const char* name);
/* A new virtual servlet name with no entries, replacing any of that name. */
VESK_API Wrapper_T Loader_createServlet(Loader_T L, const char* name);
/* Destroys and unloads the servlet name; false if there is none. */
VESK_API int Loader_unLoad(Loader_T L, const char* name);

VESK_END_DECLS

#endif
