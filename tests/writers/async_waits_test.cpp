// The clients' waits for the writing thread: how long, what ends them, and what a wait that was
// given up leaves behind. Nobody here waits in earnest for a time-out.
#include <gtest/gtest.h>

#include "writers/async_fixture.h"

namespace k9erepl::test {
namespace {

using platform::WaitResult;

class AsyncWait : public AsyncWriterTest {
  protected:
    // Everything queued goes to the writing thread when a client waits for the nth time.
    void RunAtClientWait(u32 nth) {
        m_calls.AtClientWait(nth, [this] { RunAll(); });
    }
    // A writing thread inside a write that does not return until Release.
    TestBlock& Hang() {
        RunAll();
        Async();
        m_calls.m_writes.Shut();
        TestBlock& block = QueueBlock(10);
        m_calls.m_writes.WaitUntilHeld();
        return block;
    }
    void Release() { m_calls.m_writes.Open(); }
    u32 RollbackThatTimesOut() {
        m_calls.EndNextClientWait(WaitResult::kTimedOut);
        return Async().Rollback();
    }
};

using AsyncFailedRollback = AsyncWait;

}  // namespace

TEST_F(AsyncWait, CompletingGivesUpAfter60Seconds) {
    TestBlock& block = Hang();
    m_calls.EndNextClientWait(WaitResult::kTimedOut);
    EXPECT_EQ(Async().CompleteAsyncTasks(), 25U);
    ExpectError("Wait for CompleteAsyncTasksEvent failed", RC_TIMEOUT);
    EXPECT_EQ(m_calls.ClientTimeout(), kAsyncWaitMs);
    EXPECT_EQ(block.Pending(), 1);
}

TEST_F(AsyncWait, CompletingSaysWhenItsWaitFails) {
    Hang();
    m_calls.EndNextClientWait(WaitResult::kFailed);
    EXPECT_EQ(Async().CompleteAsyncTasks(), 4U);
    ExpectError("Wait for CompleteAsyncTasksEvent failed", RC_SYSTEM_ERROR);
}

TEST_F(AsyncWait, ForAReleaseGivesUpAfter60Seconds) {
    Hang();
    m_calls.EndNextClientWait(WaitResult::kTimedOut);
    EXPECT_EQ(Async().WaitReleaseBlock(), 25U);
    ExpectError("Wait for release block failed", RC_TIMEOUT);
    EXPECT_EQ(m_calls.ClientTimeout(), kAsyncWaitMs);
}

TEST_F(AsyncWait, ForAReleaseSaysWhenItFails) {
    Hang();
    m_calls.EndNextClientWait(WaitResult::kFailed);
    EXPECT_EQ(Async().WaitReleaseBlock(), 4U);
    ExpectError("Wait for release block failed", RC_SYSTEM_ERROR);
}

TEST_F(AsyncWait, ThatWasGivenUpIsNoFailureOfTheWriter) {
    TestBlock& block = Hang();
    m_calls.EndNextClientWait(WaitResult::kTimedOut);
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_TIMEOUT);
    Release();
    QueueRecord(1, 2000);
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(block.Pending(), 0);
    EXPECT_EQ(FileLength(), Async().WritePos());
}

TEST_F(AsyncWait, TheEventOfOneThatWasGivenUpEndsNoLaterOne) {
    Async();
    QueueComplete();
    RunBatch();  // sets the event that nobody waits for any more
    TestBlock& block = QueueBlock(10);
    RunAtClientWait(2);
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncWait, ThatGoesOnHasWhatIsLeftOfThe60Seconds) {
    SetTickCount(0xFFFFFF00);  // wraps meanwhile
    Async();
    QueueComplete();
    RunBatch();
    m_calls.AtClientWait(1, [&] {
        AdvanceTickCount(20000);
        RunAtClientWait(1);
    });
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(m_calls.ClientTimeout(), 40000U);
}

TEST_F(AsyncWait, ThatGoesOnPast60SecondsIsOver) {
    SetTickCount(0);
    Async();
    QueueComplete();
    RunBatch();
    m_calls.AtClientWait(1, [&] { AdvanceTickCount(kAsyncWaitMs + 1); });
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_TIMEOUT);
    EXPECT_EQ(m_calls.ClientTimeout(), 0U);
}

TEST_F(AsyncWait, AnElementWhoseWakeFailedIsDoneWithTheNextOne) {
    Async();
    RunAll();
    m_calls.RefuseToSet(WriterEvent::kNewTask);
    TestBlock& block = QueueBlock(10);
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(block.Pending(), 0);
}

// --- A rollback that cannot wait -------------------------------------------------------------

TEST_F(AsyncFailedRollback, IsSticky) {
    EXPECT_EQ(RollbackThatTimesOut(), RC_TIMEOUT);
    EXPECT_EQ(Queue(NewBlock(10)), RC_TIMEOUT);
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_TIMEOUT);
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_TIMEOUT);
}

TEST_F(AsyncFailedRollback, NothingThatIsQueuedIsWrittenAnyMore) {
    QueueRecord(1, 2000);
    EXPECT_EQ(RollbackThatTimesOut(), RC_TIMEOUT);
    CloseWriter();
    EXPECT_EQ(WriteSizes(), Sizes{});
    EXPECT_EQ(Items(m_path), "C0");
    EXPECT_EQ(m_calls.ThreadResult(), RC_BAD_DATA);
}

TEST_F(AsyncFailedRollback, NothingIsWrittenBehindAWriteThatHangs) {
    TestBlock& hung = Hang();
    QueueBlock(20);
    EXPECT_EQ(RollbackThatTimesOut(), RC_TIMEOUT);
    EXPECT_TRUE(Async().MayStillWrite());
    Release();
    CloseWriter();
    EXPECT_EQ(WriteSizes(), Sizes{10});
    EXPECT_EQ(hung.Pending(), 0);
    EXPECT_EQ(m_blocks.back().Pending(), 1);
}

TEST_F(AsyncFailedRollback, OfAnIdleWriterLetsItCloseAtOnce) {
    RunAll();
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    m_calls.RefuseToSet(WriterEvent::kNewTask);  // the thread does not hear of it
    EXPECT_EQ(RollbackThatTimesOut(), RC_TIMEOUT);
    CloseWriter();
    EXPECT_EQ(m_calls.ExitCodesGiven(), std::vector<u32>{});
    EXPECT_EQ(m_calls.ThreadResult(), RC_BAD_DATA);
    ExpectError("PushToAsyncQueue(CAsyncQueueElem::STOP) return error 25", RC_TIMEOUT);
}

}  // namespace k9erepl::test
