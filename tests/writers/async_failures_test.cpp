// Failures of the writing thread: what is logged, that the code is sticky, that nobody waits in
// vain, and that nothing is written behind a failure.
#include <gtest/gtest.h>

#include <string>

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

}  // namespace

// --- What fails on the thread ----------------------------------------------------------------

TEST_F(AsyncFailure, OfWritingABufferWithItsLastPiece) {
    FailWrite(1);
    ExpectBatchFails({10, 20}, "Cannot write data;" + m_noSpace);
    ExpectError("Flush from async buffer failed (1)", RC_SYSTEM_ERROR);
}

TEST_F(AsyncFailure, OfWritingAFullBuffer) {
    FailWrite(1);
    ExpectBatchFails({60, 41, 10}, "Cannot write data;" + m_noSpace);
    ExpectError("Flush from async buffer failed (2)", RC_SYSTEM_ERROR);
}

TEST_F(AsyncFailure, OfWritingABufferInPart) {
    ShortWrite(1, 7);
    ExpectBatchFails({10}, "Cannot write data;" + m_noSpace);
    EXPECT_EQ(Async().WritePos(), kStart);
}

TEST_F(AsyncFailure, OfWritingDirectly) {
    FailWrite(1);
    ExpectBatchFails({101}, "Cannot write data;" + m_noSpace);
    EXPECT_EQ(m_log.CountContaining("Flush from async buffer failed"), 0U) << m_log;
}

TEST_F(AsyncFailure, OfWritingABufferBeforeAComplete) {
    FailWrite(1);
    QueueBlock(10);
    QueueComplete();
    EXPECT_EQ(StickyErrorOfBatch(), RC_SYSTEM_ERROR);
    ExpectError("Cannot write data;" + m_noSpace, RC_SYSTEM_ERROR);
}

TEST_F(AsyncFailure, OfWritingABufferAtABeginTransaction) {
    FailWrite(1);
    QueueBlock(10);
    ASSERT_EQ(Async().BeginTransaction(), RC_OK);
    EXPECT_EQ(StickyErrorOfBatch(), RC_SYSTEM_ERROR);
}

TEST_F(AsyncFailure, OfGrowingTheFile) {
    m_state.fileSizeDelta = 4096;
    FailSetEnd(1);
    ExpectBatchFails({10}, "Cannot expand file by (4096);" + m_noSpace);
    ExpectError("Flush from async buffer failed (1)", RC_SYSTEM_ERROR);
    EXPECT_EQ(WriteSizes(), Sizes{});
}

TEST_F(AsyncFailure, OfClearingAbandonedData) {
    QueueRecord(1, 2000);
    ASSERT_EQ(Async().BeginTransaction(), RC_OK);
    QueueRecord(2, 3000);
    RunAll();
    ASSERT_EQ(Async().Rollback(), RC_OK);
    FailSetEnd(1);
    QueueBlock(10);
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CountContaining("Cannot clear abandoned data;offset 1122,"), 1U) << m_log;
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

// --- Of the release event --------------------------------------------------------------------

TEST_F(AsyncReleaseEvent, AFailedSetBehindABufferIsAFailure) {
    m_calls.RefuseToSet(WriterEvent::kRelease);
    ExpectBatchFails({10}, "Set release block event failed");
}

TEST_F(AsyncReleaseEvent, AFailedSetBehindALastPieceThatDidNotFitIsAFailure) {
    QueueBlock(60);
    m_blocks.front().Block()->pendingWrites = 2;  // so that the buffer releases nothing
    m_calls.RefuseToSet(WriterEvent::kRelease);
    ExpectBatchFails({41}, "Set release block event failed (1)");
}

TEST_F(AsyncReleaseEvent, AFailedSetBehindAPieceThatMetAnEmptyBufferIsAFailure) {
    m_calls.RefuseToSet(WriterEvent::kRelease);
    ExpectBatchFails({101}, "Set release block event failed (2)");
}

TEST_F(AsyncReleaseEvent, AFailedSetBehindAPieceLargerThanTheBufferIsAFailure) {
    QueueBlock(60);
    m_blocks.front().Block()->pendingWrites = 2;
    m_calls.RefuseToSet(WriterEvent::kRelease);
    ExpectBatchFails({101, 1}, "Set release block event failed (3)");
}

TEST_F(AsyncReleaseEvent, TheBytesAreInTheFileAllTheSame) {
    m_calls.RefuseToSet(WriterEvent::kRelease);
    QueueBlock(10);
    EXPECT_EQ(StickyErrorOfBatch(), RC_SYSTEM_ERROR);
    EXPECT_EQ(FileBytes(kStart, 10), Bytes(10, 1));
    EXPECT_EQ(m_blocks.front().position, kStart);
    EXPECT_EQ(m_blocks.front().Pending(), 0);
}

// --- The sticky code -------------------------------------------------------------------------

