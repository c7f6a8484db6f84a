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

#include "Support.hpp"

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
        void send(char c = 'x') const { EXPECT_EQ(write(fd[1], &c, 1), 1); }
};

void stopReactor(Timer_T) {
        Reactor_stop(Reactor_getInstance());
}

// Stops the loop after ms milliseconds.
void stopAfter(unsigned ms) {
        Reactor_T R = Reactor_getInstance();
        Timer_T t = Reactor_createTimer(R);
        Timer_setHandler(t, stopReactor);
        Reactor_scheduleTimer(R, t, ms, 0);
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
                stopAfter(guardMs);
                auto started = Clock::now();
                Reactor_start(R);
                EXPECT_LT(secondsSince(started), guardMs / 1000.0) << "stopped by the guard";
        }
};

}  // namespace

TEST_F(ReactorTest, SingletonLivesUntilFreed) {
        Reactor_free();
        Reactor_free();  // nothing left to free
        Reactor_T first = Reactor_getInstance();
        EXPECT_EQ(Reactor_getInstance(), first);
        // Stopping a Reactor that does not run leaves its lists alone.
        EXPECT_EQ(Reactor_scheduleTimer(first, Reactor_createTimer(first), 0, 0), -1);
        Reactor_stop(first);
        Timer_T t = Reactor_createTimer(first);
        Timer_setHandler(t, stopReactor);
        EXPECT_EQ(Reactor_scheduleTimer(first, t, 0, 0), 1);
}

TEST_F(ReactorTest, AbsentArgumentsAreNamed) {
        EXPECT_EQ(assertion([] { Reactor_start(nullptr); }), "R");
        EXPECT_EQ(assertion([] { Reactor_createHandler(nullptr, 1); }), "R");
        EXPECT_EQ(assertion([&] { Reactor_registerHandler(R, nullptr, 1); }), "handler");
        EXPECT_EQ(assertion([&] { Reactor_removeHandler(R, nullptr); }), "handler");
        EXPECT_EQ(assertion([&] { Reactor_scheduleTimer(R, nullptr, 1, 0); }), "timer");
        EXPECT_EQ(assertion([&] { Reactor_schedulePeriodic(R, nullptr, 1, 0); }), "periodic");
        EXPECT_EQ(assertion([&] { Reactor_registerSignalHandler(R, nullptr, SIGUSR1); }),
                  "handler");
        EXPECT_EQ(assertion([] { EventHandler_getData(nullptr); }), "E");
        EXPECT_EQ(assertion([] { Timer_setData(nullptr, nullptr); }), "T");
        EXPECT_EQ(assertion([] { Periodic_nextRun(nullptr); }), "P");
        EXPECT_EQ(assertion([] { SignalHandler_getPriority(nullptr); }), "S");
}

TEST_F(ReactorTest, SlotIsTheDescriptorBelowTheLimit) {
        int n = Reactor_getConcurrency(R);
        ASSERT_GT(n, 0);
        errno = 0;
        EXPECT_EQ(Reactor_createHandler(R, n), nullptr);
        EXPECT_EQ(errno, EMFILE);
        EXPECT_EQ(Reactor_createHandler(R, -1), nullptr);
        EXPECT_EQ(errno, EINVAL);
        EventHandler_T last = Reactor_createHandler(R, n - 1);
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(EventHandler_getHandle(last), n - 1);

        // The same descriptor gives the same slot, reset.
        EventHandler_T h = Reactor_createHandler(R, 7);
        int owner = 0;
        EventHandler_setData(h, &owner);
        EventHandler_setState(h, 3);
        EventHandler_setPersistent(h, 1);
        EventHandler_setTimeout(h, 5000);
        EventHandler_setPriority(h, 2);
        EXPECT_EQ(EventHandler_getPriority(h), 2);
        EXPECT_EQ(Reactor_createHandler(R, 7), h);
        EXPECT_EQ(EventHandler_getData(h), nullptr);
        EXPECT_EQ(EventHandler_getState(h), 0);
        EXPECT_EQ(EventHandler_getPersistent(h), 0);
        EXPECT_EQ(EventHandler_getTimeout(h), -1);
        EXPECT_EQ(EventHandler_getPriority(h), 0);
        EXPECT_EQ(EventHandler_getHandle(h), 7);

        EXPECT_EQ(assertion([&] { Reactor_registerHandler(R, h, Reactor_Read); }),
                  "handler->handle_event");
        EXPECT_NE(assertion([&] { EventHandler_setPriority(h, 3); }), "");
}

