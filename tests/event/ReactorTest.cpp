#include <gtest/gtest.h>

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include <vesk/Reactor.h>

#include "support/Support.hpp"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t) {
        return std::chrono::duration<double>(Clock::now() - t).count();
}

// A connected pair of stream sockets, closed at the end of the scope.
struct SocketPair {
        int fd[2] = {-1, -1};
        SocketPair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
        ~SocketPair() {
                close(fd[0]);
                close(fd[1]);
        }
        void send() const { EXPECT_EQ(write(fd[1], "x", 1), 1); }
};

void stopReactor(Timer_T) {
        Reactor_stop(Reactor_getInstance());
}

// A timer of the singleton with data and callback; returns its id.
int timer(unsigned after, unsigned repeat, void (*f)(Timer_T), void* data = nullptr) {
        Reactor_T R = Reactor_getInstance();
        Timer_T t = Reactor_createTimer(R);
        Timer_setData(t, data);
        Timer_setHandler(t, f);
        return Reactor_scheduleTimer(R, t, after, repeat);
}

// Each test starts from a fresh Reactor and leaves none behind.
class ReactorTest : public testing::Test {
protected:
        Reactor_T R = Reactor_getInstance();
        void TearDown() override {
                Reactor_free();
                EXPECT_TRUE(stackEmpty());
        }
        // Runs the loop; a guard stops it should the test's own stop never come.
        void run(unsigned guardMs = 5000) {
                timer(guardMs, 0, stopReactor);
                auto started = Clock::now();
                Reactor_start(R);
                EXPECT_LT(secondsSince(started), guardMs / 1000.0) << "stopped by the guard";
        }
        EventHandler_T handler(int fd, void* data, void (*f)(EventHandler_T, int)) {
                EventHandler_T h = Reactor_createHandler(R, fd);
                EventHandler_setData(h, data);
                EventHandler_setHandler(h, f);
                return h;
        }
};

}  // namespace

TEST_F(ReactorTest, SingletonAndChecks) {
        Reactor_free();
        Reactor_free();  // nothing left to free
        R = Reactor_getInstance();
        EXPECT_EQ(Reactor_getInstance(), R);
        // Stopping a Reactor that does not run leaves its lists alone.
        EXPECT_EQ(Reactor_scheduleTimer(R, Reactor_createTimer(R), 0, 0), -1);
        Reactor_stop(R);
        EXPECT_EQ(timer(0, 0, stopReactor), 1);
}

TEST_F(ReactorTest, SlotIsTheDescriptorBelowTheLimit) {
        int n = Reactor_getConcurrency(R);
        ASSERT_GT(n, 0);
        errno = 0;
        EXPECT_EQ(Reactor_createHandler(R, n), nullptr);
        EXPECT_EQ(errno, EMFILE);
        EXPECT_EQ(Reactor_createHandler(R, -1), nullptr);
        EXPECT_EQ(errno, EINVAL);
        ASSERT_NE(Reactor_createHandler(R, n - 1), nullptr);
        EXPECT_EQ(EventHandler_getHandle(Reactor_createHandler(R, n - 1)), n - 1);

        // The same descriptor gives the same slot, reset.
        EventHandler_T h = handler(7, &n, nullptr);
        EventHandler_setState(h, 3);
        EventHandler_setPersistent(h, 1);
        EventHandler_setTimeout(h, 5000);
        EventHandler_setPriority(h, 2);
        EXPECT_EQ(Reactor_createHandler(R, 7), h);
        EXPECT_EQ(EventHandler_getData(h), nullptr);
        EXPECT_EQ(EventHandler_getState(h), 0);
        EXPECT_EQ(EventHandler_getPersistent(h), 0);
        EXPECT_EQ(EventHandler_getTimeout(h), -1);
        EXPECT_EQ(EventHandler_getPriority(h), 0);
        EXPECT_EQ(assertion([&] { Reactor_registerHandler(R, h, Reactor_Read); }),
                  "handler->handle_event");
        EXPECT_NE(assertion([&] { EventHandler_setPriority(h, 3); }), "");

        // The timeout is kept in whole seconds; under one second there is none.
        const std::pair<int, int> cases[] = {{0, -1},      {-5, -1},     {500, -1},     {999, -1},
                                             {1000, 1000}, {1999, 1000}, {15000, 15000}};
        for (auto [ms, expected] : cases) {
                EventHandler_setTimeout(h, ms);
                EXPECT_EQ(EventHandler_getTimeout(h), expected) << ms;
        }
}

