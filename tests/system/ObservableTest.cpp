#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <vesk/Observable.h>

#include "support/Support.hpp"

using namespace std::chrono_literals;

namespace {

// An observer that notes its name and the object it was told of.
struct Watcher {
        std::string name;
        std::vector<std::string>* seen;
};

void update(void* observer, void* object) {
        Watcher* w = static_cast<Watcher*>(observer);
        w->seen->push_back(w->name + ":" + static_cast<const char*>(object));
}

void raising(void* observer, void* object) {
        update(observer, object);
        THROW(IOException, "observer %s failed", static_cast<Watcher*>(observer)->name.c_str());
}

bool notify(Observable_T O, const char* key, const char* object) {
        return Observable_notifyObservers(O, key, const_cast<char*>(object));
}

}  // namespace

TEST(Observable, NotifiesTheKeysObserversInTheOrderTheyWereAdded) {
        std::vector<std::string> seen;
        Watcher a{"a", &seen}, b{"b", &seen}, c{"c", &seen};
        Observable_T O = Observable_new();
        EXPECT_EQ(assertion([&] { Observable_addObserver(O, &a, nullptr, update); }), "forKey");
        EXPECT_TRUE(notify(O, "price", "unknown key"));
        Observable_addObserver(O, &b, "price", update);
        Observable_addObserver(O, &a, "price", update);
        Observable_addObserver(O, &c, "stock", update);
        Observable_addObserver(O, &b, "price", update);
        EXPECT_TRUE(notify(O, "price", "1"));
        Observable_removeObserverForKey(O, &b, "price");
        notify(O, "price", "2");
        notify(O, "stock", "3");
        Observable_addObserver(O, &c, "price", update);
        Observable_removeObserver(O, &c);
        notify(O, "price", "4");
        notify(O, "stock", "5");
        Observable_clear(O);
        notify(O, "price", "6");
        EXPECT_EQ(seen, (std::vector<std::string>{"b:1", "a:1", "b:1", "a:2", "c:3", "a:4"}));
        Observable_free(&O);
        EXPECT_EQ(O, nullptr);
}

TEST(Observable, ObserverThatRaisesEndsTheWalkAndIsLogged) {
        std::vector<std::string> seen;
        Watcher a{"a", &seen}, bad{"bad", &seen}, c{"c", &seen};
        Observable_T O = Observable_new();
        Observable_addObserver(O, &a, "price", update);
        Observable_addObserver(O, &bad, "price", raising);
        Observable_addObserver(O, &c, "price", update);
        testing::internal::CaptureStderr();
        EXPECT_FALSE(notify(O, "price", "1"));
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Observable: notification for key 'price' failed -- IOException: observer bad "
                  "failed\n");
        // The lock was let go of: observers can be changed, and later notifications work.
        Observable_removeObserver(O, &bad);
        EXPECT_TRUE(notify(O, "price", "2"));
        EXPECT_EQ(seen, (std::vector<std::string>{"a:1", "bad:1", "a:2", "c:2"}));
        Observable_free(&O);
}

TEST(Observable, NotificationsRunSideBySide) {
        // Each update waits, bounded, until both notifications are inside one: they can only
        // meet if neither shuts the other out.
        struct Meeting {
                std::mutex m;
                std::condition_variable cv;
                int inside = 0;
                bool met = false;
        } meeting;
        Observable_T O = Observable_new();
        Observable_addObserver(O, &meeting, "k", [](void* observer, void*) {
                Meeting* g = static_cast<Meeting*>(observer);
                std::unique_lock<std::mutex> lock(g->m);
                g->inside++;
                g->cv.notify_all();
                g->met = g->cv.wait_for(lock, 20s, [&] { return g->inside == 2; });
        });
        std::thread other([&] { notify(O, "k", nullptr); });
        notify(O, "k", nullptr);
        other.join();
        EXPECT_TRUE(meeting.met);
        Observable_free(&O);
}
