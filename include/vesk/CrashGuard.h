/*
 * CrashGuard: a fatal signal in a servlet module made diagnosable, and with a supervisor
 * survivable.
 *
 * While a processor thread runs a module's service method, it holds a line naming the
 * module, its context and the request, prepared before the call. A SIGSEGV, SIGBUS,
 * SIGFPE, SIGILL or (outside debug) SIGABRT on that thread writes the line and a
 * backtrace to the error log, adds the module to the crash record (home/logs/crashes),
 * and the process then ends by the same signal as it would have without the guard. A
 * signal anywhere else goes to whatever handled it before.
 *
 * A supervised server reads the record at start: a module that crashed CrashGuard_Limit
 * times within CrashGuard_Window seconds, and has not changed since, is disabled, and
 * its URLs answer 503 with Retry-After. An unsupervised start forgets the record.
 */
#ifndef VESK_CRASHGUARD_INCLUDED
#define VESK_CRASHGUARD_INCLUDED

#include <time.h>

#include <vesk/Export.h>
#include <vesk/HttpRequest.h>
#include <vesk/Wrapper.h>

VESK_BEGIN_DECLS

/* How many crashes within how many seconds disable a module in a supervised server. */
#define CrashGuard_Limit 3
#define CrashGuard_Window 600
/* The seconds a client is told to wait before it asks a disabled module again. */
#define CrashGuard_RetryAfter 60

/* Installs the handlers for the server running from home (which has a logs folder),
   writing to the error log errorLog (NULL: standard error); reads the crash record when
   supervised, and removes it when not. Raises AssertException if the handlers cannot be
   installed. */
VESK_API void CrashGuard_install(const char* home, const char* errorLog, int supervised);
/* Removes the handlers and forgets the disabled modules. */
VESK_API void CrashGuard_uninstall(void);
/* Prepares this thread's crash line for module W serving req, and arms the guard. */
VESK_API void CrashGuard_enter(Wrapper_T W, HttpRequest_T req);
/* Disarms this thread's guard: the module has returned. */
VESK_API void CrashGuard_leave(void);
/* Whether module W is disabled: it crashed too often and has not changed since. */
VESK_API int CrashGuard_isDisabled(Wrapper_T W);
/* Whether the crash record at recordFile disables module path now: CrashGuard_Limit
   crashes of it within CrashGuard_Window seconds before now, none older than the module
   file's modification time modified. */
VESK_API int CrashGuard_tooMany(const char* recordFile, const char* path, time_t modified,
                                time_t now);

VESK_END_DECLS

#endif
