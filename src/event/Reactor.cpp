#include <errno.h>
#include <pthread.h>
#include <limits.h>
#include <stddef.h>

#include <atomic>

#include <ev.h>

#include <vesk/Error.h>
#include <vesk/Mem.h>
#include <vesk/Container.h>
#include <vesk/Reactor.h>
#include <vesk/Vector.h>

#include "thread/Lock.hpp"

// The watcher stands first in each record, so the watcher pointer that libev hands a
// callback is the record itself.
struct EventHandler_S {
        ev_io io;
        ev_timer timer;  // right behind io: the timeout callback steps back over one ev_io
        double timeout;  // seconds; only a value above 0.0 arms the timer
        int persistent;
        int state;
        void* data;
        int handle;
        int fresh;  // the descriptor may be new to the backend: told so at the next register
        int priority;
        void (*handle_event)(EventHandler_T handler, int events);
};

struct Timer_S {
        ev_timer watcher;
        int id;
        void* data;
        int reusable;
        void (*handle_event)(Timer_T timer);
};

struct Periodic_S {
        ev_periodic watcher;
        int id;
        void* data;
        int reusable;
        void (*handle_event)(Periodic_T periodic);
};

struct SignalHandler_S {
        ev_signal watcher;
        void* data;
        int reusable;
        int priority;
        void (*handle_event)(SignalHandler_T handler, int signum);
};

struct Reactor_S {
        int stopped;
        int concurrency;
        Vector_T timers;
        Vector_T periodics;
        Vector_T signals;
        struct ev_loop* loop;
        EventHandler_S handlers[];  // concurrency slots, in the Reactor's own block
};

static_assert(offsetof(EventHandler_S, timer) == sizeof(ev_io),
              "the inactivity timer must follow the io watcher");

namespace {

// Read without the lock on the fast path, so published with release and read with acquire.
std::atomic<Reactor_T> instance{nullptr};
pthread_mutex_t instanceMutex = PTHREAD_MUTEX_INITIALIZER;

// The number of handler slots, and so the highest descriptor number plus one that a
// connection may have.
const char* backendName(unsigned backend) {
        switch (backend) {
        case EVBACKEND_SELECT:
                return "select";
        case EVBACKEND_POLL:
                return "poll";
        case EVBACKEND_EPOLL:
                return "epoll";
        case EVBACKEND_KQUEUE:
                return "kqueue";
        case EVBACKEND_DEVPOLL:
                return "devpoll";
        case EVBACKEND_PORT:
                return "port";
        default:
                return "unknown";
        }
}

void io_adapter(struct ev_loop* loop, ev_io* w, int revents) {
        EventHandler_T h = reinterpret_cast<EventHandler_T>(w);
        assert(w->fd == h->handle);
        if (!h->persistent) {
                // Disarmed in full before the callback, which may then register it again.
                ev_timer_stop(loop, &h->timer);
                ev_io_stop(loop, w);
        } else if (h->timeout > 0.0) {
                ev_now_update(loop);
                ev_timer_again(loop, &h->timer);
        }
        h->handle_event(h, revents);
}

void iotimeout_adapter(struct ev_loop* loop, ev_timer* w, int revents) {
        EventHandler_T h = reinterpret_cast<EventHandler_T>(reinterpret_cast<ev_io*>(w) - 1);
        ev_io_stop(loop, &h->io);
        ev_timer_stop(loop, w);
        h->handle_event(h, revents);
}

void timer_adapter(struct ev_loop*, ev_timer* w, int) {
        Timer_T t = reinterpret_cast<Timer_T>(w);
        if (w->repeat == 0.0)
                t->reusable = 1;
        // The callback may stop the Reactor, which frees t: nothing may touch it afterwards.
        t->handle_event(t);
}

void periodic_adapter(struct ev_loop*, ev_periodic* w, int) {
        Periodic_T p = reinterpret_cast<Periodic_T>(w);
        if (!w->reschedule_cb && w->interval == 0.0)
                p->reusable = 1;
        p->handle_event(p);
}

void signal_adapter(struct ev_loop*, ev_signal* w, int) {
        SignalHandler_T s = reinterpret_cast<SignalHandler_T>(w);
        s->handle_event(s, w->signum);
}

// The first record that has fired for good, or a new one at the end of list.
template <typename Record>
Record* obtain(Vector_T list) {
        Record* r = nullptr;
        int n = Vector_size(list);
        for (int i = 0; i < n; i++) {
                auto* candidate = static_cast<Record*>(Vector_get(list, i));
                if (candidate->reusable) {
                        r = candidate;
                        r->id = i;
                        break;
                }
        }
        if (!r) {
                NEW0(r);
                r->id = n;
                Vector_push(list, r);
        }
        r->data = nullptr;
        r->reusable = 0;
        r->handle_event = nullptr;
        return r;
}

// Stops and frees every record of the three lists.
void releaseAll(Reactor_T R) {
        while (!Vector_isEmpty(R->timers)) {
                auto* t = static_cast<Timer_T>(Vector_pop(R->timers));
                ev_timer_stop(R->loop, &t->watcher);
                FREE(t);
        }
        assert(Vector_isEmpty(R->timers));
        while (!Vector_isEmpty(R->periodics)) {
                auto* p = static_cast<Periodic_T>(Vector_pop(R->periodics));
                ev_periodic_stop(R->loop, &p->watcher);
                FREE(p);
        }
        assert(Vector_isEmpty(R->periodics));
        while (!Vector_isEmpty(R->signals)) {
                auto* s = static_cast<SignalHandler_T>(Vector_pop(R->signals));
                ev_signal_stop(R->loop, &s->watcher);
                FREE(s);
        }
        assert(Vector_isEmpty(R->signals));
}

void checkPriority(int priority) {
        assert(priority >= EV_MINPRI && priority <= EV_MAXPRI);
}

}  // namespace

