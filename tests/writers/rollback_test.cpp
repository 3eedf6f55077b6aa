// What rolling a transaction of the storage file back restores.
#include <gtest/gtest.h>

#include "writers/writer_fixture.h"

namespace k9erepl::test {

namespace {

class Rollback : public WriterTest {
  protected:
    // One committed record, then a transaction of two more that is rolled back.
    void RollTwoRecordsBack() {
        ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
        ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
        ASSERT_EQ(AppendRecord(2), RC_OK);
        ASSERT_EQ(CommitRecord(3, 3000), RC_OK);
        ASSERT_EQ(Writer().Rollback(), RC_OK);
    }

    static constexpr i64 kAfterFirst = kStart + 34 + kCommitBlockSize;
};

}  // namespace

TEST_F(Rollback, MovesTheWritePositionBackByBothWrites) {
    ASSERT_EQ(Append(Bytes(50)), RC_OK);
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    ASSERT_EQ(Append(Bytes(100)), RC_OK);
    ASSERT_EQ(Append(Bytes(200)), RC_OK);
    ASSERT_EQ(Writer().WritePos(), kStart + 350);
    ASSERT_EQ(Writer().Rollback(), RC_OK);
    EXPECT_EQ(Writer().WritePos(), kStart + 50);
}

TEST_F(Rollback, RestoresTheCommitSequenceAndTheFlushedRevision) {
    RollTwoRecordsBack();
    EXPECT_EQ(m_state.lastCommitSequence, 2000U);
    EXPECT_EQ(m_state.lastFlushedRev, 1);
}

TEST_F(Rollback, ARetriedCommitLinksToTheBlockBeforeTheTransaction) {
    RollTwoRecordsBack();
    ASSERT_EQ(AppendRecord(2), RC_OK);
    ASSERT_EQ(CommitRecord(3, 4000), RC_OK);
    EXPECT_EQ(CommitBlockAt(Writer().WritePos() - kCommitBlockSize).prevSequence, 2000U);
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 R3 C3");
}

TEST_F(Rollback, OfSeveralCommitBlocksRestoresTheChain) {
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    for (u32 rev = 1; rev <= 3; ++rev) {
        ASSERT_EQ(CommitRecord(rev, 2000 + rev), RC_OK);
    }
    ASSERT_EQ(Writer().Rollback(), RC_OK);
    EXPECT_EQ(m_state.lastCommitSequence, kFirstSequence);
    ASSERT_EQ(CommitRecord(1, 3000), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
}

TEST_F(Rollback, KeepsWhatWasCommittedBefore) {
    RollTwoRecordsBack();
    ASSERT_EQ(CommitRecord(2, 4000), RC_OK);
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    ASSERT_EQ(CommitRecord(3, 5000), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 C2 R3 C3");
}

TEST_F(Rollback, DoesNotTouchTheFile) {
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    ASSERT_EQ(CommitRecord(2, 3000), RC_OK);
    const Bytes before = FileBytes();
    ASSERT_EQ(Writer().Rollback(), RC_OK);
    EXPECT_EQ(FileBytes(), before);
    EXPECT_EQ(SetEnds(), 0U);
}

TEST_F(Rollback, MayBeRepeated) {
    RollTwoRecordsBack();
    EXPECT_EQ(Writer().Rollback(), RC_OK);
    EXPECT_EQ(Writer().WritePos(), kAfterFirst);
    EXPECT_EQ(m_state.lastCommitSequence, 2000U);
}

TEST_F(Rollback, WithoutATransactionDoesNothing) {
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    EXPECT_EQ(Writer().Rollback(), RC_OK);
    EXPECT_EQ(Writer().WritePos(), kAfterFirst);
    EXPECT_EQ(m_state.lastCommitSequence, 2000U);
}

TEST_F(Rollback, ANewWritePositionEndsTheTransaction) {
    ASSERT_EQ(AppendRecord(1), RC_OK);
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    ASSERT_EQ(Writer().SetWritePos(kStart, true), RC_OK);
    EXPECT_EQ(Writer().Rollback(), RC_OK);
    EXPECT_EQ(Writer().WritePos(), kStart);
}

TEST_F(Rollback, AFailedSeekIsReportedAndTheNextWriteStillLandsAtTheStart) {
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    ASSERT_EQ(CommitRecord(2, 3000), RC_OK);
    FailSeek(1);
    EXPECT_EQ(Writer().Rollback(), RC_SYSTEM_ERROR);
    EXPECT_EQ(
        m_log.CodeOf("Cannot seek to the pos (1122);" + SysErr(SystemErrorKind::kInputOutput)),
        RC_SYSTEM_ERROR)
        << m_log;
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    ASSERT_EQ(CommitRecord(2, 4000), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 C2");
}

TEST_F(Rollback, OnAClosedFileAnswersNoWriter) {
    Writer().CloseFile();
    EXPECT_EQ(Writer().BeginTransaction(), RC_NO_WRITER);
    EXPECT_EQ(Writer().Rollback(), RC_NO_WRITER);
}

}  // namespace k9erepl::test
