// Failures of the writing thread: what is logged, that the code is sticky, that nobody waits in
// vain, and that nothing is written behind a failure. Memory that runs out on the clients' side
// refuses an operation and no more; on the writing thread it is a failure like any other. What a
// rollback goes back to: the position behind everything queued before the transaction, and the
// chain and the revision of that place.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/fixed_log.h"
#include "support/new_fault.h"
#include "writers/async_fixture.h"

namespace k9erepl::test {
namespace {

using platform::WaitResult;

class AsyncFailure : public AsyncWriterTest {
  protected:
    AsyncFailure() { m_options.bufferCapacity = 100; }

    void QueueBlocks(const Sizes& sizes) {
        for (const u32 size : sizes) {
            QueueBlock(size);
        }
    }
    // A batch of pieces of these sizes fails with code 4 and this text.
    void ExpectBatchFails(const Sizes& sizes, const std::string& text) {
        QueueBlocks(sizes);
        EXPECT_EQ(StickyErrorOfBatch(), RC_SYSTEM_ERROR);
        ExpectError(text, RC_SYSTEM_ERROR);
    }
    // A failed write of one buffered piece; the thread has ended then.
    void Break() {
        FailWrite(1);
        QueueBlock(10);
        ASSERT_EQ(StickyErrorOfBatch(), RC_SYSTEM_ERROR);
    }

    const std::string m_noSpace = SysErr(SystemErrorKind::kNoSpace);
    const std::string m_badEvent = SysErr(SystemErrorKind::kInvalidHandle);
};

using AsyncSticky = AsyncFailure;
using AsyncReleaseEvent = AsyncFailure;

TEST_F(AsyncFailure, OfAWriteIsReportedAsItCameToIt) {
    const struct {
        Sizes pieces;
        const char* behind;  // what is logged behind the failure of the write; null: nothing
    } writes[] = {{{10, 20}, "Flush from async buffer failed (1)"},
                  {{60, 41, 10}, "Flush from async buffer failed (2)"},
                  {{101}, nullptr}};
    for (const auto& write : writes) {
        m_log.Clear();
        FailWrite(1);
        ExpectBatchFails(write.pieces, "Cannot write data;" + m_noSpace);
        EXPECT_EQ(m_log.CountContaining("Flush from async buffer failed"),
                  write.behind == nullptr ? 0U : 1U);
        if (write.behind != nullptr) {
            ExpectError(write.behind, RC_SYSTEM_ERROR);
        }
        EXPECT_EQ(Async().WritePos(), kStart);
        CloseWriter();
    }
}

TEST_F(AsyncFailure, OfWritingABufferBeforeACompleteOrAtABeginTransaction) {
    for (const bool complete : {true, false}) {
        m_log.Clear();
        FailWrite(1);
        QueueBlock(10);
        if (complete) {
            QueueComplete();
        } else {
            ASSERT_EQ(Async().BeginTransaction(), RC_OK);
        }
        EXPECT_EQ(StickyErrorOfBatch(), RC_SYSTEM_ERROR);
        ExpectError("Cannot write data;" + m_noSpace, RC_SYSTEM_ERROR);
        CloseWriter();
    }
}

TEST_F(AsyncFailure, OfTheWaitForWork) {
    Async();
    m_calls.EndNextTaskWait(WaitResult::kFailed);
    EXPECT_EQ(StickyErrorOfBatch(), RC_SYSTEM_ERROR);
    ExpectError("K9EventWait failed;" + m_badEvent + ". Thread exit.", RC_SYSTEM_ERROR);
    CloseWriter();
    EXPECT_EQ(m_calls.ThreadResult(), RC_SYSTEM_ERROR);
}

TEST_F(AsyncFailure, AWaitForWorkThatTimesOutIsNone) {
    m_calls.EndNextTaskWait(WaitResult::kTimedOut);
    QueueRecord(1, 2000);
    RunBatch();
    EXPECT_EQ(WriteSizes(), Sizes{});
    RunBatch();
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
}

TEST_F(AsyncFailure, OfTellingThatEverythingIsComplete) {
    m_calls.RefuseToSet(WriterEvent::kComplete);
    QueueBlock(10);
    RunAll();
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_SYSTEM_ERROR);
    ExpectError("Set complete event failed;" + m_badEvent, RC_SYSTEM_ERROR);
    EXPECT_EQ(WriteSizes(), Sizes{10});
}

TEST_F(AsyncReleaseEvent, WhoseSettingFailsIsAFailureThoughTheBytesAreInTheFile) {
    const struct {
        u32 pending;  // a piece of 60 bytes before the others, whose buffer releases nothing; 0:
                      // none
        Sizes pieces;
        const char* text;
    } batches[] = {{0, {10}, "Set release block event failed"},
                   {2, {41}, "Set release block event failed (1)"},
                   {0, {101}, "Set release block event failed (2)"},
                   {2, {101, 1}, "Set release block event failed (3)"}};
    for (const auto& batch : batches) {
        if (batch.pending != 0) {
            QueueBlock(60).Block()->pendingWrites = 2;
        }
        m_calls.RefuseToSet(WriterEvent::kRelease);
        ExpectBatchFails(batch.pieces, batch.text);
        EXPECT_NE(m_blocks.front().position, kUnknownOffset);
        EXPECT_EQ(m_blocks.front().Pending(), batch.pending == 0 ? 0 : 1);
        CloseWriter();
        m_blocks.clear();
    }
}

TEST_F(AsyncSticky, EveryCallReturnsTheFirstFailuresCodeWithoutQueuing) {
    Break();
    m_log.Clear();
    TestBlock& block = NewBlock(10);
    EXPECT_EQ(Queue(block), RC_SYSTEM_ERROR);
    EXPECT_EQ(QueueCommit(1, 2000, block.Block()), RC_SYSTEM_ERROR);
    EXPECT_EQ(block.Pending(), 0);
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Async().BeginTransaction(), RC_SYSTEM_ERROR);
    for (const char* element : {"write", "commit", "complete", "begin transaction"}) {
        ExpectError("Cannot push " + std::string(element) + " element to async queue",
                    RC_SYSTEM_ERROR);
    }
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.Count("Get error after wait for release block event"), 2U) << m_log;
    EXPECT_EQ(Async().Rollback(), RC_SYSTEM_ERROR);
    m_calls.EndNextClientWait(WaitResult::kTimedOut);
    EXPECT_EQ(Async().Rollback(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Async().FlushFile(), RC_OK) << "it still does nothing";
    EXPECT_EQ(CallCount(SystemCall::kWrite), 1U);
}

