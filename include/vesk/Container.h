/*
 * Container: the object a launcher holds to run a server from a home directory.
 *
 * A launcher calls Container_new, sets the home (and optionally the pid file,
 * control file and working directory), then Container_bootstrap and
 * Container_start, which returns when the server has stopped; Container_free
 * ends it. A second, short-lived process uses Container_isRunning and
 * Container_stop against a running server's pid file. Every operation checks
 * that C is present ("C") and setters their argument; bad paths and a bad home
 * raise AssertException with a message that names the path.
 *
 * The process-wide variables below are read by every module.
 */
#ifndef VESK_CONTAINER_INCLUDED
#define VESK_CONTAINER_INCLUDED

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Container_S* Container_T;
typedef struct Build_S* Build_T;

/* Product name and version used in messages and in the pid file's name. */
VESK_API extern const char* Container_Name;
VESK_API extern const char* Container_Version;
/* The home of the running container, or NULL before Container_new. */
VESK_API extern const char* Container_Home;
/* The temporary working directory; "/tmp" unless set. */
VESK_API extern const char* Container_WorkDir;
/* Debug switch; the launcher sets it. */
VESK_API extern int Container_Debug;
/* When set, starting the server logs a started line; the launcher sets it. */
VESK_API extern int Container_Standalone;
/* The most concurrent connections, from the descriptor limit less spare descriptors. */
VESK_API extern int Container_Concurrency;
/* Called for an exception that no protected block takes. The default logs the
   message at error level and ends the process: exit(1), or abort() in debug mode. */
VESK_API extern void (*Container_AbortHandler)(const char* format, ...) VESK_PRINTF(1, 2);

/* The path separator as text and as a character. */
#define SEPARATOR "/"
#define SEPARATOR_CHAR '/'

/* A new container: empties the environment, works out the connection limit. */
VESK_API Container_T Container_new(void);
/* Frees the container and its server tree; clears *C. */
VESK_API void Container_free(Container_T* C);
/* The home directory; must exist and be a directory. Trailing separators are dropped. */
VESK_API void Container_setHome(Container_T C, const char* containerHome);
/* The home, or NULL while not set. Owned by C. */
VESK_API const char* Container_getHome(Container_T C);
/* The temporary working directory; must be a writable directory. */
VESK_API void Container_setWorkDir(Container_T C, const char* workDir);
/* The working directory; never NULL. Owned by C. */
VESK_API const char* Container_getWorkDir(Container_T C);
/* The server configuration file, instead of home/conf/server.xml; must be a regular file. */
VESK_API void Container_setControlFile(Container_T C, const char* controlFile);
/* The control file, or NULL while not set. Owned by C. */
VESK_API const char* Container_getControlFile(Container_T C);
/* The pid file, instead of home/logs/Vesk.pid; copied unchecked. */
VESK_API void Container_setPidFile(Container_T C, const char* pidFile);
/* The pid file, or NULL while not set. Owned by C. */
VESK_API const char* Container_getPidFile(Container_T C);
/* Whether bootstrap turns the process into a daemon; on by default. */
VESK_API void Container_setDaemon(Container_T C, int daemon);
VESK_API int Container_isDaemon(Container_T C);
/* The write end of a pipe (a descriptor above 2) on which bootstrap and start report
   how the start went: "ready\n" once the server listens on every connector, or "error\n"
   followed by the reason; then C closes it. It stays open in the daemon, so that the
   process that started one can wait for the outcome and report it. */
VESK_API void Container_setStartPipe(Container_T C, int fd);
/* Whether a supervisor restarts this server when it ends on a fatal signal: then start
   disables the servlet modules that crashed too often (see CrashGuard.h). Off by default. */
VESK_API void Container_setSupervised(Container_T C, int supervised);
VESK_API int Container_isSupervised(Container_T C);
/* The server configuration, or NULL before bootstrap. Owned by C. */
VESK_API Build_T Container_getBuild(Container_T C);
/* Checks the home, daemonizes if asked and reads the configuration. Once only. */
VESK_API Build_T Container_bootstrap(Container_T C);
/* Writes the pid file, installs the signal handlers and serves until stopped. A start
   that fails removes the pid file it wrote before it raises. */
VESK_API void Container_start(Container_T C);
/* Asks the server running from this home to stop; usable from another process. */
VESK_API void Container_stop(Container_T C);
/* The pid of the server running from this home, or 0. */
VESK_API int Container_isRunning(Container_T C);
/* Stops the server from within (the signal path) and deletes the pid file. */
VESK_API void Container_shutdown(Container_T C);

VESK_END_DECLS

#endif