TEST(EventHandler, TimeoutHasWholeSecondGrain) {
        EventHandler_T h = Reactor_createHandler(Reactor_getInstance(), 3);
        const std::pair<int, int> cases[] = {{0, -1},      {-5, -1},     {500, -1},     {999, -1},
                                             {1000, 1000}, {1999, 1000}, {15000, 15000}};
        for (auto [ms, expected] : cases) {
                EventHandler_setTimeout(h, ms);
                EXPECT_EQ(EventHandler_getTimeout(h), expected) << ms;
        }
        Reactor_free();
}

namespace {

struct OneShot {
        int reads = 0;
        int writes = 0;
        std::vector<int> events;
};

void onWrite(EventHandler_T h, int events) {
        auto* s = static_cast<OneShot*>(EventHandler_getData(h));
        s->writes++;
        s->events.push_back(events);
        stopAfter(50);
}

void onRead(EventHandler_T h, int events) {
        auto* s = static_cast<OneShot*>(EventHandler_getData(h));
        s->reads++;
        s->events.push_back(events);
        // The byte is never read, so the socket stays readable: only the one-shot
        // disarming keeps this from being called again and again.
        if (s->reads == 3)
                EventHandler_setHandler(h, onWrite);
        Reactor_registerHandler(Reactor_getInstance(), h,
                                s->reads == 3 ? Reactor_Write : Reactor_Read);
}

}  // namespace

TEST_F(ReactorTest, OneShotHandlerGetsOneEventPerRegistration) {
        SocketPair pair;
        pair.send();
        OneShot state;
        EventHandler_T h = Reactor_createHandler(R, pair.fd[0]);
        EventHandler_setData(h, &state);
        EventHandler_setHandler(h, onRead);
        EXPECT_EQ(Reactor_registerHandler(R, h, Reactor_Read), 1);
        run();
        EXPECT_EQ(state.reads, 3);
        EXPECT_EQ(state.writes, 1);
        EXPECT_EQ(state.events, (std::vector<int>{1, 1, 1, 2}));
}

namespace {

struct Idle {
        SocketPair* pair;
        int reads = 0;
        int timeouts = 0;
        int written = 0;
        int writerId = -1;
        Clock::time_point lastRead;
        double quietBeforeTimeout = 0;
};

void onTraffic(EventHandler_T h, int events) {
        auto* s = static_cast<Idle*>(EventHandler_getData(h));
        if (events == Reactor_Timeout) {
                s->timeouts++;
                s->quietBeforeTimeout = secondsSince(s->lastRead);
                // The timeout disarmed the handler: this byte must go unnoticed.
                s->pair->send();
                stopAfter(200);
                return;
        }
        char c;
        EXPECT_EQ(read(EventHandler_getHandle(h), &c, 1), 1);
        s->reads++;
        s->lastRead = Clock::now();
}

void writeOne(Timer_T t) {
        auto* s = static_cast<Idle*>(Timer_getData(t));
        s->pair->send();
        if (++s->written == 2)
                Reactor_cancelTimer(Reactor_getInstance(), s->writerId);
}

}  // namespace

