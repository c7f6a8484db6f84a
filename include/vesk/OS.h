/*
 * OS: process-level work for the Container: environment, daemon, signals, pid
 * file and the descriptor limit. Failures raise AssertException.
 */
#ifndef VESK_OS_INCLUDED
#define VESK_OS_INCLUDED

#include <vesk/Container.h>
#include <vesk/Export.h>

VESK_BEGIN_DECLS

/* Empties the environment and sets a fixed PATH; sets Container_Concurrency. */
VESK_API void OS_initialize(void);
/* The most concurrent connections: raises the descriptor limit and keeps 100 spare. */
VESK_API int OS_concurrency(void);
/* Turns the process into a daemon detached from its terminal: every descriptor is
   closed but keep (-1 for none, else above 2), and 0, 1 and 2 read and write /dev/null. */
VESK_API void OS_daemonize(int keep);
/* Shuts the server down on SIGINT, SIGTERM, SIGQUIT and SIGABRT; ignores the rest. */
VESK_API void OS_signal(Container_T C);
/* Writes this process's pid to C's pid file. */
VESK_API void OS_createPidFile(Container_T C);
/* The pid of the process named by C's pid file if it runs, else 0. */
VESK_API int OS_isRunning(Container_T C);
/* Sends SIGTERM to the process named by C's pid file. */
VESK_API void OS_finalize(Container_T C);

VESK_END_DECLS

#endif
