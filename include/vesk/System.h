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
/* Runs the process as user and group from now on, with the user's supplementary groups
   in place of the caller's: 1 on success; 0 when the process does not run as root, a
   name is unknown or a change fails, and then it may have changed its group only. A
   failed look-up is logged; the group changes first. */
VESK_API int System_changeIdentity(const char* user, const char* group);

VESK_END_DECLS

#endif