TEST_F(AsyncSticky, AfterAWriteFailureTheNextWriteReturnsItsCodeWithoutQueuing) {
    Break();
    TestBlock& block = NewBlock(10);
    EXPECT_EQ(Queue(block), RC_SYSTEM_ERROR);
    ExpectError("Cannot push write element to async queue", RC_SYSTEM_ERROR);
    EXPECT_EQ(block.Pending(), 0);
    EXPECT_EQ(QueueCommit(1, 2000, block.Block()), RC_SYSTEM_ERROR);
    ExpectError("Cannot push commit element to async queue", RC_SYSTEM_ERROR);
    EXPECT_EQ(block.Pending(), 0);
    EXPECT_EQ(CallCount(SystemCall::kWrite), 1U);
}

TEST_F(AsyncSticky, AfterAWriteFailureCompletingReturnsItsCodeToo) {
    Break();
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_SYSTEM_ERROR);
    ExpectError("Cannot push complete element to async queue", RC_SYSTEM_ERROR);
}

TEST_F(AsyncSticky, AfterAWriteFailureABeginAndARollbackReturnItsCode) {
    Break();
    EXPECT_EQ(Async().BeginTransaction(), RC_SYSTEM_ERROR);
    ExpectError("Cannot push begin transaction element to async queue", RC_SYSTEM_ERROR);
    EXPECT_EQ(Async().Rollback(), RC_SYSTEM_ERROR);
}

TEST_F(AsyncSticky, WaitReleaseBlockReturnsItAsOftenAsItIsCalled) {
    Break();
    m_log.Clear();
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.Count("Get error after wait for release block event"), 2U) << m_log;
}

TEST_F(AsyncSticky, FlushFileStillDoesNothing) {
    Break();
    EXPECT_EQ(Async().FlushFile(), RC_OK);
}

TEST_F(AsyncSticky, TheFirstFailureStays) {
    Break();
    EXPECT_EQ(Async().Rollback(), RC_SYSTEM_ERROR);
    m_calls.EndNextClientWait(WaitResult::kTimedOut);
    EXPECT_EQ(Async().Rollback(), RC_SYSTEM_ERROR);
}

TEST_F(AsyncSticky, AFailureWakesWhoWaitsForCompletion) {
    FailWrite(1);
    QueueBlock(10);
    m_calls.AtClientWait(1, [&] { m_calls.m_tasks.Open(); });
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_SYSTEM_ERROR);
    ExpectError("Get error after wait for finish async operations", RC_SYSTEM_ERROR);
}

TEST_F(AsyncSticky, AFailureWakesWhoWaitsForARelease) {
    FailWrite(1);
    QueueBlock(10);
    m_calls.AtClientWait(1, [&] { m_calls.m_tasks.Open(); });
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_SYSTEM_ERROR);
    ExpectError("Get error after wait for release block event", RC_SYSTEM_ERROR);
}

TEST_F(AsyncSticky, WhatStandsBehindTheFailureIsDropped) {
    FailWrite(1);
    QueueBlocks({101, 102});
    QueueRecord(1, 2000);
    EXPECT_EQ(StickyErrorOfBatch(), RC_SYSTEM_ERROR);
    CloseWriter();
    EXPECT_EQ(WriteSizes(), Sizes{101});
    EXPECT_EQ(Items(m_path), "C0");
    EXPECT_EQ(m_blocks.back().Pending(), 2);
    EXPECT_EQ(m_blocks.back().position, kUnknownOffset);
}

TEST_F(AsyncSticky, WhatWasQueuedMeanwhileIsDroppedToo) {
    FailWrite(1);
    RunAll();
    m_calls.m_writes.Shut();
    QueueBlock(10);
    m_calls.m_writes.WaitUntilHeld();
    QueueRecord(1, 2000);
    m_calls.m_writes.Open();
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_SYSTEM_ERROR);
    CloseWriter();
    EXPECT_EQ(WriteSizes(), Sizes{10});
    EXPECT_EQ(Items(m_path), "C0");
}

TEST_F(AsyncSticky, WhatWasWrittenBeforeStays) {
    QueueRecord(1, 2000);
    RunBatch();
    Break();
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
    EXPECT_EQ(m_blocks.front().Pending(), 0);
    EXPECT_EQ(m_blocks.front().position, kStart);
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

TEST_F(AsyncSticky, TheThreadEndsWith3) {
    Break();
    EXPECT_FALSE(Async().MayStillWrite());
    CloseWriter();
    EXPECT_EQ(m_calls.ThreadResult(), 3U);
    EXPECT_FALSE(m_log.Has("Writing thread - exit")) << m_log;
}

TEST_F(AsyncSticky, ClosingFindsTheThreadEnded) {
    Break();
    CloseWriter();
    ExpectError("PushToAsyncQueue(CAsyncQueueElem::STOP) return error 4", RC_SYSTEM_ERROR);
    EXPECT_EQ(m_calls.ExitCodesGiven(), std::vector<u32>{});
}

}  // namespace k9erepl::test
