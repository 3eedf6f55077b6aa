// What a record costs on the way in, and several threads on one handle.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "engine/flush_fixture.h"
#include "engine/write_gate.h"
#include "support/fault_injection.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

constexpr u32 kInsertions = 200;

}  // namespace

TEST(Concurrency, DuplicatesMayBeTakenAndTheLastOneGivenBackByAnyThread) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    const auto duplicate = [&] {
        for (u32 i = 0; i < kInsertions; ++i) {
            void* handle = nullptr;
            ASSERT_EQ(K9eReplStorageDuplicateHandle(storage.Handle(), &handle), RC_OK);
            ASSERT_EQ(K9eReplStorageClose(handle), RC_OK);
        }
    };
    std::thread other(duplicate);
    duplicate();
    other.join();
    EXPECT_EQ(storage.DataSource().AddRef(), 2U);
    EXPECT_EQ(storage.DataSource().Release(), 1U);
    std::thread([&] { storage.Close(); }).join();
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
}

TEST(Concurrency, CallbacksOfTheIdleFlushMayInsertWhileTheClientDoes) {
    Notified flushed;
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=2;flush_timeout=1;");
    std::atomic<u32> nested{0};
    flushed.Does([&](i64) {
        if (nested < 20) {
            ASSERT_EQ(storage.Insert("nested"), RC_OK);
            ++nested;
        }
    });
    flushed.SetAsOnFlush(storage);
    for (u32 i = 0; i < kInsertions; ++i) {
        ASSERT_EQ(storage.Insert("text"), RC_OK);
    }
    while (nested < 20) {
        std::this_thread::yield();
    }
    storage.Reopen();
    EXPECT_EQ(storage.Records().size(), kInsertions + 20);
}

// --- Nothing is allocated for a record -----------------------------------------------------------

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