TEST_F(ReactorTest, OneShotHandlerGetsOneEventPerRegistration) {
        struct OneShot {
                int reads = 0;
                std::vector<int> events;
        };
        SocketPair pair;
        pair.send();  // never read, so the socket stays readable
        OneShot state;
        EventHandler_T h = handler(pair.fd[0], &state, [](EventHandler_T h, int events) {
                auto* s = static_cast<OneShot*>(EventHandler_getData(h));
                s->events.push_back(events);
                // Only the disarming keeps a level-triggered event from coming again and again.
                if (++s->reads < 3) {
                        Reactor_registerHandler(Reactor_getInstance(), h, Reactor_Read);
                        return;
                }
                EventHandler_setHandler(h, [](EventHandler_T h, int events) {
                        static_cast<OneShot*>(EventHandler_getData(h))->events.push_back(events);
                        timer(50, 0, stopReactor);
                });
                Reactor_registerHandler(Reactor_getInstance(), h, Reactor_Write);
        });
        EXPECT_EQ(Reactor_registerHandler(R, h, Reactor_Read), 1);
        run();
        EXPECT_EQ(state.events, (std::vector<int>{1, 1, 1, 2}));
}

TEST_F(ReactorTest, PersistentHandlerTimesOutOnceAfterTrafficStops) {
        struct Idle {
                SocketPair* pair;
                int reads = 0;
                int timeouts = 0;
                int written = 0;
                int writerId = -1;
                Clock::time_point lastRead = Clock::now();
                double quietBeforeTimeout = 0;
        };
        SocketPair pair;
        Idle state{&pair};
        EventHandler_T h = handler(pair.fd[0], &state, [](EventHandler_T h, int events) {
                auto* s = static_cast<Idle*>(EventHandler_getData(h));
                if (events == Reactor_Timeout) {
                        s->timeouts++;
                        s->quietBeforeTimeout = secondsSince(s->lastRead);
                        s->pair->send();  // the timeout disarmed the handler: goes unnoticed
                        timer(200, 0, stopReactor);
                        return;
                }
                char c;
                EXPECT_EQ(read(EventHandler_getHandle(h), &c, 1), 1);
                s->reads++;
                s->lastRead = Clock::now();
        });
        EventHandler_setPersistent(h, 1);
        EventHandler_setTimeout(h, 1000);
        Reactor_registerHandler(R, h, Reactor_Read);
        auto writeTwice = [](Timer_T t) {
                auto* s = static_cast<Idle*>(Timer_getData(t));
                s->pair->send();
                if (++s->written == 2) {
                        EXPECT_EQ(Reactor_cancelTimer(Reactor_getInstance(), s->writerId), 0);
                }
        };
        state.writerId = timer(400, 400, writeTwice, &state);
        run();
        EXPECT_EQ(state.reads, 2);
        EXPECT_EQ(state.timeouts, 1);
        // Each read restarted the one-second interval.
        EXPECT_GE(state.quietBeforeTimeout, 0.95);
}

TEST_F(ReactorTest, FiredOneShotTimerIsReusedCancelledIsNot) {
        struct Reuse {
                Timer_T first = nullptr;
                Timer_T again = nullptr;
                int againId = -1;
                int freshId = -1;
        };
        Reuse state;
        state.first = Reactor_createTimer(R);
        Timer_setData(state.first, &state);
        Timer_setHandler(state.first, [](Timer_T t) {
                auto* s = static_cast<Reuse*>(Timer_getData(t));
                s->again = Reactor_createTimer(Reactor_getInstance());
                EXPECT_EQ(Timer_getData(s->again), nullptr);
                Timer_setHandler(s->again, stopReactor);
                s->againId = Reactor_scheduleTimer(Reactor_getInstance(), s->again, 1, 0);
                s->freshId = timer(10000, 0, stopReactor);
        });
        EXPECT_EQ(Reactor_scheduleTimer(R, state.first, 1, 0), 0);
        EXPECT_EQ(timer(10000, 0, stopReactor), 1);
        EXPECT_EQ(Reactor_cancelTimer(R, 1), 0);
        EXPECT_EQ(Reactor_cancelTimer(R, -1), 0);
        EXPECT_EQ(Reactor_cancelTimer(R, 2), 0);  // the list's size
        run();                                    // its guard is timer 2
        EXPECT_EQ(state.again, state.first);
        EXPECT_EQ(state.againId, 0);
        EXPECT_EQ(state.freshId, 3);  // the cancelled timer 1 was not handed out again
}