TEST_F(AsyncSticky, AFailureWakesWhoWaits) {
    for (const bool forRelease : {false, true}) {
        FailWrite(1);
        QueueBlock(10);
        m_calls.AtClientWait(1, [&] { m_calls.m_tasks.Open(); });
        EXPECT_EQ(forRelease ? Async().WaitReleaseBlock() : Async().CompleteAsyncTasks(),
                  RC_SYSTEM_ERROR);
        ExpectError(forRelease ? "Get error after wait for release block event"
                               : "Get error after wait for finish async operations",
                    RC_SYSTEM_ERROR);
        CloseWriter();
    }
}

TEST_F(AsyncSticky, WhatStandsBehindTheFailureAndWhatIsQueuedMeanwhileIsDropped) {
    FailWrite(1);
    QueueBlocks({101, 102});
    QueueRecord(1, 2000);
    m_calls.m_writes.Shut();
    RunAll();
    m_calls.m_writes.WaitUntilHeld();
    QueueRecord(2, 3000);
    m_calls.m_writes.Open();
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_SYSTEM_ERROR);
    CloseWriter();
    EXPECT_EQ(WriteSizes(), Sizes{101});
    EXPECT_EQ(Items(m_path), "C0");
    EXPECT_EQ(m_blocks.back().Pending(), 2);
    EXPECT_EQ(m_blocks.back().position, kUnknownOffset);
}

TEST_F(AsyncSticky, NothingIsAnnouncedThatIsNotInTheFile) {
    Listen();
    FailWrite(2);
    QueueCommit(1, 2000);
    RunBatch();
    QueueCommit(2, 3000);
    EXPECT_EQ(StickyErrorOfBatch(), RC_SYSTEM_ERROR);
    CloseWriter();
    EXPECT_EQ(m_notices, std::vector<i64>{1});
}

