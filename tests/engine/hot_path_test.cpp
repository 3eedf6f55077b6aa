// What a record costs: nothing is allocated for it on the way in.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "engine/write_gate.h"
#include "support/fault_injection.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

u64 NewCallsOf(const std::function<void()>& work) {
    const u64 before = NewCallsOfThisThread();
    work();
    return NewCallsOfThisThread() - before;
}

// The writing thread gives what was queued back behind the first wait, but before the second.
void LetTheWriterRest(TestStorage& storage) {
    ASSERT_EQ(storage.WaitForWriter(), RC_OK);
    ASSERT_EQ(storage.WaitForWriter(), RC_OK);
}

u64 NewCallsOfInsertions(TestStorage& storage, u32 count) {
    Record record("text");
    return NewCallsOf([&] {
        for (u32 i = 0; i < count; ++i) {
            ASSERT_EQ(K9eReplStorageInsert(storage.Handle(), record.Get()), RC_OK);
        }
    });
}

}  // namespace

TEST(HotPath, InsertionsIntoABlockAllocateNothing) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"first"});
    LetTheWriterRest(storage);
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
    SKIP_WHEN_ASYNC("the queue grows until it was as long as it gets");
    TestStorage storage(kFlushAlways);
    storage.InsertCommitted({"first"});
    EXPECT_EQ(NewCallsOfInsertions(storage, 100), 0U);
}

// What was once queued is used again: the queue is made longer than the one that is measured.
TEST(HotPath, FlushingCommitsAllocateNothingWhenTheQueueHasItsLength) {
    const ScopedSystemCalls systemCalls;
    WriteGate gate(WriteGate::File::kStorage);
    TestStorage storage(With(kFlushAlways, "async_mode=yes;block_size=100000;"));
    gate.Shut();
    storage.InsertMany(150);
    gate.Open();
    LetTheWriterRest(storage);
    EXPECT_EQ(NewCallsOfInsertions(storage, 100), 0U);
}

}  // namespace k9erepl::test