TEST_F(ReactorTest, PersistentHandlerTimesOutOnceAfterTrafficStops) {
        SocketPair pair;
        Idle state{&pair};
        state.lastRead = Clock::now();
        EventHandler_T h = Reactor_createHandler(R, pair.fd[0]);
        EventHandler_setData(h, &state);
        EventHandler_setHandler(h, onTraffic);
        EventHandler_setPersistent(h, 1);
        EventHandler_setTimeout(h, 1000);
        Reactor_registerHandler(R, h, Reactor_Read);
        Timer_T writer = Reactor_createTimer(R);
        Timer_setData(writer, &state);
        Timer_setHandler(writer, writeOne);
        state.writerId = Reactor_scheduleTimer(R, writer, 400, 400);
        run();
        EXPECT_EQ(state.reads, 2);
        EXPECT_EQ(state.timeouts, 1);
        // Each read restarted the one-second interval.
        EXPECT_GE(state.quietBeforeTimeout, 0.95);
}

namespace {

struct Reuse {
        Timer_T first = nullptr;
        Timer_T again = nullptr;
        Timer_T fresh = nullptr;
        int againId = -1;
};

void onceThenReuse(Timer_T t) {
        auto* s = static_cast<Reuse*>(Timer_getData(t));
        Reactor_T R = Reactor_getInstance();
        s->again = Reactor_createTimer(R);
        EXPECT_EQ(Timer_getData(s->again), nullptr);
        Timer_setHandler(s->again, stopReactor);
        s->againId = Reactor_scheduleTimer(R, s->again, 1, 0);
        s->fresh = Reactor_createTimer(R);
}

}  // namespace

TEST_F(ReactorTest, FiredOneShotTimerIsReusedCancelledIsNot) {
        Reuse state;
        state.first = Reactor_createTimer(R);
        Timer_setData(state.first, &state);
        Timer_setHandler(state.first, onceThenReuse);
        EXPECT_EQ(Reactor_scheduleTimer(R, state.first, 1, 0), 0);

        Timer_T cancelled = Reactor_createTimer(R);
        Timer_setHandler(cancelled, stopReactor);
        EXPECT_EQ(Reactor_scheduleTimer(R, cancelled, 10000, 0), 1);
        EXPECT_EQ(Reactor_cancelTimer(R, 1), 0);
        EXPECT_EQ(Reactor_cancelTimer(R, -1), 0);
        EXPECT_EQ(Reactor_cancelTimer(R, 2), 0);

        run();
        EXPECT_EQ(state.again, state.first);
        EXPECT_EQ(state.againId, 0);
        EXPECT_NE(state.fresh, cancelled);
        EXPECT_NE(state.fresh, state.first);
}

namespace {

struct Wall {
        int ticks = 0;
        int tickerId = -1;
        time_t nextRun = 0;
        Periodic_T once = nullptr;
        Periodic_T reused = nullptr;
};

void tick(Periodic_T p) {
        auto* s = static_cast<Wall*>(Periodic_getData(p));
        s->nextRun = Periodic_nextRun(p);
        if (++s->ticks == 3) {
                EXPECT_EQ(Reactor_cancelPeriodic(Reactor_getInstance(), s->tickerId), 0);
                stopAfter(100);
        }
}

void firedOnce(Periodic_T p) {
        auto* s = static_cast<Wall*>(Periodic_getData(p));
        s->reused = Reactor_createPeriodic(Reactor_getInstance());
}

}  // namespace

TEST_F(ReactorTest, PeriodicsFollowTheWallClock) {
        Wall state;
        Periodic_T ticker = Reactor_createPeriodic(R);
        Periodic_setData(ticker, &state);
        Periodic_setHandler(ticker, tick);
        state.tickerId = Reactor_schedulePeriodic(R, ticker, 0, 50);
        EXPECT_EQ(state.tickerId, 0);
        // Without an interval the offset is an absolute time, here long past: it fires at once.
        state.once = Reactor_createPeriodic(R);
        Periodic_setData(state.once, &state);
        Periodic_setHandler(state.once, firedOnce);
        EXPECT_EQ(Reactor_schedulePeriodic(R, state.once, 0, 0), 1);
        EXPECT_EQ(Reactor_schedulePeriodic(R, Reactor_createPeriodic(R), 0, 0), -1);
        run();
        EXPECT_EQ(state.ticks, 3);
        EXPECT_LE(std::abs(state.nextRun - time(nullptr)), 1);
        EXPECT_EQ(state.reused, state.once);
}

