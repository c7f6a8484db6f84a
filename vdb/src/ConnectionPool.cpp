#include <stdio.h>
#include <string.h>

#include <algorithm>

#include <vdb/ConnectionPool.h>

#include "Handles.hpp"

using vdb::Lock;

namespace {

// Connections taken out of the pool under its mutex and closed after it is released,
// since closing a network connection may wait on the server.
using Closing = std::vector<std::unique_ptr<Connection_S>>;

// Moves to closing the idle connections that no longer answer, and then those beyond the
// initial count that have been idle for at least idleSeconds, the longest idle first. Under
// the pool's mutex.
int takeReapable(ConnectionPool_S* P, Closing& closing, time_t idleSeconds) {
        auto& all = P->connections;
        time_t idleSince = vdb::now() - idleSeconds;
        closing.reserve(all.size());
        for (auto it = all.begin(); it != all.end();) {
                if (!(*it)->out && !(*it)->database->alive()) {
                        closing.push_back(std::move(*it));
                        it = all.erase(it);
                } else {
                        ++it;
                }
        }
        for (int excess = static_cast<int>(all.size()) - P->initialConnections; excess > 0;
             excess--) {
                auto oldest = all.end();
                for (auto it = all.begin(); it != all.end(); ++it)
                        if (!(*it)->out && (*it)->lastUsed <= idleSince &&
                            (oldest == all.end() || (*it)->lastUsed < (*oldest)->lastUsed))
                                oldest = it;
                if (oldest == all.end())
                        break;
                closing.push_back(std::move(*oldest));
                all.erase(oldest);
        }
        return static_cast<int>(closing.size());
}

void* reaper(void* pool) {
        auto P = static_cast<ConnectionPool_S*>(pool);
        try {
                Lock lock(P->mutex);
                struct timespec deadline;
                clock_gettime(CLOCK_MONOTONIC, &deadline);
                deadline.tv_sec += P->sweepInterval;
                while (P->started) {
                        P->wakeReaper.waitUntil(lock, deadline);
                        struct timespec now;
                        clock_gettime(CLOCK_MONOTONIC, &now);
                        if (!P->started || now.tv_sec < deadline.tv_sec ||
                            (now.tv_sec == deadline.tv_sec && now.tv_nsec < deadline.tv_nsec))
                                continue;
                        Closing closing;
                        takeReapable(P, closing, P->sweepInterval);
                        lock.unlock();
                        closing.clear();
                        lock.lock();
                        deadline = now;
                        deadline.tv_sec += P->sweepInterval;
                }
        } catch (const std::exception& e) {
                fprintf(stderr, "vdb: the connection reaper stopped -- %s\n", e.what());
        }
        return nullptr;
}

// Ends the reaper and closes the idle connections; those out are closed when given back.
void stopPool(ConnectionPool_S* P) {
        bool join;
        {
                Lock lock(P->mutex);
                P->started = false;
                join = P->reaperRunning;
                P->reaperRunning = false;
                P->wakeReaper.broadcast();
        }
        if (join)
                VDB_THREAD_CHECK(pthread_join(P->reaper, nullptr));
        // Closed under the mutex, which at a stop holds up no one, so that stopping needs no
        // memory and cannot fail.
        Lock lock(P->mutex);
        auto& all = P->connections;
        all.erase(std::partition(all.begin(), all.end(), [](const auto& c) { return c->out; }),
                  all.end());
}

// Gives back the reservation of a connection being opened unless settled under the mutex.
class Reservation {
public:
        explicit Reservation(ConnectionPool_S* P) : pool_(P) {}
        ~Reservation() {
                if (pool_) {
                        Lock lock(pool_->mutex);
                        pool_->opening--;
                }
        }
        Reservation(const Reservation&) = delete;
        Reservation& operator=(const Reservation&) = delete;
        // Under the pool's mutex.
        void settle() {
                pool_->opening--;
                pool_ = nullptr;
        }

private:
        ConnectionPool_S* pool_;
};

}  // namespace

namespace vdb {

time_t now() {
        struct timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return ts.tv_sec;
}

std::unique_ptr<Database> open(const DatabaseURL& url) {
        return url.protocol == DatabaseURL::SQLite ? openSQLite(url) : openPostgres(url);
}

void giveBack(Connection_S* C, bool reusable) {
        ConnectionPool_S* P = C->pool;
        std::unique_ptr<Connection_S> closing;
        Lock lock(P->mutex);
        if (reusable && P->started) {
                C->out = false;
                C->lastUsed = now();
                return;
        }
        auto& all = P->connections;
        for (auto it = all.begin(); it != all.end(); ++it) {
                if (it->get() == C) {
                        closing = std::move(*it);
                        all.erase(it);
                        break;
                }
        }
        lock.unlock();
}

}  // namespace vdb

ConnectionPool_T ConnectionPool_new(const char* url) {
        VDB_CHECK(url);
        return vdb::guard<ConnectionPool_T>(
            nullptr, nullptr, [&] { return std::make_unique<ConnectionPool_S>(url).release(); });
}

void ConnectionPool_free(ConnectionPool_T* P) {
        VDB_CHECK(P && *P);
        std::unique_ptr<ConnectionPool_S> pool(*P);
        *P = nullptr;
        stopPool(pool.get());
}

const char* ConnectionPool_getURL(ConnectionPool_T P) {
        VDB_CHECK(P);
        return P->url.c_str();
}

