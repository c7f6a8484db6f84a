#include <gtest/gtest.h>

#include <pthread.h>

#include <mutex>
#include <string>
#include <vector>

#include <vesk/Operation.h>
#include <vesk/OperationQueue.h>

#include "support/HttpSupport.hpp"
#include "support/Support.hpp"

namespace {

// What the operations did, and on which threads.
struct Journal {
        std::mutex m;
        std::vector<std::string> events;
        std::vector<pthread_t> threads;

        void note(const std::string& event) {
                std::lock_guard<std::mutex> lock(m);
                events.push_back(event);
                threads.push_back(pthread_self());
        }
        size_t size() {
                std::lock_guard<std::mutex> lock(m);
                return events.size();
        }
};

struct Step {
        Journal* journal;
        std::string name;
};

void execute(void* data) {
        Step* s = static_cast<Step*>(data);
        s->journal->note(s->name);
}

void completed(void* data) {
        Step* s = static_cast<Step*>(data);
        s->journal->note(s->name + " completed");
}

void failing(void* data) {
        Step* s = static_cast<Step*>(data);
        THROW(AssertException, "%s went wrong", s->name.c_str());
}

std::vector<Step> steps(Journal& journal, int n) {
        std::vector<Step> v;
        for (int i = 1; i <= n; i++)
                v.push_back({&journal, std::to_string(i)});
        return v;
}

}  // namespace

TEST(Operation, ChecksItsArguments) {
        EXPECT_EQ(assertion([] { Operation_new(nullptr, nullptr); }), "execute");
        Operation_T O = Operation_new(execute, nullptr);
        EXPECT_EQ(assertion([&] { Operation_setCompleted(O, nullptr); }), "completed");
        Operation_free(&O);
        EXPECT_EQ(O, nullptr);
        EXPECT_EQ(assertion([&] { Operation_execute(&O); }), "O && *O");
        EXPECT_EQ(assertion([] { OperationQueue_new(0, 0); }), "timeout > 0 || length > 0");
        EXPECT_EQ(assertion([] { OperationQueue_add(nullptr, nullptr); }), "O");
}

TEST(Operation, ExecuteRunsThenCompletesAndARaiseSkipsCompletion) {
        Journal journal;
        Step ok{&journal, "ok"};
        Operation_T O = Operation_new(execute, &ok);
        Operation_setCompleted(O, completed);
        Operation_execute(&O);
        EXPECT_EQ(O, nullptr);
        EXPECT_EQ(journal.events, (std::vector<std::string>{"ok", "ok completed"}));

        Step bad{&journal, "bad"};
        O = Operation_new(failing, &bad);
        Operation_setCompleted(O, completed);
        Operation_T record = O;
        testing::internal::CaptureStderr();
        Operation_execute(&O);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Operation: execute failed -- AssertException: bad went wrong\n");
        EXPECT_EQ(journal.size(), 2u);
        // The record went back to the pool, and the next operation gets it, cleared.
        Step again{&journal, "again"};
        O = Operation_new(execute, &again);
        EXPECT_EQ(O, record);
        Operation_execute(&O);
        EXPECT_EQ(journal.events.back(), "again");
}

TEST(OperationQueue, RunsOperationsInBatchesOnItsOwnThread) {
        Journal journal;
        auto work = steps(journal, 6);
        OperationQueue_T Q = OperationQueue_new(0, 3);
        OperationQueue_add(Q, Operation_new(execute, &work[0]));
        OperationQueue_add(Q, Operation_new(execute, &work[1]));
        // No thread runs below the batch length: the two wait.
        EXPECT_EQ(OperationQueue_size(Q), 2);
        EXPECT_EQ(journal.size(), 0u);
        OperationQueue_add(Q, Operation_new(execute, &work[2]));
        ASSERT_TRUE(eventually([&] { return journal.size() == 3; }));
        OperationQueue_add(Q, Operation_new(execute, &work[3]));
        EXPECT_TRUE(eventually([&] { return OperationQueue_size(Q) == 1; }));
        // Asked to, the queue runs a short batch at once.
        OperationQueue_invoke(Q);
        ASSERT_TRUE(eventually([&] { return journal.size() == 4; }));
        EXPECT_EQ(journal.events, (std::vector<std::string>{"1", "2", "3", "4"}));
        for (pthread_t t : journal.threads)
                EXPECT_FALSE(pthread_equal(t, pthread_self()));
        // What is still queued runs before the queue is freed.
        OperationQueue_add(Q, Operation_new(execute, &work[4]));
        OperationQueue_add(Q, Operation_new(execute, &work[5]));
        OperationQueue_free(&Q);
        EXPECT_EQ(Q, nullptr);
        EXPECT_EQ(journal.size(), 6u);
}

TEST(OperationQueue, OperationThatRaisesDoesNotStopTheBatch) {
        Journal journal;
        auto work = steps(journal, 3);
        OperationQueue_T Q = OperationQueue_new(60, 0);
        OperationQueue_add(Q, Operation_new(execute, &work[0]));
        OperationQueue_add(Q, Operation_new(failing, &work[1]));
        OperationQueue_add(Q, Operation_new(execute, &work[2]));
        testing::internal::CaptureStderr();
        OperationQueue_free(&Q);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Operation: execute failed -- AssertException: 2 went wrong\n");
        EXPECT_EQ(journal.events, (std::vector<std::string>{"1", "3"}));
}
