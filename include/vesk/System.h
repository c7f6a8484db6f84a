/*
 * System: small operating-system helpers.
 *
 * Error texts come from the C library and belong to it; callers never free them.
 */
#ifndef VESK_SYSTEM_INCLUDED
#define VESK_SYSTEM_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* Waits for a signal with an empty mask. */
VESK_API void System_pause(void);

/* The text of error number `error`. */
VESK_API const char* System_getError(int error);

/* The text of errno. */
VESK_API const char* System_getLastError(void);

VESK_END_DECLS

#endif