void ConnectionPool_setInitialConnections(ConnectionPool_T P, int connections) {
        VDB_CHECK(P);
        vdb::guard(P->abortHandler.load(), 0, [&] {
                if (connections < 0)
                        vdb::fail("vdb: initialConnections must not be negative (%d)", connections);
                Lock lock(P->mutex);
                P->initialConnections = connections;
                return 0;
        });
}

int ConnectionPool_getInitialConnections(ConnectionPool_T P) {
        VDB_CHECK(P);
        Lock lock(P->mutex);
        return P->initialConnections;
}

void ConnectionPool_setMaxConnections(ConnectionPool_T P, int maxConnections) {
        VDB_CHECK(P);
        vdb::guard(P->abortHandler.load(), 0, [&] {
                if (maxConnections < 0)
                        vdb::fail("vdb: maxConnections must not be negative (%d)", maxConnections);
                Lock lock(P->mutex);
                P->maxConnections = maxConnections;
                return 0;
        });
}

int ConnectionPool_getMaxConnections(ConnectionPool_T P) {
        VDB_CHECK(P);
        Lock lock(P->mutex);
        return P->maxConnections;
}

void ConnectionPool_setReaper(ConnectionPool_T P, int sweepIntervalSeconds) {
        VDB_CHECK(P);
        vdb::guard(P->abortHandler.load(), 0, [&] {
                if (sweepIntervalSeconds < 0)
                        vdb::fail("vdb: the reaper's interval must not be negative (%d)",
                                  sweepIntervalSeconds);
                Lock lock(P->mutex);
                P->sweepInterval = sweepIntervalSeconds;
                return 0;
        });
}

void ConnectionPool_setAbortHandler(ConnectionPool_T P, void (*abortHandler)(const char* error)) {
        VDB_CHECK(P);
        P->abortHandler = abortHandler;
}

int ConnectionPool_start(ConnectionPool_T P) {
        VDB_CHECK(P);
        return vdb::guard(P->abortHandler.load(), 0, [&] {
                int initial, most;
                {
                        Lock lock(P->mutex);
                        if (P->started)
                                return 1;
                        initial = P->initialConnections;
                        most = P->maxConnections;
                }
                if (initial > most)
                        vdb::fail(
                            "vdb: initialConnections (%d) is greater than maxConnections (%d)",
                            initial, most);
                vdb::DatabaseURL url = vdb::parseURL(P->url);
                Closing opened;
                opened.reserve(static_cast<size_t>(initial));
                for (int i = 0; i < initial; i++) {
                        opened.push_back(std::make_unique<Connection_S>(P, vdb::open(url)));
                        opened.back()->lastUsed = vdb::now();
                }
                Lock lock(P->mutex);
                if (P->started)
                        return 1;
                P->connections.reserve(P->connections.size() + opened.size());
                P->parsed = std::move(url);
                P->started = true;
                if (P->sweepInterval > 0) {
                        int status = pthread_create(&P->reaper, nullptr, reaper, P);
                        if (status != 0) {
                                P->started = false;
                                vdb::fail("vdb: cannot start the connection reaper -- %s",
                                          strerror(status));
                        }
                        P->reaperRunning = true;
                }
                for (auto& c : opened)
                        P->connections.push_back(std::move(c));
                return 1;
        });
}

void ConnectionPool_stop(ConnectionPool_T P) {
        VDB_CHECK(P);
        stopPool(P);
}

Connection_T ConnectionPool_getConnection(ConnectionPool_T P) {
        VDB_CHECK(P);
        return vdb::guard<Connection_T>(P->abortHandler.load(), nullptr, [&]() -> Connection_T {
                Closing dead;
                vdb::DatabaseURL url;
                {
                        Lock lock(P->mutex);
                        if (!P->started)
                                vdb::fail(
                                    "vdb: ConnectionPool_getConnection on a pool that is "
                                    "not started");
                        auto& all = P->connections;
                        dead.reserve(all.size());
                        for (auto it = all.begin(); it != all.end();) {
                                Connection_S* c = it->get();
                                if (c->out) {
                                        ++it;
                                } else if (c->database->alive()) {
                                        c->out = true;
                                        return c;
                                } else {
                                        dead.push_back(std::move(*it));
                                        it = all.erase(it);
                                }
                        }
                        if (static_cast<int>(all.size()) + P->opening >= P->maxConnections)
                                return nullptr;
                        url = P->parsed;
                        P->opening++;
                }
                Reservation reservation(P);
                std::unique_ptr<Connection_S> fresh;
                try {
                        fresh = std::make_unique<Connection_S>(P, vdb::open(url));
                } catch (const vdb::SQLError& e) {
                        fprintf(stderr, "%s\n", e.what());
                        return nullptr;
                }
                fresh->out = true;
                Lock lock(P->mutex);
                reservation.settle();
                if (!P->started)
                        return nullptr;
                P->connections.push_back(std::move(fresh));
                return P->connections.back().get();
        });
}

int ConnectionPool_reapConnections(ConnectionPool_T P) {
        VDB_CHECK(P);
        return vdb::guard(P->abortHandler.load(), 0, [&] {
                Closing closing;
                Lock lock(P->mutex);
                int n = takeReapable(P, closing, 0);
                lock.unlock();
                return n;
        });
}

int ConnectionPool_size(ConnectionPool_T P) {
        VDB_CHECK(P);
        Lock lock(P->mutex);
        return static_cast<int>(P->connections.size());
}

int ConnectionPool_active(ConnectionPool_T P) {
        VDB_CHECK(P);
        Lock lock(P->mutex);
        int n = 0;
        for (const auto& c : P->connections)
                n += c->out;
        return n;
}