/* ------------------------------------------------------------------ Singleton */

Reactor_T Reactor_getInstance(void) {
        Reactor_T R = instance.load(std::memory_order_acquire);
        if (!R) {
                vesk::Lock lock(instanceMutex);
                R = instance.load(std::memory_order_relaxed);
                if (!R) {
                        int slots = Container_Concurrency;
                        long bytes =
                            sizeof(Reactor_S) + static_cast<long>(sizeof(EventHandler_S)) * slots;
                        assert(slots > 0 && bytes <= INT_MAX);
                        struct ev_loop* loop = ev_default_loop(0);
                        if (!loop)
                                THROW(AssertException, "Cannot create the event loop\n");
                        R = static_cast<Reactor_T>(CALLOC(1, static_cast<int>(bytes)));
                        R->loop = loop;
                        R->concurrency = slots;
                        R->timers = Vector_new(8);
                        R->periodics = Vector_new(8);
                        R->signals = Vector_new(4);
                        R->stopped = 1;
                        instance.store(R, std::memory_order_release);
                }
        }
        return R;
}

void Reactor_free(void) {
        if (!instance.load(std::memory_order_acquire))
                return;
        vesk::Lock lock(instanceMutex);
        Reactor_T R = instance.load(std::memory_order_relaxed);
        if (R) {
                Reactor_stop(R);
                // A loop that never ran, or ran out of watchers, may still hold records.
                releaseAll(R);
                ev_loop_destroy(R->loop);
                Vector_free(&R->timers);
                Vector_free(&R->periodics);
                Vector_free(&R->signals);
                FREE(R);
                instance.store(nullptr, std::memory_order_release);
        }
}

void Reactor_start(Reactor_T R) {
        assert(R);
        if (!R->stopped)
                return;
        R->stopped = 0;
        Error_debug("Starting Reactor using %s (max concurrent connections = %d)\n",
                    backendName(ev_backend(R->loop)), R->concurrency);
        ev_run(R->loop, 0);
        // The loop also ends when nothing is left to watch; the Reactor can then start again.
        R->stopped = 1;
}

void Reactor_stop(Reactor_T R) {
        assert(R);
        if (R->stopped)
                return;
        for (int i = 0; i < R->concurrency; i++) {
                EventHandler_T h = &R->handlers[i];
                if (ev_is_active(&h->io)) {
                        ev_io_stop(R->loop, &h->io);
                        ev_timer_stop(R->loop, &h->timer);
                }
        }
        releaseAll(R);
        ev_break(R->loop, EVBREAK_ALL);
        R->stopped = 1;
        Error_debug("Reactor stopped\n");
}

int Reactor_getConcurrency(Reactor_T R) {
        assert(R);
        return R->concurrency;
}

/* --------------------------------------------------------------- I/O handlers */

