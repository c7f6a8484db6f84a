// Threads for tests that must show that a call blocks, without sleeping and hoping: the
// thread's kernel state tells when it waits on a lock or a condition, or sleeps in a polling
// loop.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

// Whether thread tid of this process is waiting: in a futex, as a thread blocked on a mutex
// or a condition variable is, or asleep between the polls of a loop.
inline bool waiting(pid_t tid) {
        std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/syscall");
        long call = -1;
        in >> call;  // a running thread shows "running", which reads as no number
        return call == SYS_futex || call == SYS_nanosleep || call == SYS_clock_nanosleep;
}

// The number of threads of this process.
inline int threadCount() {
        std::ifstream in("/proc/self/status");
        for (std::string line; std::getline(in, line);)
                if (line.rfind("Threads:", 0) == 0)
                        return std::stoi(line.substr(8));
        return -1;
}

// Waits, bounded, until this process has n threads; whether it came to that.
inline bool threadCountBecomes(int n) {
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (threadCount() != n && std::chrono::steady_clock::now() < end)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return threadCount() == n;
}

// Runs f on a thread of its own, and tells whether f has returned or is blocked.
class Background {
public:
        template <typename F>
        explicit Background(F f)
            : thread_([this, f] {
                      tid_ = static_cast<pid_t>(syscall(SYS_gettid));
                      f();
                      done_ = true;
              }) {}
        ~Background() { join(); }
        Background(const Background&) = delete;
        Background& operator=(const Background&) = delete;

        bool done() const { return done_; }

        // Waits, bounded, until f has returned or its thread blocks in a wait; true if it
        // blocked. A call that should block but does not returns, and so gives false.
        bool blocks() const {
                auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
                while (!done_ && std::chrono::steady_clock::now() < end) {
                        if (tid_ && waiting(tid_))
                                return !done_;
                        std::this_thread::yield();
                }
                return false;
        }

        void join() {
                if (thread_.joinable())
                        thread_.join();
        }

private:
        std::atomic<pid_t> tid_{0};
        std::atomic<bool> done_{false};
        std::thread thread_;
};
