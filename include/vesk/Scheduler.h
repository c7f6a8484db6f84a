/*
 * Scheduler: timed work. A scheduler keeps an event loop on a thread of its own for
 * the clock and a Dispatcher pool for the work, so a slow task never delays the clock
 * of another.
 *
 * A Task_T is a named record made by Scheduler_createTask and owned by its scheduler:
 * it is never freed alone, and Task_cancel hands it back for reuse by a later
 * Scheduler_createTask. A task is set up once (Task_setOnce, Task_setAt or
 * Task_setPeriodic), given a worker and started by Scheduler_add. Runs of one task never
 * overlap: a firing that comes while the last run is still going is dropped. An
 * exception that leaves a worker is logged and goes no further.
 *
 * Scheduler_free(&C) stops the clock first, so that no task fires any more, then waits
 * for the runs in progress, frees every task record and clears the caller's pointer.
 * Bad arguments raise AssertException.
 */
#ifndef VESK_SCHEDULER_INCLUDED
#define VESK_SCHEDULER_INCLUDED

#include <time.h>

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Scheduler_S* Scheduler_T;
typedef struct Task_S* Task_T;

/* A running scheduler whose tasks run on at most `threads` threads at once. */
VESK_API Scheduler_T Scheduler_new(int threads);

/* Stops the clock, waits for the runs in progress, frees every task record and clears *C. */
VESK_API void Scheduler_free(Scheduler_T* C);

/* A task record named by the first 20 characters of name, or NULL once the scheduler stops. */
VESK_API Task_T Scheduler_createTask(Scheduler_T C, const char* name);

/* Starts a task that has been set up and given a worker; does nothing once the scheduler stops. */
VESK_API void Scheduler_add(Task_T task);

/* Runs the task once, offset milliseconds after Scheduler_add. */
VESK_API void Task_setOnce(Task_T t, int offset);

/* Runs the task once, at time (seconds since the epoch, at most INT_MAX). */
VESK_API void Task_setAt(Task_T t, time_t time);

/* Runs the task every interval milliseconds (> 0), on the wall clock's multiples of it, as
   crontab does; offset shifts those instants once Task_restart is called. */
VESK_API void Task_setPeriodic(Task_T t, int offset, int interval);

/* Sets the work, called with the task on one of the scheduler's threads. */
VESK_API void Task_setWorker(Task_T t, void (*worker)(Task_T t));

/* Sets the worker's data, which stays the caller's. */
VESK_API void Task_setData(Task_T t, void* data);

/* The worker's data. */
VESK_API void* Task_getData(Task_T t);

/* The task's name, owned by the task. */
VESK_API const char* Task_getName(Task_T t);

/* The delay in milliseconds, or for a task set by Task_setAt its time in seconds. */
VESK_API int Task_getOffset(Task_T t);

/* The period in milliseconds of a periodic task, else 0. */
VESK_API int Task_getInterval(Task_T t);

/* When the latest run started, in seconds since the epoch; 0 before the first. */
VESK_API time_t Task_lastRun(Task_T t);

/* When the task fires next, in seconds since the epoch; 0 if it is not waiting to fire. */
VESK_API time_t Task_nextRun(Task_T t);

/* Stops the task from firing again and hands the record back for reuse once a run in
   progress has ended. */
VESK_API void Task_cancel(Task_T t);

/* Starts the task's clock over from now, with its present offset and interval. */
VESK_API void Task_restart(Task_T t);

VESK_END_DECLS

#endif