EventHandler_T Reactor_createHandler(Reactor_T R, int handle) {
        assert(R);
        if (handle >= R->concurrency) {
                errno = EMFILE;
                Error_debug("Reached max concurrent connection\n");
                return nullptr;
        }
        if (handle < 0) {
                errno = EINVAL;
                Error_debug("Invalid value for handle - %d\n", handle);
                return nullptr;
        }
        EventHandler_T h = &R->handlers[handle];
        // A slot left armed by a descriptor that was closed must not deliver the old
        // descriptor's events to the new owner.
        ev_io_stop(R->loop, &h->io);
        ev_timer_stop(R->loop, &h->timer);
        h->persistent = 0;
        h->state = 0;
        h->data = nullptr;
        h->priority = 0;
        h->handle_event = nullptr;
        h->timeout = -1.0;
        h->handle = handle;
        h->fresh = 1;
        return h;
}

int Reactor_registerHandler(Reactor_T R, EventHandler_T handler, int events) {
        assert(R);
        assert(handler);
        assert(handler->handle_event);
        // Registering an armed handler again replaces its registration; libev must never
        // see an active watcher initialised anew.
        ev_io_stop(R->loop, &handler->io);
        ev_timer_stop(R->loop, &handler->timer);
        // A slot is reused for a new connection on the same descriptor number, so the
        // backend is told to treat the descriptor as new once after each create (ev_io_init
        // does). Telling it on every re-arm of a kept connection would cost a failing
        // system call each time.
        if (handler->fresh || handler->io.fd != handler->handle) {
                ev_io_init(&handler->io, io_adapter, handler->handle, events);
                handler->fresh = 0;
        } else {
                ev_io_modify(&handler->io, events);
        }
        ev_set_priority(&handler->io, handler->priority);
        ev_io_start(R->loop, &handler->io);
        if (handler->timeout > 0.0) {
                // Measured from now, not from the start of the loop iteration.
                ev_now_update(R->loop);
                ev_timer_init(&handler->timer, iotimeout_adapter, handler->timeout,
                              handler->timeout);
                ev_set_priority(&handler->timer, handler->priority);
                ev_timer_start(R->loop, &handler->timer);
        }
        return 1;
}

void Reactor_removeHandler(Reactor_T R, EventHandler_T handler) {
        assert(R);
        assert(handler);
        ev_io_stop(R->loop, &handler->io);
        ev_timer_stop(R->loop, &handler->timer);
        handler->persistent = 0;
        handler->state = 0;
        handler->data = nullptr;
        handler->handle_event = nullptr;
        handler->timeout = -1.0;
}

/* ------------------------------------------------------------------- Timers */

Timer_T Reactor_createTimer(Reactor_T R) {
        assert(R);
        return obtain<Timer_S>(R->timers);
}

int Reactor_scheduleTimer(Reactor_T R, Timer_T timer, unsigned after, unsigned repeat) {
        assert(R);
        assert(timer);
        if (!timer->handle_event) {
                Error_debug("No handle_event method set in timer - 0x%p\n",
                            static_cast<void*>(timer));
                return -1;
        }
        timer->reusable = 0;
        ev_timer_stop(R->loop, &timer->watcher);
        ev_now_update(R->loop);
        ev_timer_init(&timer->watcher, timer_adapter, after / 1000.0, repeat / 1000.0);
        ev_timer_start(R->loop, &timer->watcher);
        return timer->id;
}

int Reactor_cancelTimer(Reactor_T R, int id) {
        assert(R);
        if (id < 0 || id >= Vector_size(R->timers))
                return 0;
        Timer_T t = static_cast<Timer_T>(Vector_get(R->timers, id));
        ev_timer_stop(R->loop, &t->watcher);
        // A stopped watcher is inactive, so a cancelled timer is never handed out again:
        // only a one-shot that has fired is reused.
        t->reusable = ev_is_active(&t->watcher);
        return t->reusable;
}

Periodic_T Reactor_createPeriodic(Reactor_T R) {
        assert(R);
        return obtain<Periodic_S>(R->periodics);
}

int Reactor_schedulePeriodic(Reactor_T R, Periodic_T periodic, unsigned offset, unsigned interval) {
        assert(R);
        assert(periodic);
        if (!periodic->handle_event) {
                Error_debug("No handle_event method set in periodic - 0x%p\n",
                            static_cast<void*>(periodic));
                return -1;
        }
        periodic->reusable = 0;
        ev_periodic_stop(R->loop, &periodic->watcher);
        ev_periodic_init(&periodic->watcher, periodic_adapter, offset / 1000.0, interval / 1000.0,
                         nullptr);
        ev_periodic_start(R->loop, &periodic->watcher);
        return periodic->id;
}

