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
    ASSERT_EQ(storage.Begin(), RC_OK);
    EXPECT_EQ(NewCallsOfInsertions(storage, 1000), 0U);
    ASSERT_EQ(storage.Commit(), RC_OK);
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