namespace {

struct Signalled {
        pthread_t loopThread;
        pthread_t handlerThread{};
        int signum = 0;
        std::thread sender;
};

void onSignal(SignalHandler_T s, int signum) {
        auto* st = static_cast<Signalled*>(SignalHandler_getData(s));
        st->handlerThread = pthread_self();
        st->signum = signum;
        Reactor_stop(Reactor_getInstance());
}

void sendFromAnotherThread(Timer_T t) {
        auto* st = static_cast<Signalled*>(Timer_getData(t));
        st->sender = std::thread([] { kill(getpid(), SIGUSR1); });
}

}  // namespace

TEST_F(ReactorTest, SignalRunsItsHandlerOnTheLoopThread) {
        Signalled state;
        state.loopThread = pthread_self();
        SignalHandler_T unset = Reactor_createSignalHandler(R);
        EXPECT_EQ(Reactor_registerSignalHandler(R, unset, SIGUSR1), 0);
        SignalHandler_T s = Reactor_createSignalHandler(R);
        SignalHandler_setData(s, &state);
        SignalHandler_setPriority(s, 2);
        EXPECT_EQ(SignalHandler_getPriority(s), 2);
        SignalHandler_setHandler(s, onSignal);
        EXPECT_EQ(Reactor_registerSignalHandler(R, s, SIGUSR1), 1);
        Timer_T t = Reactor_createTimer(R);
        Timer_setData(t, &state);
        Timer_setHandler(t, sendFromAnotherThread);
        Reactor_scheduleTimer(R, t, 1, 0);
        run();
        if (state.sender.joinable())
                state.sender.join();
        EXPECT_EQ(state.signum, SIGUSR1);
        EXPECT_TRUE(pthread_equal(state.handlerThread, state.loopThread));
}

namespace {

struct Restart {
        int nested = 0;
        int events = 0;
};

void startAgainThenStop(Timer_T t) {
        auto* s = static_cast<Restart*>(Timer_getData(t));
        Reactor_start(Reactor_getInstance());  // already running: returns at once
        s->nested++;
        Reactor_stop(Reactor_getInstance());
}

void countEvents(EventHandler_T h, int) {
        static_cast<Restart*>(EventHandler_getData(h))->events++;
}

}  // namespace

TEST_F(ReactorTest, StopDisarmsHandlersAndEmptiesTheLists) {
        SocketPair pair;
        Restart state;
        EventHandler_T h = Reactor_createHandler(R, pair.fd[0]);
        EventHandler_setData(h, &state);
        EventHandler_setHandler(h, countEvents);
        EventHandler_setPersistent(h, 1);
        Reactor_registerHandler(R, h, Reactor_Read);
        Timer_T t = Reactor_createTimer(R);
        Timer_setData(t, &state);
        Timer_setHandler(t, startAgainThenStop);
        Reactor_scheduleTimer(R, t, 1, 0);
        run();
        EXPECT_EQ(state.nested, 1);

        // The lists were emptied, and the handler no longer watches its socket.
        Timer_T first = Reactor_createTimer(R);
        Timer_setHandler(first, stopReactor);
        EXPECT_EQ(Reactor_scheduleTimer(R, first, 30, 0), 0);
        pair.send();
        run();
        EXPECT_EQ(state.events, 0);

        // With nothing to watch the loop ends by itself and can start again.
        Reactor_start(R);
        stopAfter(1);
        Reactor_start(R);
}
