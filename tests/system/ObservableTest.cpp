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

void raising(void* observer, void*) {
        update(observer, const_cast<char*>("raised"));
        THROW(IOException, "observer %s failed", static_cast<Watcher*>(observer)->name.c_str());
}

}  // namespace

TEST(Observable, ChecksItsArguments) {
        Observable_T O = Observable_new();
        EXPECT_EQ(assertion([&] { Observable_addObserver(O, nullptr, "k", update); }), "observer");
        EXPECT_EQ(assertion([&] { Observable_addObserver(O, O, nullptr, update); }), "forKey");
        EXPECT_EQ(assertion([&] { Observable_addObserver(O, O, "k", nullptr); }), "update");
        EXPECT_EQ(assertion([&] { Observable_notifyObservers(O, nullptr, nullptr); }), "forKey");
        EXPECT_EQ(assertion([] { Observable_free(nullptr); }), "O && *O");
        Observable_free(&O);
        EXPECT_EQ(O, nullptr);
}

TEST(Observable, NotifiesTheKeysObserversInTheOrderTheyWereAdded) {
        std::vector<std::string> seen;
        Watcher a{"a", &seen}, b{"b", &seen}, c{"c", &seen};
        Observable_T O = Observable_new();
        EXPECT_TRUE(Observable_notifyObservers(O, "price", const_cast<char*>("1")));
        Observable_addObserver(O, &b, "price", update);
        Observable_addObserver(O, &a, "price", update);
        Observable_addObserver(O, &c, "stock", update);
        Observable_addObserver(O, &b, "price", update);
        EXPECT_TRUE(Observable_notifyObservers(O, "price", const_cast<char*>("2")));
        EXPECT_EQ(seen, (std::vector<std::string>{"b:2", "a:2", "b:2"}));

        seen.clear();
        Observable_removeObserverForKey(O, &b, "price");
        Observable_notifyObservers(O, "price", const_cast<char*>("3"));
        Observable_notifyObservers(O, "stock", const_cast<char*>("4"));
        EXPECT_EQ(seen, (std::vector<std::string>{"a:3", "c:4"}));

        seen.clear();
        Observable_addObserver(O, &c, "price", update);
        Observable_removeObserver(O, &c);
        Observable_notifyObservers(O, "price", const_cast<char*>("5"));
        Observable_notifyObservers(O, "stock", const_cast<char*>("6"));
        EXPECT_EQ(seen, (std::vector<std::string>{"a:5"}));

        seen.clear();
        Observable_clear(O);
        EXPECT_TRUE(Observable_notifyObservers(O, "price", const_cast<char*>("7")));
        Observable_addObserver(O, &a, "price", update);
        Observable_notifyObservers(O, "price", const_cast<char*>("8"));
        EXPECT_EQ(seen, (std::vector<std::string>{"a:8"}));
        Observable_free(&O);
}

TEST(Observable, ObserverThatRaisesEndsTheWalkAndIsLogged) {
        std::vector<std::string> seen;
        Watcher a{"a", &seen}, bad{"bad", &seen}, c{"c", &seen};
        Observable_T O = Observable_new();
        Observable_addObserver(O, &a, "price", update);
        Observable_addObserver(O, &bad, "price", raising);
        Observable_addObserver(O, &c, "price", update);
        testing::internal::CaptureStderr();
        EXPECT_FALSE(Observable_notifyObservers(O, "price", const_cast<char*>("1")));
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Observable: notification for key 'price' failed -- IOException: observer bad "
                  "failed\n");
        EXPECT_EQ(seen, (std::vector<std::string>{"a:1", "bad:raised"}));
        EXPECT_TRUE(stackEmpty());

        // The lock was let go of: observers can be changed, and later notifications work.
        seen.clear();
        Observable_removeObserver(O, &bad);
        EXPECT_TRUE(Observable_notifyObservers(O, "price", const_cast<char*>("2")));
        EXPECT_EQ(seen, (std::vector<std::string>{"a:2", "c:2"}));
        Observable_free(&O);
}

TEST(Observable, NotificationsRunSideBySide) {
        // Each update waits, bounded, until both notifications are inside one: they can only
        // meet if neither excludes the other.
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
                if (g->cv.wait_for(lock, 20s, [&] { return g->inside == 2; }))
                        g->met = true;
        });
        std::thread other([&] { Observable_notifyObservers(O, "k", nullptr); });
        Observable_notifyObservers(O, "k", nullptr);
        other.join();
        EXPECT_TRUE(meeting.met);
        Observable_free(&O);
}
