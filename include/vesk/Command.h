/*
 * Command: a child process to run, with its program and arguments, environment,
 * working directory, user and group, and callbacks for the running child.
 *
 * A Command lives on the heap (Command_new, freed by Command_free, which clears the
 * caller's pointer) or in an arena (Command_alloc), where its texts live too and which
 * frees it; Command_free refuses it. Every text given is copied. The environment is the
 * child's whole environment: it starts with Command_Path alone and inherits nothing.
 *
 * Command_execute starts the child. With no callback it returns at once and the child
 * gets /dev/null for its standard descriptors. With onExec, the child's standard
 * descriptors are pipes that the callback reaches through the Process; with onTimeout,
 * Command_execute waits for the child up to the timeout and then calls onTimeout, which
 * decides what happens to it. The callbacks run on the calling thread. Failures before
 * the child starts raise AssertException; a program that cannot be run ends the child
 * with the error number as its exit status. A NULL command fails the check "C".
 */
#ifndef VESK_COMMAND_INCLUDED
#define VESK_COMMAND_INCLUDED

#include <vesk/Arena.h>
#include <vesk/Export.h>
#include <vesk/List.h>
#include <vesk/Process.h>

VESK_BEGIN_DECLS

typedef struct Command_S* Command_T;

/* The one variable of a new Command's environment. */
#define Command_Path "PATH=/bin:/usr/bin:/usr/local/bin:/opt/csw/bin:/usr/sfw/bin"

/* A new Command on the heap. */
VESK_API Command_T Command_new(void);
/* A new Command in arena; checks "arena". */
VESK_API Command_T Command_alloc(Arena_T arena);
/* Frees a heap Command and its texts and clears *C. */
VESK_API void Command_free(Command_T* C);
/* Sets the program path, which must exist, and its arguments; the list ends with NULL. */
VESK_API void Command_setCommand(Command_T C, const char* path, ...) __attribute__((sentinel));
/* The program and its arguments, owned by C. */
VESK_API List_T Command_getCommand(Command_T C);
/* Sets the variable name to value, replacing it; NULL value gives the empty text. */
VESK_API void Command_setEnv(Command_T C, const char* name, const char* value);
/* Sets each pair of "a=b;c=d" formatted from format; stops at a part with no '='. */
VESK_API void Command_vSetEnv(Command_T C, const char* format, ...) VESK_PRINTF(2, 3);
/* The value of variable name, owned by C, or NULL. */
VESK_API const char* Command_getEnv(Command_T C, const char* name);
/* Sets the child's working directory, which must be an accessible directory; NULL clears. */
VESK_API void Command_setDir(Command_T C, const char* dir);
/* The working directory, owned by C, or NULL. */
VESK_API const char* Command_getDir(Command_T C);
/* Runs the child as user uid; 0 means no change. Checks "uid >= 0". */
VESK_API void Command_setUid(Command_T C, int uid);
/* The user id; 0 means no change. */
VESK_API int Command_getUid(Command_T C);
/* Runs the child as group gid; 0 means no change. Checks "gid >= 0". */
VESK_API void Command_setGid(Command_T C, int gid);
/* The group id; 0 means no change. */
VESK_API int Command_getGid(Command_T C);
/* The timeout in seconds; 0 when none was set. */
VESK_API int Command_getTimeout(Command_T C);
/* Calls onExec(P, data) in the parent once the child has started. */
VESK_API void Command_setOnExec(Command_T C, void (*onExec)(Process_T P, void* data), void* data);
/* Calls onTimeout(P, data) if the child still runs after timeout seconds. */
VESK_API void Command_setOnTimeout(Command_T C, int timeout,
                                   void (*onTimeout)(Process_T P, void* data), void* data);
/* Starts the child and runs the callbacks; returns C. */
VESK_API Command_T Command_execute(Command_T C);

VESK_END_DECLS

#endif
