/*
 * ServletContext: an application as its servlets see it, and the reader of its
 * deployment descriptor WEB-INF/web.xml (servlets and their URLs, MIME types, welcome
 * files, error pages, session timeout, security constraints and login).
 *
 * It lives in its Context's arena. Attributes are shared between threads under the
 * object's mutex; the values behind them are the caller's. Everything read from
 * web.xml is written at start-up and only read afterwards. A bad web.xml raises
 * AssertException "%s in '%s' at line %d" out of ServletContext_parseConf.
 */
#ifndef VESK_SERVLETCONTEXT_INCLUDED
#define VESK_SERVLETCONTEXT_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>
#include <vesk/FileInputStream.h>
#include <vesk/HttpRequest.h>
#include <vesk/List.h>

VESK_BEGIN_DECLS

typedef struct ServletContext_S* ServletContext_T;

/* A new ServletContext in arena. */
VESK_API ServletContext_T ServletContext_new(Arena_T arena);
/* Destroys the mutex and clears *C; attribute values are not touched. */
VESK_API void ServletContext_free(ServletContext_T* C);
/* The Context (and so the Loader) this object speaks for. */
VESK_API void ServletContext_setContext(ServletContext_T C, Context_T context);
VESK_API Context_T ServletContext_getContext(ServletContext_T C);
/* Reads docBase/WEB-INF/web.xml if there is one; checks "C" and "C->parent". */
VESK_API void ServletContext_parseConf(ServletContext_T C);
/* "Vesk/2.0". */
VESK_API const char* ServletContext_getServerInfo(void);
/* The Context's path. */
VESK_API const char* ServletContext_getContextPath(ServletContext_T C);
/* The Context's docBase. */
VESK_API const char* ServletContext_getDocumentBase(ServletContext_T C);
/* The real file path of path below docBase, in the current request's arena; NULL for
   a path into WEB-INF (Context_isPrivatePath), without a docBase, or when it does not
   resolve. */
VESK_API const char* ServletContext_getRealPath(ServletContext_T C, const char* path);
/* A stream on the real path, or NULL; the caller frees it. */
VESK_API FileInputStream_T ServletContext_getResourceAsStream(ServletContext_T C, const char* path);
/* The MIME type for path's extension: the application's, else the server's; or NULL. */
VESK_API const char* ServletContext_getMimeType(ServletContext_T C, const char* path);
/* The application's welcome files (last declared first), or if none the server's. */
VESK_API List_T ServletContext_getWelcomeFiles(ServletContext_T C);
/* The attribute name, or NULL. */
VESK_API void* ServletContext_getAttribute(ServletContext_T C, const char* name);
/* Sets an attribute and returns the earlier value; NULL value removes it. Checks "C"
   and "name". */
VESK_API void* ServletContext_setAttribute(ServletContext_T C, const char* name, void* value);
/* Removes an attribute and returns its value, or NULL. */
VESK_API void* ServletContext_removeAttribute(ServletContext_T C, const char* name);
/* Writes to the host's application log; a NULL m does nothing. */
VESK_API void ServletContext_log(ServletContext_T C, const char* m, ...) VESK_PRINTF(2, 3);

VESK_END_DECLS

#endif