TEST_F(AsyncSticky, TheThreadEndsWith3AndClosingFindsItEnded) {
    Break();
    EXPECT_FALSE(Async().MayStillWrite());
    CloseWriter();
    EXPECT_EQ(m_calls.ThreadResult(), 3U);
    EXPECT_FALSE(m_log.Has("Writing thread - exit")) << m_log;
    ExpectError("PushToAsyncQueue(CAsyncQueueElem::STOP) return error 4", RC_SYSTEM_ERROR);
    EXPECT_EQ(m_calls.ExitCodesGiven(), std::vector<u32>{});
}

class AsyncMemory : public AsyncWriterTest {
  protected:
    AsyncMemory() {
        m_options.bufferCapacity = 100;
        Async();
    }
    // The operation finds no memory for its first C++ object.
    template <typename Operation>
    u32 WithoutMemory(Operation operation) {
        const FailNthNew fault(1);
        const u32 rc = operation();
        EXPECT_TRUE(fault.Struck());
        return rc;
    }
};

TEST_F(AsyncMemory, ForAnElementRefusesTheOperationAndTheWriterGoesOn) {
    TestBlock& block = NewBlock(10);
    EXPECT_EQ(WithoutMemory([&] { return Queue(block); }), RC_NO_MEMORY);
    EXPECT_EQ(WithoutMemory([&] { return QueueCommit(1, 2000, block.Block()); }), RC_NO_MEMORY);
    EXPECT_EQ(block.Pending(), 0);
    EXPECT_EQ(WithoutMemory([&] { return Async().BeginTransaction(); }), RC_NO_MEMORY);
    EXPECT_EQ(WithoutMemory([&] { return Async().CompleteAsyncTasks(); }), RC_NO_MEMORY);
    FailAlloc(1);
    EXPECT_EQ(QueueCommit(1, 2000), RC_NO_MEMORY);
    EXPECT_TRUE(m_log.Has("Couldn't allocate memory for next block;block_size 32")) << m_log;
    for (const char* element : {"write", "commit", "begin transaction", "complete"}) {
        ExpectError("Cannot push " + std::string(element) + " element to async queue",
                    RC_NO_MEMORY);
    }
    QueueRecord(1, 3000);
    RunBatch();
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
}

TEST_F(AsyncMemory, ForACommitCopyLeavesTheDataBeforeItQueued) {
    TestBlock& block = NewBlock(10);
    FailAlloc(1);
    EXPECT_EQ(QueueRun(block, 1, 2000), RC_NO_MEMORY);
    EXPECT_EQ(block.Pending(), 1);
    RunBatch();
    EXPECT_EQ(WriteSizes(), Sizes{10});
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncMemory, ForARollbacksElementMakesTheCodeSticky) {
    QueueRecord(1, 2000);
    EXPECT_EQ(WithoutMemory([&] { return Async().Rollback(); }), RC_NO_MEMORY);
    EXPECT_EQ(QueueCommit(1, 2000), RC_NO_MEMORY);
    CloseWriter();
    EXPECT_EQ(WriteSizes(), Sizes{});
}

TEST_F(AsyncMemory, IsNotNeededToStopTheThread) {
    QueueRecord(1, 2000);
    RunAll();
    {
        const FixedLog log;
        const FailNthNew fault(1);
        EXPECT_TRUE(m_async->Shutdown());
    }
    CloseWriter();
    EXPECT_EQ(m_calls.ExitCodesGiven(), std::vector<u32>{});
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
}

TEST_F(AsyncMemory, ForThePromisesOfABufferIsAFailureOfTheThread) {
    m_calls.FailThreadsNew(1);
    TestBlock& block = QueueBlock(10);
    QueueBlock(20);
    EXPECT_EQ(StickyErrorOfBatch(), RC_NO_MEMORY);
    ExpectError("Write to async buffer failed (1)", RC_NO_MEMORY);
    EXPECT_EQ(block.Pending(), 1);
    EXPECT_EQ(WriteSizes(), Sizes{});
}

TEST_F(AsyncMemory, ForThePromisesOfTheNextBufferToo) {
    const FixedLog log;    // takes no memory from the thread
    QueueCommit(1, 2000);  // promises nothing
    QueueBlock(80);
    QueueBlock(10);
    m_calls.FailThreadsNew(1);
    EXPECT_EQ(StickyErrorOfBatch(), RC_NO_MEMORY);
    EXPECT_TRUE(log.HasError("Write to async buffer failed (2)", RC_NO_MEMORY));
    EXPECT_EQ(WriteSizes(), Sizes{32});
}

