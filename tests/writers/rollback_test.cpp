// What rolling a transaction of the storage file back restores, and the bytes that a rollback, a
// failed write or a broken load leaves behind the write position: they stay until the next write,
// and that one sees to it that none of them comes alive again.
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>

#include "support/file_bytes.h"
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

TEST_F(Rollback, RestoresPositionCommitSequenceAndFlushedRevision) {
    RollTwoRecordsBack();
    for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(Writer().WritePos(), kAfterFirst);
        EXPECT_EQ(m_state.lastCommitSequence, 2000U);
        EXPECT_EQ(m_state.lastFlushedRev, 1);
        EXPECT_EQ(Writer().Rollback(), RC_OK);
    }
}

TEST_F(Rollback, ARetriedCommitLinksToTheBlockBeforeTheTransaction) {
    RollTwoRecordsBack();
    ASSERT_EQ(AppendRecord(2), RC_OK);
    ASSERT_EQ(CommitRecord(3, 4000), RC_OK);
    EXPECT_EQ(CommitBlockAt(Writer().WritePos() - kCommitBlockSize).prevSequence, 2000U);
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 R3 C3");
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
    EXPECT_EQ(SetEnds(), 2U);
    ASSERT_EQ(AppendRecord(2), RC_OK);
    EXPECT_EQ(SetEnds(), 2U);
    EXPECT_EQ(Flushes(), 0U);
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

TEST_F(AbandonedTail, OfAHalfWrittenRunIsClearedByTheNextWriteOrWhenAsked) {
    Writer();
    for (const bool asked : {false, true}) {
        ASSERT_EQ(Writer().SetWritePos(kStart, true), RC_OK);
        ShortWrite(1, 60);
        ASSERT_EQ(AppendRun(Record(1, 10) + Record(2, 10), 2, 2000), RC_SYSTEM_ERROR);
        ASSERT_EQ(asked ? Writer().ClearUndone() : Append(Record(1, 0)), RC_OK);
        EXPECT_TRUE(AllZeroFrom(asked ? kStart : kStart + kRecordHeadSize));
        EXPECT_EQ(FileLength(), kNewFileSize + 52);
    }
}

TEST_F(AbandonedTail, ThatALoadFoundIsClearedAtTheFirstWriteAndNotWhenAsked) {
    const Bytes ghost = LeaveGhost();
    m_writer.reset();
    SyncStorageWriter loaded(&m_state);
    ASSERT_EQ(loaded.SetWritePos(kStart, true, true), RC_OK);
    ASSERT_EQ(loaded.BeginTransaction(), RC_OK);
    ASSERT_EQ(loaded.Rollback(), RC_OK);
    EXPECT_EQ(loaded.ClearUndone(), RC_OK);
    EXPECT_EQ(FileBytes(), ghost);
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

TEST_F(AbandonedTail, ThatWasNeverThereIsNotCleared) {
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    EXPECT_EQ(Writer().ClearUndone(), RC_OK);
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    ASSERT_EQ(Writer().Rollback(), RC_OK);
    ASSERT_EQ(CommitRecord(2, 3000), RC_OK);
    ASSERT_EQ(Writer().SetWritePos(kStart, true), RC_OK);
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(SetEnds(), 0U);
    Writer().CloseFile();
    EXPECT_EQ(Writer().ClearUndone(), RC_NO_WRITER);
}

// The `nth` call of its kind in the clearing of a tail that begins behind one record with its
// commit block, or if `first` right behind the file's first commit block.
struct Step {
    bool first;
    SystemCall call;
    u32 nth;
    const char* items;  // what the file holds when this step has failed
};

constexpr Step kSteps[] = {{true, SystemCall::kFileSize, 1, "C0 R2 R3 C3"},
                           {true, SystemCall::kSeek, 1, "C0 R2 R3 C3"},
                           {true, SystemCall::kWrite, 1, "C0 R2 R3 C3"},
                           {true, SystemCall::kSetEnd, 1, "C0"},
                           {true, SystemCall::kSetEnd, 2, "C0"},
                           {true, SystemCall::kFlush, 1, "C0"},
                           {false, SystemCall::kFileSize, 1, "C0 R1 C1 R2 R3 C3"},
                           {false, SystemCall::kSetEnd, 1, "C0 R1 C1 R2 R3 C3"},
                           {false, SystemCall::kSetEnd, 2, "C0 R1 C1"},
                           {false, SystemCall::kFlush, 1, "C0 R1 C1"}};

TEST_F(AbandonedTail, ThatCannotBeClearedIsReportedAndClearedByTheNextWrite) {
    const Bytes newFile = FileBytes();
    m_state.forceFlush = true;
    for (const Step& step : kSteps) {
        m_writer.reset();
        WriteBytes(m_path, newFile);
        m_state.lastCommitSequence = kFirstSequence;
        const std::string before = step.first ? "C0" : "C0 R1 C1";
        if (!step.first) {
            ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
        }
        const i64 position = Writer().WritePos();
        ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
        ASSERT_EQ(AppendRecord(2), RC_OK);
        ASSERT_EQ(CommitRecord(3, 3000), RC_OK);
        ASSERT_EQ(Writer().Rollback(), RC_OK);
        Fail(step.call, step.nth);
        m_log.Clear();
        EXPECT_EQ(AppendRecord(2), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_log.CodeOf("Cannot clear abandoned data;offset " + std::to_string(position) +
                               "," + SysErr(SystemErrorKind::kInputOutput)),
                  RC_SYSTEM_ERROR)
            << m_log;
        EXPECT_EQ(Writer().WritePos(), position);
        EXPECT_EQ(Items(m_path), step.items);
        EXPECT_GE(FileLength(), i64{kNewFileSize}) << "long enough to load";
        ASSERT_EQ(AppendRecord(2), RC_OK);
        ASSERT_EQ(AppendRecord(3), RC_OK);
        EXPECT_EQ(Items(m_path), before + " R2 R3");
        ASSERT_EQ(AppendRun({}, 3, 4000), RC_OK);
        EXPECT_EQ(Items(m_path), before + " R2 R3 C3");
    }
}

}  // namespace
}  // namespace k9erepl::test
