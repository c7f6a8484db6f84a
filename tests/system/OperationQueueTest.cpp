#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include <vesk/Operation.h>
#include <vesk/OperationQueue.h>

#include "support/HttpSupport.hpp"
#include "support/Support.hpp"

namespace {

std::mutex journalLock;
std::vector<std::string> journal;

std::vector<std::string> read() {
        std::lock_guard<std::mutex> lock(journalLock);
        return journal;
}

void note(void* data) {
        std::lock_guard<std::mutex> lock(journalLock);
        journal.push_back(static_cast<const char*>(data));
}

void completed(void* data) {
        note(data);
        note(const_cast<char*>("completed"));
}

void failing(void* data) {
        THROW(AssertException, "%s went wrong", static_cast<const char*>(data));
}

Operation_T op(void (*execute)(void*), const char* name) {
        return Operation_new(execute, const_cast<char*>(name));
}

}  // namespace

TEST(Operation, RaiseSkipsCompletionIsLoggedAndTheRecordGoesBackToThePool) {
        journal.clear();
        EXPECT_EQ(assertion([] { Operation_new(nullptr, nullptr); }), "execute");
        Operation_T O = op(note, "ok");
        Operation_setCompleted(O, completed);
        Operation_execute(&O);
        EXPECT_EQ(O, nullptr);
        O = op(failing, "bad");
        Operation_setCompleted(O, completed);
        Operation_T record = O;
        testing::internal::CaptureStderr();
        Operation_execute(&O);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Operation: execute failed -- AssertException: bad went wrong\n");
        EXPECT_EQ(read(), (std::vector<std::string>{"ok", "ok", "completed"}));
        // The next operation gets the same record, without the old completion.
        O = op(note, "again");
        EXPECT_EQ(O, record);
        Operation_execute(&O);
        EXPECT_EQ(read().size(), 4u);
}

TEST(OperationQueue, RunsOperationsInBatches) {
        journal.clear();
        EXPECT_EQ(assertion([] { OperationQueue_new(0, 0); }), "timeout > 0 || length > 0");
        OperationQueue_T Q = OperationQueue_new(0, 3);
        OperationQueue_add(Q, op(note, "1"));
        OperationQueue_add(Q, op(note, "2"));
        // Below the batch length no thread runs, so the two wait.
        EXPECT_EQ(OperationQueue_size(Q), 2);
        EXPECT_TRUE(read().empty());
        OperationQueue_add(Q, op(note, "3"));
        ASSERT_TRUE(eventually([&] { return read().size() == 3; }));
        OperationQueue_add(Q, op(note, "4"));
        EXPECT_TRUE(eventually([&] { return OperationQueue_size(Q) == 1; }));
        // Asked to, the queue runs a short batch at once.
        OperationQueue_invoke(Q);
        EXPECT_TRUE(eventually([&] { return read().size() == 4; }));
        // What is still queued runs before the queue is freed, past one that raises.
        OperationQueue_add(Q, op(failing, "5"));
        OperationQueue_add(Q, op(note, "6"));
        testing::internal::CaptureStderr();
        OperationQueue_free(&Q);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Operation: execute failed -- AssertException: 5 went wrong\n");
        EXPECT_EQ(Q, nullptr);
        EXPECT_EQ(read(), (std::vector<std::string>{"1", "2", "3", "4", "6"}));
}