TEST_F(ReactorTest, PeriodicsFollowTheWallClock) {
        struct Wall {
                int ticks = 0;
                int tickerId = -1;
                time_t nextRun = 0;
                Periodic_T once = nullptr;
                Periodic_T reused = nullptr;
        };
        Wall state;
        Periodic_T ticker = Reactor_createPeriodic(R);
        Periodic_setData(ticker, &state);
        Periodic_setHandler(ticker, [](Periodic_T p) {
                auto* s = static_cast<Wall*>(Periodic_getData(p));
                s->nextRun = Periodic_nextRun(p);
                if (++s->ticks == 3) {
                        EXPECT_EQ(Reactor_cancelPeriodic(Reactor_getInstance(), s->tickerId), 0);
                        timer(100, 0, stopReactor);
                }
        });
        state.tickerId = Reactor_schedulePeriodic(R, ticker, 0, 50);
        EXPECT_EQ(state.tickerId, 0);
        // Without an interval the offset is an absolute time, here long past: it fires at once.
        state.once = Reactor_createPeriodic(R);
        Periodic_setData(state.once, &state);
        Periodic_setHandler(state.once, [](Periodic_T p) {
                auto* s = static_cast<Wall*>(Periodic_getData(p));
                s->reused = Reactor_createPeriodic(Reactor_getInstance());
        });
        EXPECT_EQ(Reactor_schedulePeriodic(R, state.once, 0, 0), 1);
        EXPECT_EQ(Reactor_schedulePeriodic(R, Reactor_createPeriodic(R), 0, 0), -1);
        run();
        EXPECT_EQ(state.ticks, 3);
        EXPECT_LE(std::abs(state.nextRun - time(nullptr)), 1);
        EXPECT_EQ(state.reused, state.once);
}

TEST_F(ReactorTest, SignalRunsItsHandlerOnTheLoopThread) {
        struct Signalled {
                pthread_t loopThread = pthread_self();
                pthread_t handlerThread{};
                int signum = 0;
                std::thread sender;
        };
        Signalled state;
        SignalHandler_T unset = Reactor_createSignalHandler(R);
        EXPECT_EQ(Reactor_registerSignalHandler(R, unset, SIGUSR1), 0);
        SignalHandler_T s = Reactor_createSignalHandler(R);
        SignalHandler_setData(s, &state);
        SignalHandler_setPriority(s, 2);
        EXPECT_EQ(SignalHandler_getPriority(s), 2);
        SignalHandler_setHandler(s, [](SignalHandler_T s, int signum) {
                auto* st = static_cast<Signalled*>(SignalHandler_getData(s));
                st->handlerThread = pthread_self();
                st->signum = signum;
                Reactor_stop(Reactor_getInstance());
        });
        EXPECT_EQ(Reactor_registerSignalHandler(R, s, SIGUSR1), 1);
        auto sendFromAnotherThread = [](Timer_T t) {
                static_cast<Signalled*>(Timer_getData(t))->sender =
                    std::thread([] { kill(getpid(), SIGUSR1); });
        };
        timer(1, 0, sendFromAnotherThread, &state);
        run();
        if (state.sender.joinable())
                state.sender.join();
        EXPECT_EQ(state.signum, SIGUSR1);
        EXPECT_TRUE(pthread_equal(state.handlerThread, state.loopThread));
}

TEST_F(ReactorTest, StopDisarmsHandlersAndEmptiesTheLists) {
        SocketPair pair;
        int events = 0;
        EventHandler_T h = handler(pair.fd[0], &events, [](EventHandler_T h, int) {
                ++*static_cast<int*>(EventHandler_getData(h));
        });
        EventHandler_setPersistent(h, 1);
        Reactor_registerHandler(R, h, Reactor_Read);
        static int nested;
        nested = 0;
        timer(1, 0, [](Timer_T) {
                Reactor_start(Reactor_getInstance());  // already running: returns at once
                nested++;
                Reactor_stop(Reactor_getInstance());
        });
        run();
        EXPECT_EQ(nested, 1);

        // The lists were emptied, and the handler no longer watches its socket.
        EXPECT_EQ(timer(30, 0, stopReactor), 0);
        pair.send();
        run();
        EXPECT_EQ(events, 0);

        // With nothing to watch the loop ends by itself and can start again.
        Reactor_start(R);
        timer(1, 0, stopReactor);
        Reactor_start(R);
}
