/*
 * Container: the process-wide settings every module reads.
 */
#ifndef VESK_CONTAINER_INCLUDED
#define VESK_CONTAINER_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* Product name and version used in messages. */
VESK_API extern const char* Container_Name;
VESK_API extern const char* Container_Version;

/* Debug switch; the launcher sets it. */
VESK_API extern int Container_Debug;

/* Called for an exception that no protected block takes. The default logs the
   message at error level and ends the process: exit(1), or abort() in debug mode. */
VESK_API extern void (*Container_AbortHandler)(const char* format, ...) VESK_PRINTF(1, 2);

VESK_END_DECLS

#endif
