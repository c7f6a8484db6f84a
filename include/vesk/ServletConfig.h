/*
 * ServletConfig: what a servlet receives at init: its name, its init parameters and its
 * application's ServletContext. Names and values are the object's own copies. Every
 * operation checks "C".
 */
#ifndef VESK_SERVLETCONFIG_INCLUDED
#define VESK_SERVLETCONFIG_INCLUDED

#include <vesk/Export.h>
#include <vesk/HttpRequest.h>

VESK_BEGIN_DECLS

typedef struct ServletConfig_S* ServletConfig_T;

/* A new empty configuration. */
VESK_API ServletConfig_T ServletConfig_new(void);
/* Frees it and clears *C; checks "C && *C". */
VESK_API void ServletConfig_free(ServletConfig_T* C);
/* The servlet's name, or NULL. */
VESK_API const char* ServletConfig_getServletName(ServletConfig_T C);
/* Copies the servlet's name. */
VESK_API void ServletConfig_setServletName(ServletConfig_T C, const char* name);
/* The application's ServletContext, or NULL. */
VESK_API ServletContext_T ServletConfig_getServletContext(ServletConfig_T C);
VESK_API void ServletConfig_setServletContext(ServletConfig_T C, ServletContext_T servletContext);
/* The init parameter name, or NULL; checks "name". */
VESK_API const char* ServletConfig_getInitParameter(ServletConfig_T C, const char* name);
/* Sets an init parameter (copied); checks "name". */
VESK_API void ServletConfig_setInitParameter(ServletConfig_T C, const char* name,
                                             const char* value);
/* The parameter names, NULL-terminated, made on the first call and kept: parameters
   set later are not in it. The array stays the object's. */
VESK_API const char** ServletConfig_getInitParameterNames(ServletConfig_T C);

VESK_END_DECLS

#endif