constexpr i64 kRunSize = 34 + kCommitBlockSize;  // a record of 10 bytes and its commit block

class AsyncRollback : public AsyncWriterTest {
  protected:
    void Begin() { ASSERT_EQ(Async().BeginTransaction(), RC_OK); }
    void RollBack() {
        RunAll();
        ASSERT_EQ(Async().Rollback(), RC_OK);
    }
    // A committed record, then a transaction of two that is rolled back, all in one batch.
    void RollTwoRecordsBack() {
        QueueRecord(1, 2000);
        Begin();
        QueueRecord(2, 3000);
        QueueRecord(3, 4000);
        RollBack();
    }
    void Complete() { ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK); }
};

TEST_F(AsyncRollback, GoesBackBehindEverythingQueuedBeforeBufferedBytesIncluded) {
    RollTwoRecordsBack();
    EXPECT_TRUE(m_log.Has("Wait for finish async operations - OK")) << m_log;
    EXPECT_EQ(m_blocks.back().Pending(), 0);
    EXPECT_EQ(WriteSizes(), Sizes{static_cast<u32>(3 * kRunSize)});  // it was all in one buffer
    for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(Async().WritePos(), kStart + kRunSize);
        EXPECT_EQ(m_state.lastCommitSequence, 2000U);
        EXPECT_EQ(m_state.lastFlushedRev, 1);
        EXPECT_EQ(Async().Rollback(), RC_OK);
    }
}

TEST_F(AsyncRollback, RestoresTheFlushedRevisionOfTheTimeWhenTheBeginningWasQueued) {
    QueueRecord(1, 2000);
    Begin();
    m_state.lastFlushedRev = 9;  // before the thread comes to it
    RunBatch();
    RollBack();
    EXPECT_EQ(m_state.lastFlushedRev, 1);
}

TEST_F(AsyncRollback, LeavesTheBytesUntilTheNextWriteWhichZeroesThem) {
    RollTwoRecordsBack();
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 C2 R3 C3");
    const i64 length = FileLength();
    QueueBlock(1);
    Complete();
    const Bytes tail = FileBytes(Async().WritePos(), 2 * kRunSize - 1);
    EXPECT_TRUE(std::all_of(tail.begin(), tail.end(), [](u8 byte) { return byte == 0; }));
    EXPECT_EQ(FileLength(), length);
    EXPECT_EQ(m_log.CountContaining("Abandoned data was cleared;offset 1122,"), 1U) << m_log;
}

TEST_F(AsyncRollback, WhoseSeekFailsIsReportedAndTheNextWriteStillLandsRight) {
    QueueRecord(1, 2000);
    Begin();
    QueueRecord(2, 3000);
    RunBatch();
    FailSeek(1);
    RunAll();
    EXPECT_EQ(Async().Rollback(), RC_SYSTEM_ERROR);
    ExpectError("Cannot seek to the pos (1122);" + SysErr(SystemErrorKind::kInputOutput),
                RC_SYSTEM_ERROR);
    QueueRecord(2, 4000);
    Complete();
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 C2");
}

TEST_F(AsyncRollback, LeavesBytesThatAreClearedWhenAsked) {
    RollTwoRecordsBack();
    ASSERT_EQ(Items(m_path), "C0 R1 C1 R2 C2 R3 C3");
    EXPECT_EQ(Async().ClearUndone(), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
    QueueRecord(2, 5000);
    Complete();
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 C2");
}

TEST_F(AsyncRollback, WithNothingUndoneClearsNothingAndWaitsForNothing) {
    QueueRecord(1, 2000);
    EXPECT_EQ(Async().ClearUndone(), RC_OK);
    EXPECT_EQ(Items(m_path), "C0") << "the thread is still held";
    RunAll();
    Complete();
}

// What a failed write leaves behind belongs to flushes that were acknowledged.
TEST_F(AsyncRollback, LeavesTheBytesOfAFailedWriteWhereTheyAre) {
    Async();
    ShortWrite(1, 34);
    QueueRecord(1, 2000);
    RunAll();
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Async().ClearUndone(), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1");
}

}  // namespace
}  // namespace k9erepl::test
