/*
 * Reactor: the process's one event loop, and what runs on it.
 *
 * Reactor_getInstance gives the singleton; the thread that calls Reactor_start
 * becomes the reactor thread, and every callback runs there. Nothing here takes
 * a lock: create, register, schedule and remove only on the reactor thread or
 * before the loop starts.
 *
 * EventHandler_T is the slot of the handler table whose index is the descriptor;
 * it waits for readiness (read 1, write 2) and, with a timeout, for inactivity
 * (256). A one-shot handler is disarmed before its callback runs and may be
 * registered again from it; a persistent one stays armed. Timer_T runs after a
 * relative time, Periodic_T at wall-clock times, SignalHandler_T on a signal.
 *
 * The Reactor owns every object it hands out: callers never free one. Timers,
 * periodics and signal handlers live until Reactor_stop or Reactor_free; a
 * one-shot timer or periodic that has fired is handed out again by the next
 * create. Timeouts and times are given in milliseconds. An absent Reactor or
 * object raises AssertException naming the argument.
 */
#ifndef VESK_REACTOR_INCLUDED
#define VESK_REACTOR_INCLUDED

#include <time.h>

#include <vesk/Export.h>

VESK_BEGIN_DECLS

typedef struct Reactor_S* Reactor_T;
typedef struct EventHandler_S* EventHandler_T;
typedef struct Timer_S* Timer_T;
typedef struct Periodic_S* Periodic_T;
typedef struct SignalHandler_S* SignalHandler_T;

/* Event masks seen by an EventHandler callback. */
enum { Reactor_Read = 1, Reactor_Write = 2, Reactor_Timeout = 256 };

/* The singleton, created on first use; raises "Cannot create the event loop\n" without a loop. */
VESK_API Reactor_T Reactor_getInstance(void);

/* Stops the loop and frees the singleton with everything it holds; does nothing if none. */
VESK_API void Reactor_free(void);

/* Runs the loop on the calling thread until Reactor_stop; returns at once if running. */
VESK_API void Reactor_start(Reactor_T R);

/* Disarms every handler, frees timers, periodics and signal handlers, breaks the loop. */
VESK_API void Reactor_stop(Reactor_T R);

/* The number of handler slots; a descriptor must be below it. */
VESK_API int Reactor_getConcurrency(Reactor_T R);

/* The reset slot for descriptor handle, or NULL with errno EMFILE (too high) or EINVAL. */
VESK_API EventHandler_T Reactor_createHandler(Reactor_T R, int handle);

/* Arms handler for events (1 read, 2 write) and its timeout; returns 1. */
VESK_API int Reactor_registerHandler(Reactor_T R, EventHandler_T handler, int events);

/* Disarms handler and clears its state, data, callback and timeout. */
VESK_API void Reactor_removeHandler(Reactor_T R, EventHandler_T handler);

/* A timer for Reactor_scheduleTimer, reusing one that has fired for good. */
VESK_API Timer_T Reactor_createTimer(Reactor_T R);

/* Starts timer after `after` ms, then every `repeat` ms (0: once); returns its id, or -1
   without a callback. */
VESK_API int Reactor_scheduleTimer(Reactor_T R, Timer_T timer, unsigned after, unsigned repeat);

/* Stops the timer with id; returns 0, and the timer is not handed out again. */
VESK_API int Reactor_cancelTimer(Reactor_T R, int id);

/* A periodic for Reactor_schedulePeriodic, reusing one that has fired for good. */
VESK_API Periodic_T Reactor_createPeriodic(Reactor_T R);

/* Fires at offset ms past every multiple of interval ms of wall-clock time, or once at the
   epoch time offset ms when interval is 0; returns its id, or -1 without a callback. */
VESK_API int Reactor_schedulePeriodic(Reactor_T R, Periodic_T periodic, unsigned offset,
                                      unsigned interval);

/* Stops the periodic with id; returns 0, and it is not handed out again. */
VESK_API int Reactor_cancelPeriodic(Reactor_T R, int id);

/* A new signal handler. */
VESK_API SignalHandler_T Reactor_createSignalHandler(Reactor_T R);

/* Calls handler on the reactor thread whenever signum arrives; returns 1, or 0 without a
   callback. */
VESK_API int Reactor_registerSignalHandler(Reactor_T R, SignalHandler_T handler, int signum);

/* Stops handler; the signal gets its default action back. */
VESK_API void Reactor_removeSignalHandler(Reactor_T R, SignalHandler_T handler);

/* The descriptor, which is also the slot's index. */
VESK_API int EventHandler_getHandle(EventHandler_T E);

/* A number free for the owner; the Reactor only clears it. */
VESK_API int EventHandler_getState(EventHandler_T E);
VESK_API void EventHandler_setState(EventHandler_T E, int state);

/* Whether the handler stays armed after an event. */
VESK_API int EventHandler_getPersistent(EventHandler_T E);
VESK_API void EventHandler_setPersistent(EventHandler_T E, int persistent);

/* The owner's pointer. */
VESK_API void* EventHandler_getData(EventHandler_T E);
VESK_API void EventHandler_setData(EventHandler_T E, void* data);

/* The inactivity timeout in ms, kept in whole seconds: below 1000 ms means none; -1 for none. */
VESK_API int EventHandler_getTimeout(EventHandler_T E);
VESK_API void EventHandler_setTimeout(EventHandler_T E, int ms);

/* The event priority, -2 (lowest) to 2. */
VESK_API int EventHandler_getPriority(EventHandler_T E);
VESK_API void EventHandler_setPriority(EventHandler_T E, int priority);

/* The callback, given the handler and the event mask (1, 2 or 256). */
VESK_API void EventHandler_setHandler(EventHandler_T E,
                                      void (*handle_event)(EventHandler_T E, int events));

/* The owner's pointer. */
VESK_API void* Timer_getData(Timer_T T);
VESK_API void Timer_setData(Timer_T T, void* data);

/* The callback, given the timer. */
VESK_API void Timer_setHandler(Timer_T T, void (*handle_event)(Timer_T T));

/* The owner's pointer. */
VESK_API void* Periodic_getData(Periodic_T P);
VESK_API void Periodic_setData(Periodic_T P, void* data);

/* The next due time in whole seconds since the epoch. */
VESK_API time_t Periodic_nextRun(Periodic_T P);

/* The callback, given the periodic. */
VESK_API void Periodic_setHandler(Periodic_T P, void (*handle_event)(Periodic_T P));

/* The owner's pointer. */
VESK_API void* SignalHandler_getData(SignalHandler_T S);
VESK_API void SignalHandler_setData(SignalHandler_T S, void* data);

/* The event priority, -2 (lowest) to 2, applied at registration. */
VESK_API int SignalHandler_getPriority(SignalHandler_T S);
VESK_API void SignalHandler_setPriority(SignalHandler_T S, int priority);

/* The callback, given the handler and the signal number. */
VESK_API void SignalHandler_setHandler(SignalHandler_T S,
                                       void (*handle_event)(SignalHandler_T S, int signum));

VESK_END_DECLS

#endif