int Reactor_cancelPeriodic(Reactor_T R, int id) {
        assert(R);
        if (id < 0 || id >= Vector_size(R->periodics))
                return 0;
        Periodic_T p = static_cast<Periodic_T>(Vector_get(R->periodics, id));
        ev_periodic_stop(R->loop, &p->watcher);
        p->reusable = ev_is_active(&p->watcher);
        return p->reusable;
}

/* ------------------------------------------------------------------ Signals */

SignalHandler_T Reactor_createSignalHandler(Reactor_T R) {
        assert(R);
        SignalHandler_T s;
        NEW0(s);
        Vector_push(R->signals, s);
        return s;
}

int Reactor_registerSignalHandler(Reactor_T R, SignalHandler_T handler, int signum) {
        assert(R);
        assert(handler);
        if (!handler->handle_event) {
                Error_debug("No handle_event method set in handler - 0x%p\n",
                            static_cast<void*>(handler));
                return 0;
        }
        assert(signum > 0 && signum < NSIG);
        handler->reusable = 0;
        ev_signal_stop(R->loop, &handler->watcher);
        ev_signal_init(&handler->watcher, signal_adapter, signum);
        ev_set_priority(&handler->watcher, handler->priority);
        ev_signal_start(R->loop, &handler->watcher);
        return 1;
}

void Reactor_removeSignalHandler(Reactor_T R, SignalHandler_T handler) {
        assert(R);
        assert(handler);
        ev_signal_stop(R->loop, &handler->watcher);
        handler->reusable = 1;
}

/* -------------------------------------------------------------- Accessors */

int EventHandler_getHandle(EventHandler_T E) {
        assert(E);
        return E->handle;
}

int EventHandler_getState(EventHandler_T E) {
        assert(E);
        return E->state;
}

void EventHandler_setState(EventHandler_T E, int state) {
        assert(E);
        E->state = state;
}

int EventHandler_getPersistent(EventHandler_T E) {
        assert(E);
        return E->persistent;
}

void EventHandler_setPersistent(EventHandler_T E, int persistent) {
        assert(E);
        E->persistent = persistent;
}

void* EventHandler_getData(EventHandler_T E) {
        assert(E);
        return E->data;
}

void EventHandler_setData(EventHandler_T E, void* data) {
        assert(E);
        E->data = data;
}

int EventHandler_getTimeout(EventHandler_T E) {
        assert(E);
        if (E->timeout > 0.0)
                return static_cast<int>(E->timeout * 1000);
        return -1;
}

void EventHandler_setTimeout(EventHandler_T E, int ms) {
        assert(E);
        // Whole seconds: the connector counts a read budget down by 1000 ms at a time, and
        // anything below a second arms no timer at all.
        E->timeout = ms < 1 ? -1.0 : static_cast<double>(ms / 1000);
}

int EventHandler_getPriority(EventHandler_T E) {
        assert(E);
        return E->priority;
}

void EventHandler_setPriority(EventHandler_T E, int priority) {
        assert(E);
        checkPriority(priority);
        E->priority = priority;
}

void EventHandler_setHandler(EventHandler_T E, void (*handle_event)(EventHandler_T, int)) {
        assert(E);
        E->handle_event = handle_event;
}

void* Timer_getData(Timer_T T) {
        assert(T);
        return T->data;
}

void Timer_setData(Timer_T T, void* data) {
        assert(T);
        T->data = data;
}

void Timer_setHandler(Timer_T T, void (*handle_event)(Timer_T)) {
        assert(T);
        T->handle_event = handle_event;
}

void* Periodic_getData(Periodic_T P) {
        assert(P);
        return P->data;
}

void Periodic_setData(Periodic_T P, void* data) {
        assert(P);
        P->data = data;
}

time_t Periodic_nextRun(Periodic_T P) {
        assert(P);
        return static_cast<time_t>(ev_periodic_at(&P->watcher));
}

void Periodic_setHandler(Periodic_T P, void (*handle_event)(Periodic_T)) {
        assert(P);
        P->handle_event = handle_event;
}

void* SignalHandler_getData(SignalHandler_T S) {
        assert(S);
        return S->data;
}

void SignalHandler_setData(SignalHandler_T S, void* data) {
        assert(S);
        S->data = data;
}

int SignalHandler_getPriority(SignalHandler_T S) {
        assert(S);
        return S->priority;
}

void SignalHandler_setPriority(SignalHandler_T S, int priority) {
        assert(S);
        checkPriority(priority);
        S->priority = priority;
}

void SignalHandler_setHandler(SignalHandler_T S, void (*handle_event)(SignalHandler_T, int)) {
        assert(S);
        S->handle_event = handle_event;
}
