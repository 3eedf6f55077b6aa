// What a record costs: nothing is allocated for it on the way in.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

u64 NewCallsOf(const std::function<void()>& work) {
    const u64 before = NewCallsOfThisThread();
    work();
    return NewCallsOfThisThread() - before;
}

}  // namespace

TEST(HotPath, InsertionsIntoABlockAllocateNothing) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"first"});
    Record record("text");
    void* const handle = storage.Handle();
    const u64 calls = NewCallsOf([&] {
        ASSERT_EQ(K9eReplStorageBeginTransaction(handle), RC_OK);
        for (int i = 0; i < 1000; ++i) {
            ASSERT_EQ(K9eReplStorageInsert(handle, record.Get()), RC_OK);
        }
        ASSERT_EQ(K9eReplStorageCommit(handle), RC_OK);
    });
    EXPECT_EQ(calls, 0U);
}

TEST(HotPath, FlushingCommitsAllocateNothing) {
    TestStorage storage(kFlushAlways);
    storage.InsertCommitted({"first"});
    Record record("text");
    void* const handle = storage.Handle();
    const u64 calls = NewCallsOf([&] {
        for (int i = 0; i < 100; ++i) {
            ASSERT_EQ(K9eReplStorageInsert(handle, record.Get()), RC_OK);
        }
    });
    EXPECT_EQ(calls, 0U);
}

}  // namespace k9erepl::test
