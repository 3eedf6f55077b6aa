// What a rollback of the asynchronous writer goes back to: the position behind everything queued
// before the transaction, and the chain and the revision of that place.
#include <gtest/gtest.h>

#include <algorithm>

#include "writers/async_fixture.h"

namespace k9erepl::test {
namespace {

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
