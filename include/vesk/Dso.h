/*
 * Dso: servlet modules through the dynamic linker. Modules are opened with RTLD_NOW, so
 * a module with an unresolved symbol fails to load; failures are logged at error level
 * and answered with NULL or false, never raised.
 */
#ifndef VESK_DSO_INCLUDED
#define VESK_DSO_INCLUDED

#include <vesk/Export.h>
#include <vesk/Wrapper.h>

VESK_BEGIN_DECLS

/* A new Wrapper named name for the module at path with its entry points; NULL if path
   is not a regular file or cannot be loaded. */
VESK_API Wrapper_T Dso_load(const char* path, const char* name);
/* Closes the Wrapper's module; false, logged, on failure. */
VESK_API int Dso_unLoad(Wrapper_T W);
/* Closes and opens the module again, replacing every entry point; name, ServletConfig
   and Context stay. NULL on failure, the Wrapper then freed if unloading failed.
   Checks "servlet". */
VESK_API Wrapper_T Dso_reLoad(Wrapper_T W);

VESK_END_DECLS

#endif
