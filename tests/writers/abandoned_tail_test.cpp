// Bytes that a rollback, a failed write or a broken load leaves behind the write position: they
// stay until the next write, and that one sees to it that none of them comes alive again.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/file_bytes.h"
#include "writers/writer_fixture.h"

namespace k9erepl::test {

namespace {

class AbandonedTail : public WriterTest {
  protected:
    // A committed transaction that is then rolled back. Returns the file as that leaves it.
    Bytes LeaveGhost() {
        EXPECT_EQ(Writer().BeginTransaction(), RC_OK);
        EXPECT_EQ(AppendRecord(1), RC_OK);
        EXPECT_EQ(CommitRecord(2, 2000), RC_OK);
        EXPECT_EQ(Writer().Rollback(), RC_OK);
        return FileBytes();
    }

    bool AllZeroFrom(i64 offset) const {
        const Bytes file = FileBytes();
        return std::all_of(At(file, offset), file.end(), [](u8 byte) { return byte == 0; });
    }
};

}  // namespace

TEST_F(AbandonedTail, StaysAsItIsUntilTheFirstWrite) {
    const Bytes ghost = LeaveGhost();
    EXPECT_EQ(Items(m_path), "C0 R1 R2 C2");
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    ASSERT_EQ(Writer().FlushFile(), RC_OK);
    EXPECT_EQ(FileBytes(), ghost);
}

TEST_F(AbandonedTail, IsZeroBehindTheFirstWriteAndTheFileKeepsItsSize) {
    const Bytes ghost = LeaveGhost();
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_TRUE(AllZeroFrom(Writer().WritePos()));
    EXPECT_EQ(FileLength(), static_cast<i64>(ghost.size()));
    EXPECT_TRUE(m_log.Has("Abandoned data was cleared;offset 1056,file size 1156")) << m_log;
}

TEST_F(AbandonedTail, ItsCommitBlockDoesNotCommitARetriedTransaction) {
    LeaveGhost();
    // The retry writes what the first attempt wrote, up to where its commit block stands.
    ASSERT_EQ(AppendRecord(1), RC_OK);
    ASSERT_EQ(AppendRecord(2), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 R2");
}

TEST_F(AbandonedTail, TheWriteLandsRightWhereCuttingMovesThePointer) {
    LeaveGhost();
    platform::TheSystemCalls().setFileEnd = SetEndMovingThePointer;
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1");
}

TEST_F(AbandonedTail, IsClearedOnce) {
    LeaveGhost();
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(SetEnds(), 2U);
    ASSERT_EQ(AppendRecord(2), RC_OK);
    EXPECT_EQ(SetEnds(), 2U);
}

TEST_F(AbandonedTail, KeepsAPresizedFileAtItsSize) {
    ResizeFile(m_path, 100000);
    m_state.fileSize = 100000;
    m_state.fileSizeDelta = 4096;
    LeaveGhost();
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(FileLength(), 100000);
    EXPECT_EQ(m_state.fileSize, 100000);
    EXPECT_TRUE(AllZeroFrom(Writer().WritePos()));
}

TEST_F(AbandonedTail, IsClearedBeforeTheFileGrows) {
    m_state.fileSizeDelta = 4096;
    LeaveGhost();
    ASSERT_EQ(Append(Bytes(6000, 0xEE)), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 6000), Bytes(6000, 0xEE));
    EXPECT_TRUE(AllZeroFrom(kStart + 6000));
    EXPECT_EQ(FileLength(), kNewFileSize + 2 * 4096);
    EXPECT_EQ(m_state.fileSize, kNewFileSize + 2 * 4096);
}

TEST_F(AbandonedTail, OfARollbackOverNothingNeedsNoClearing) {
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    ASSERT_EQ(Writer().Rollback(), RC_OK);
    ASSERT_EQ(CommitRecord(2, 3000), RC_OK);
    EXPECT_EQ(SetEnds(), 0U);
}

TEST_F(AbandonedTail, OfAHalfWrittenRunIsCleared) {
    Writer();
    ShortWrite(1, 60);
    ASSERT_EQ(AppendRun(Record(1, 10) + Record(2, 10), 2, 2000), RC_SYSTEM_ERROR);
    ASSERT_EQ(Append(Record(1, 0)), RC_OK);
    EXPECT_TRUE(AllZeroFrom(kStart + kRecordHeadSize));
    EXPECT_EQ(FileLength(), kNewFileSize + 52);
}

TEST_F(AbandonedTail, ThatALoadFoundIsClearedAtTheFirstWrite) {
    LeaveGhost();
    m_writer.reset();
    SyncStorageWriter loaded(&m_state);
    ASSERT_EQ(loaded.SetWritePos(kStart, true, true), RC_OK);
    EXPECT_FALSE(AllZeroFrom(kStart));
    Bytes record = Record(1, 10);
    ASSERT_EQ(loaded.Write(record.data(), 34, nullptr, nullptr, 1, nullptr), RC_OK);
    EXPECT_TRUE(AllZeroFrom(kStart + 34));
    EXPECT_EQ(Items(m_path), "C0 R1");
}

TEST_F(AbandonedTail, IsRememberedWhenTheWritePositionIsSetAgain) {
    LeaveGhost();
    ASSERT_EQ(Writer().SetWritePos(kStart, true, false), RC_OK);
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_TRUE(AllZeroFrom(Writer().WritePos()));
}

TEST_F(AbandonedTail, IsNotAssumedAfterAnOrdinaryLoad) {
    ASSERT_EQ(Writer().SetWritePos(kStart, true), RC_OK);
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(SetEnds(), 0U);
}

TEST_F(AbandonedTail, ThatTheFileNoLongerHasNeedsNoCutting) {
    LeaveGhost();
    ResizeFile(m_path, kStart);
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(SetEnds(), 0U);
    EXPECT_EQ(Items(m_path), "C0 R1");
}

TEST_F(AbandonedTail, ThatWasCutButNotExtendedMakesTheRecordedSizeFollow) {
    m_state.fileSizeDelta = 4096;
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    const i64 position = Writer().WritePos();
    LeaveGhost();
    FailSetEnd(2);
    ASSERT_EQ(AppendRecord(1), RC_SYSTEM_ERROR);
    EXPECT_EQ(FileLength(), position);
    EXPECT_EQ(m_state.fileSize, position);
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(m_state.fileSize, position + 4096);
    EXPECT_EQ(FileLength(), position + 4096);
}

TEST_F(AbandonedTail, RightBehindTheFirstCommitBlockKeepsTheFileAsLongAsANewOne) {
    const Bytes newFile = FileBytes();
    m_state.fileSizeDelta = 4096;
    LeaveGhost();
    FailSetEnd(2);
    ASSERT_EQ(AppendRecord(1), RC_SYSTEM_ERROR);
    EXPECT_EQ(FileBytes(), newFile);
    EXPECT_EQ(m_state.fileSize, kNewFileSize);
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(FileLength(), kNewFileSize + 4096);
    EXPECT_EQ(Items(m_path), "C0 R1");
}

TEST_F(AbandonedTail, RightBehindTheFirstCommitBlockIsZeroedByOneSmallWrite) {
    LeaveGhost();
    const u32 writes = CallCount(SystemCall::kWrite);
    FailSetEnd(1);
    ASSERT_EQ(AppendRecord(1), RC_SYSTEM_ERROR);
    EXPECT_EQ(CallCount(SystemCall::kWrite), writes + 1);
    EXPECT_EQ(FileBytes(kStart, 9), Bytes(8) + Bytes{Record(1, 10).at(8)});
    EXPECT_EQ(Items(m_path), "C0");
}

TEST_F(AbandonedTail, IsOnTheDiskBeforeTheWriteWithForceFlush) {
    m_state.forceFlush = true;
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    const i64 position = Writer().WritePos();
    LeaveGhost();
    FailWrite(1);
    ASSERT_EQ(AppendRecord(1), RC_SYSTEM_ERROR);
    EXPECT_EQ(Flushes(), 1U);
    EXPECT_TRUE(AllZeroFrom(position));
}

TEST_F(AbandonedTail, IsNotForcedToTheDiskWithoutForceFlush) {
    LeaveGhost();
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(Flushes(), 0U);
}

// --- ClearUndone -------------------------------------------------------------------------------

TEST_F(AbandonedTail, OfARollbackIsClearedWhenAsked) {
    const Bytes ghost = LeaveGhost();
    EXPECT_EQ(Writer().ClearUndone(), RC_OK);
    EXPECT_TRUE(AllZeroFrom(kStart));
    EXPECT_EQ(FileLength(), static_cast<i64>(ghost.size()));
    EXPECT_EQ(SetEnds(), 2U);
    ASSERT_EQ(Writer().ClearUndone(), RC_OK);
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(SetEnds(), 2U) << "once";
    EXPECT_EQ(Items(m_path), "C0 R1");
}

TEST_F(AbandonedTail, OfAHalfWrittenRunIsClearedWhenAsked) {
    Writer();
    ShortWrite(1, 60);
    ASSERT_EQ(AppendRun(Record(1, 10) + Record(2, 10), 2, 2000), RC_SYSTEM_ERROR);
    ASSERT_EQ(Writer().ClearUndone(), RC_OK);
    EXPECT_TRUE(AllZeroFrom(kStart));
}

TEST_F(AbandonedTail, ThatALoadFoundIsNotClearedWhenAsked) {
    const Bytes ghost = LeaveGhost();
    m_writer.reset();
    SyncStorageWriter loaded(&m_state);
    ASSERT_EQ(loaded.SetWritePos(kStart, true, true), RC_OK);
    ASSERT_EQ(loaded.BeginTransaction(), RC_OK);
    ASSERT_EQ(loaded.Rollback(), RC_OK);
    EXPECT_EQ(loaded.ClearUndone(), RC_OK);
    EXPECT_EQ(FileBytes(), ghost);
}

TEST_F(AbandonedTail, ThatWasNeverThereIsNotCleared) {
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    EXPECT_EQ(Writer().ClearUndone(), RC_OK);
    EXPECT_EQ(SetEnds(), 0U);
}

TEST_F(AbandonedTail, OfAClosedFileIsNotCleared) {
    LeaveGhost();
    Writer().CloseFile();
    EXPECT_EQ(Writer().ClearUndone(), RC_NO_WRITER);
}

}  // namespace k9erepl::test
