/*
 * Process: the handle on a running child that a Command's callbacks receive.
 *
 * A Process lives only while Command_execute runs its callbacks: never keep it. Its
 * status is -1 while not known; once the child has ended it holds the exit code, or
 * the number of the signal that ended it, and stays. A child reaped by someone else
 * (a SIGCHLD handler, an event loop) has ended with an unknown status: waiting for it
 * gives -1 at once and it is no longer running. The three streams exist only when the
 * Command has a callback, are made on first use and are closed and freed by
 * Command_execute. A NULL process fails the check "P".
 */
#ifndef VESK_PROCESS_INCLUDED
#define VESK_PROCESS_INCLUDED

#include <vesk/Export.h>
#include <vesk/InputStream.h>
#include <vesk/OutputStream.h>

VESK_BEGIN_DECLS

typedef struct Process_S* Process_T;

/* The user id the child runs as. */
VESK_API int Process_getUid(Process_T P);
/* The group id the child runs as. */
VESK_API int Process_getGid(Process_T P);
/* The child's process id. */
VESK_API int Process_getPid(Process_T P);
/* The Command's timeout in seconds. */
VESK_API int Process_getTimeout(Process_T P);
/* The Command's working directory, or NULL. */
VESK_API const char* Process_getDir(Process_T P);
/* Waits for the child to end; its status, or -1 if it was reaped elsewhere. */
VESK_API int Process_waitFor(Process_T P);
/* The status without waiting; -1 while the child runs or when it is not known. */
VESK_API int Process_exitStatus(Process_T P);
/* True while the child has not ended. */
VESK_API int Process_isRunning(Process_T P);
/* Sends SIGTERM to a running child; true if sent. */
VESK_API int Process_terminate(Process_T P);
/* Sends SIGKILL to a running child; true if sent. */
VESK_API int Process_kill(Process_T P);
/* A stream to the child's standard input, owned by P. */
VESK_API OutputStream_T Process_getOutputStream(Process_T P);
/* Flushes and closes the child's standard input, so that it sees the end of its input;
   a stream got later fails every write. */
VESK_API void Process_closeOutputStream(Process_T P);
/* A stream from the child's standard output, owned by P. */
VESK_API InputStream_T Process_getInputStream(Process_T P);
/* A stream from the child's standard error, owned by P. */
VESK_API InputStream_T Process_getErrorStream(Process_T P);

VESK_END_DECLS

#endif
