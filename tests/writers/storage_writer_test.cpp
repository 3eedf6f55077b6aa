// What a write of the synchronous writer puts into the file and tells, how the file grows ahead of
// the data, when it is forced to the disk, and what a failed write leaves. With commit_barrier,
// what a commit block commits is on the disk before the block is written.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "writers/writer_fixture.h"

namespace k9erepl::test {
namespace {

platform::NativeFile g_writtenFile;

i64 RecordingWrite(platform::NativeFile file, const void* data, u32 size) {
    g_writtenFile = file;
    return platform::NativeSystemCalls().writeFile(file, data, size);
}

class Write : public WriterTest {
  protected:
    // Collects what OnWriteToFile is told, and what the writer's state is meanwhile: revision,
    // write position, sequence.
    void Listen() {
        m_state.onWritten.Set(
            [](i64 rev, void* context) {
                auto* const self = static_cast<Write*>(context);
                self->m_notices.push_back(
                    {rev, self->Writer().WritePos(), self->m_state.lastCommitSequence.load()});
            },
            this);
    }

    std::vector<std::vector<i64>> m_notices;
};

TEST_F(Write, PutsTheBytesAtTheWritePositionAndNothingElse) {
    const Bytes before = FileBytes();
    EXPECT_EQ(Append({}), RC_OK);
    EXPECT_EQ(FileBytes(), before);
    ASSERT_EQ(Append(BytesOf("first;")), RC_OK);
    ASSERT_EQ(Append(BytesOf("second")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 12), BytesOf("first;second"));
    EXPECT_EQ(FileBytes(0, kStart), Bytes(before.begin(), before.begin() + kStart));
    EXPECT_EQ(FileLength(), kStart + 12);
    EXPECT_EQ(Writer().WritePos(), kStart + 12);
    EXPECT_EQ(m_state.writePos, kStart + 12);
}

TEST_F(Write, LogsItsPlaceBeforeAndItsSizeAfter) {
    Bytes data(10);
    Writer();
    platform::TheSystemCalls().writeFile = RecordingWrite;
    m_log.Clear();
    ASSERT_EQ(Writer().Write(data.data(), 10, nullptr, nullptr, 77, nullptr), RC_OK);
    char place[200];
    K9SysSNPrintf(place, sizeof place,
                  "Write to Handle: 0x%p Data: 0x%p Size: 10 m_fileCurrWritePos: 1056 ",
                  reinterpret_cast<void*>(g_writtenFile), data.data());
    const LoggedMessage before{K9SYS_LOG_INFO, "k9eRepl-storage", place, 0};
    const LoggedMessage after{K9SYS_LOG_INFO, "k9eRepl-storage",
                              "Written data size 10, last rev 77", 0};
    EXPECT_EQ(m_log.Messages(), (std::vector{before, after})) << m_log;
}

TEST_F(Write, StampsTheCommitBlockWithTheLastSequenceAndTheClearRevision) {
    m_state.clearRev = 5;
    ASSERT_EQ(AppendRun(Record(7, 3), 7, 2000), RC_OK);
    const TCommitBlock block = CommitBlockAt(kStart + 27);
    EXPECT_EQ(block.signature, kCommitSignature);
    EXPECT_EQ(block.prevSequence, kFirstSequence);
    EXPECT_EQ(block.sequence, 2000U);
    EXPECT_EQ(block.zero, 0U);
    EXPECT_EQ(block.clearRev, 5);
    EXPECT_EQ(block.commitRev, 7);
    EXPECT_EQ(m_state.lastCommitSequence, 2000U);
}

TEST_F(Write, TellsOncePerCommitBlockWhenEverythingIsSettled) {
    Listen();
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(m_state.lastCommitSequence, kFirstSequence);
    ASSERT_EQ(AppendRun(Record(2, 10), 2, 2000), RC_OK);
    ASSERT_EQ(AppendRun({}, 2, 3000), RC_OK);
    const i64 first = kStart + 2 * 34 + kCommitBlockSize;
    EXPECT_EQ(m_notices, (std::vector<std::vector<i64>>{{2, first, 2000},
                                                        {2, first + kCommitBlockSize, 3000}}));
}

TEST_F(Write, FillsInTheOffsetOfItsDataWhereThatIsUnknown) {
    std::atomic<i64> position{kUnknownOffset};
    ASSERT_EQ(Append(Bytes(40)), RC_OK);
    ASSERT_EQ(Append(Bytes(7), &position), RC_OK);
    EXPECT_EQ(position, kStart + 40);
    position = 0;
    ASSERT_EQ(Append(Bytes(7), &position), RC_OK);
    EXPECT_EQ(position, 0);
}

TEST_F(Write, OnAClosedFileAnswersNoWriterAndNothingIsEverQueued) {
    Writer().CloseFile();
    std::atomic<i64> position{kUnknownOffset};
    EXPECT_EQ(Append(Bytes(7), &position), RC_NO_WRITER);
    EXPECT_EQ(AppendRun({}, 1, 2000), RC_NO_WRITER);
    EXPECT_EQ(position, kUnknownOffset);
    EXPECT_EQ(Writer().WritePos(), kStart);
    EXPECT_EQ(Writer().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(Writer().WaitReleaseBlock(), RC_OK);
    EXPECT_EQ(Writer().BeginTransaction(), RC_NO_WRITER);
    EXPECT_EQ(Writer().Rollback(), RC_NO_WRITER);
    EXPECT_EQ(Writer().FlushFile(), RC_NO_WRITER);
    m_state.forceFlush = true;
    EXPECT_EQ(Writer().FlushFile(), RC_NO_WRITER);
    EXPECT_EQ(Flushes(), 0U);
}

TEST_F(Write, ThatFailsOrStaysShortIsReportedAndChangesNothing) {
    Listen();
    std::atomic<i64> position{kUnknownOffset};
    Writer();
    const std::string text = "Cannot write data;" + SysErr(SystemErrorKind::kNoSpace);
    for (const bool partly : {false, true}) {
        m_log.Clear();
        // Before the second attempt zeros are written over what the first may have left.
        partly ? ShortWrite(2, 60) : FailWrite(1);
        EXPECT_EQ(Append(Bytes(100), &position), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR) << m_log;
        EXPECT_EQ(m_log.CountContaining("Written data size"), 0U);
        EXPECT_EQ(Writer().WritePos(), kStart);
        EXPECT_EQ(position, kUnknownOffset);
    }
    FailWrite(2);
    EXPECT_EQ(AppendRun(Record(1, 10), 1, 2000), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_state.lastCommitSequence, kFirstSequence);
    EXPECT_TRUE(m_notices.empty());
    ASSERT_EQ(Append(BytesOf("again")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 5), BytesOf("again"));
    EXPECT_EQ(Writer().WritePos(), kStart + 5);
}

constexpr i64 kStep = 1024;

class Growth : public WriterTest {
  protected:
    Growth() { m_state.fileSizeDelta = kStep; }
};

TEST_F(Growth, AWriteThatEndsAtTheRecordedSizeDoesNotExpand) {
    ASSERT_EQ(Append(Bytes(8)), RC_OK);
    EXPECT_EQ(FileLength(), kNewFileSize);
    EXPECT_EQ(m_state.fileSize, kNewFileSize);
    EXPECT_EQ(SetEnds(), 0U);
}

TEST_F(Growth, OneByteMoreExpandsByOneStepBeforeItIsWritten) {
    ASSERT_EQ(Append(Bytes(9, 0xEE)), RC_OK);
    EXPECT_EQ(FileLength(), kNewFileSize + kStep);
    EXPECT_EQ(m_state.fileSize, kNewFileSize + kStep);
    EXPECT_EQ(FileBytes(kStart, 9), Bytes(9, 0xEE));
    EXPECT_EQ(FileBytes(kStart + 9, kStep - 1), Bytes(kStep - 1));
    const std::vector<std::string> texts = m_log.Texts(K9SYS_LOG_INFO);
    ASSERT_EQ(texts.size(), 3U) << m_log;
    EXPECT_EQ(texts[0], "File was expanded; new size 2088 ");
    EXPECT_EQ(texts[2], "Written data size 9, last rev 0");
}

TEST_F(Growth, WithoutAStepTheFileGrowsOnlyByWrites) {
    for (const i64 step : {i64{0}, i64{-1}}) {
        StorageFileState state;
        state.path = m_path;
        state.fileSizeDelta = step;
        SyncStorageWriter writer(&state);
        ASSERT_EQ(writer.SetWritePos(kStart, true), RC_OK);
        Bytes data(5000);
        ASSERT_EQ(writer.Write(data.data(), 5000, nullptr, nullptr, 0, nullptr), RC_OK);
        EXPECT_EQ(FileLength(), kStart + 5000);
        EXPECT_EQ(state.fileSize, 0);
    }
    EXPECT_EQ(SetEnds(), 0U);
}

TEST_F(Growth, ALargeWriteExpandsByOneStepOnlyAndTheStepAfterItCutsNothing) {
    const Bytes large(5000, 0xEE);
    ASSERT_EQ(Append(large), RC_OK);
    EXPECT_EQ(SetEnds(), 1U);
    EXPECT_EQ(m_state.fileSize, kNewFileSize + kStep);
    EXPECT_EQ(FileLength(), kStart + 5000);
    ASSERT_EQ(Append(BytesOf("next")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 5004), large + BytesOf("next"));
    EXPECT_EQ(m_state.fileSize, kNewFileSize + 2 * kStep);
    EXPECT_TRUE(m_log.Has("File was expanded; new size 3112 ")) << m_log;
    while (m_state.fileSize < kStart + 5004) {
        ASSERT_EQ(Append(Bytes(1)), RC_OK);
    }
    EXPECT_EQ(FileLength(), m_state.fileSize);
}

TEST_F(Growth, AFailedExpansionIsReportedAndItsSizeStaysRecorded) {
    Writer();
    FailSetEnd(1);
    EXPECT_EQ(Append(Bytes(9)), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Cannot expand file by (1024);" + SysErr(SystemErrorKind::kNoSpace)),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(m_state.fileSize, kNewFileSize + kStep);
    EXPECT_EQ(Writer().WritePos(), kStart);
    EXPECT_EQ(FileLength(), kNewFileSize);
    ASSERT_EQ(Append(BytesOf("123456789")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 9), BytesOf("123456789"));
    EXPECT_EQ(SetEnds(), 1U);
}

TEST_F(Growth, TheWriteLandsRightWhereExpandingMovesThePointerAndMayFailBehindThat) {
    Writer();
    platform::TheSystemCalls().setFileEnd = [](platform::NativeFile file, i64 size) {
        return SetEndMovingThePointer(file, size) && false;
    };
    ASSERT_EQ(Append(Bytes(9)), RC_SYSTEM_ERROR);
    ASSERT_EQ(Append(BytesOf("123456789")), RC_OK);
    platform::TheSystemCalls().setFileEnd = SetEndMovingThePointer;
    ASSERT_EQ(Append(Bytes(2000, 0xEE)), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 2009), BytesOf("123456789") + Bytes(2000, 0xEE));
    EXPECT_EQ(m_state.fileSize, kNewFileSize + 2 * kStep);
}

TEST_F(Growth, AFailedSeekBackIsReportedAndTheNextWriteMakesUpForIt) {
    Writer();
    FailSeek(1);
    EXPECT_EQ(Append(Bytes(9)), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Cannot seek to offset 1056;" + SysErr(SystemErrorKind::kInputOutput)),
              RC_SYSTEM_ERROR)
        << m_log;
    ASSERT_EQ(Append(BytesOf("123456789")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 9), BytesOf("123456789"));
    EXPECT_EQ(m_state.fileSize, kNewFileSize + kStep);
}

using FlushFile = WriterTest;

TEST_F(FlushFile, FlushesOnlyWithForceFlushAndNamesTheFlushedRevision) {
    ASSERT_EQ(CommitRecord(7, 2000), RC_OK);
    m_log.Clear();
    EXPECT_EQ(Writer().FlushFile(), RC_OK);
    EXPECT_EQ(Flushes(), 0U);
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
    m_state.forceFlush = true;
    EXPECT_EQ(Writer().FlushFile(), RC_OK);
    EXPECT_EQ(Flushes(), 1U);
    const LoggedMessage expected{K9SYS_LOG_INFO, "k9eRepl-storage", "FlushFile flushedRev 7", 0};
    EXPECT_EQ(m_log.Messages(), std::vector{expected}) << m_log;
}

using Calls = std::vector<std::string>;

// The writes and flushes that reached the system, in order.
Calls g_calls;
platform::SystemCalls g_next;

i64 RecordWrite(platform::NativeFile file, const void* data, u32 size) {
    const i64 put = g_next.writeFile(file, data, size);
    g_calls.push_back("write " + std::to_string(put));
    return put;
}

bool RecordFlush(platform::NativeFile file) {
    const bool flushed = g_next.flushFile(file);
    g_calls.emplace_back(flushed ? "flush" : "failed flush");
    return flushed;
}

class CommitBarrier : public WriterTest {
  protected:
    CommitBarrier() {
        g_calls.clear();
        g_next = platform::TheSystemCalls();
        platform::TheSystemCalls().writeFile = RecordWrite;
        platform::TheSystemCalls().flushFile = RecordFlush;
        m_state.forceFlush = true;
        m_state.commitBarrier = true;
    }
};

TEST_F(CommitBarrier, FlushesTheRecordsBeforeTheirCommitBlockIsWritten) {
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    EXPECT_EQ(g_calls, (Calls{"write 34", "flush", "write 32"}));
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Flush before commit block;offset 1090")) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Written data size 66, last rev 1")) << m_log;
}

TEST_F(CommitBarrier, FlushesTheRecordsOfEarlierWritesTooButNothingThatIsOnTheDisk) {
    ASSERT_EQ(AppendRecord(1), RC_OK);
    ASSERT_EQ(AppendRun({}, 1, 2000), RC_OK);
    EXPECT_EQ(g_calls, (Calls{"write 34", "flush", "write 32"}));
    ASSERT_EQ(Writer().FlushFile(), RC_OK);
    g_calls.clear();
    m_log.Clear();
    ASSERT_EQ(AppendRun({}, 1, 3000), RC_OK);
    EXPECT_EQ(g_calls, Calls{"write 32"});
    EXPECT_EQ(m_log.CountContaining("Flush before"), 0U);
}

TEST_F(CommitBarrier, TakesNothingForGrantedOfWhatLayInTheFileBefore) {
    ASSERT_EQ(AppendRun({}, 0, 2000), RC_OK);
    EXPECT_EQ(g_calls, (Calls{"flush", "write 32"}));
}

TEST_F(CommitBarrier, MakesTheFileGrowBeforeTheFlush) {
    m_state.fileSizeDelta = 100;
    // The records fit the file, their commit block does not.
    ASSERT_EQ(AppendRecord(1), RC_OK);
    g_calls.clear();
    const u32 setEnds = SetEnds();
    ASSERT_EQ(AppendRun(Record(2, 30), 2, 2000), RC_OK);
    EXPECT_EQ(SetEnds(), setEnds + 1);
    EXPECT_EQ(FileLength(), kNewFileSize + 200);
    EXPECT_EQ(g_calls, (Calls{"write 54", "flush", "write 32"}));
}

TEST_F(CommitBarrier, IsOffByDefaultAndHasNoEffectWithoutForceFlush) {
    EXPECT_FALSE(StorageFileState().commitBarrier);
    for (const bool barrier : {true, false}) {
        m_state.commitBarrier = barrier;
        m_state.forceFlush = !barrier;
        ASSERT_EQ(CommitRecord(barrier ? 1 : 2, barrier ? 2000 : 3000), RC_OK);
    }
    EXPECT_EQ(g_calls, (Calls{"write 66", "write 66"}));
}

TEST_F(CommitBarrier, AFailedFlushLeavesEverythingAsItWas) {
    int notified = 0;
    m_state.onWritten.Set([](i64, void* count) { ++*static_cast<int*>(count); }, &notified);
    Writer();
    FailFlush(1);
    EXPECT_EQ(CommitRecord(1, 2000), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("FlushFileBuffers failed;" + SysErr(SystemErrorKind::kInputOutput)),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(Writer().WritePos(), kStart);
    EXPECT_EQ(m_state.lastCommitSequence, kFirstSequence);
    EXPECT_EQ(notified, 0);
    EXPECT_EQ(g_calls, (Calls{"write 34", "failed flush"}));
}

TEST_F(CommitBarrier, AfterAFailedFlushEverythingIsWrittenAgainOverZeros) {
    Writer();
    FailFlush(1);
    ASSERT_EQ(CommitRecord(1, 2000), RC_SYSTEM_ERROR);
    g_calls.clear();
    ASSERT_EQ(CommitRecord(1, 3000), RC_OK);
    // The first flush is that of the zeros.
    EXPECT_EQ(g_calls, (Calls{"write 8", "flush", "write 34", "flush", "write 32"}));
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
}

TEST_F(CommitBarrier, ACommitBlockThatCannotBeWrittenTakesItsRecordsBack) {
    Writer();
    FailWrite(2);
    ASSERT_EQ(CommitRecord(1, 2000), RC_SYSTEM_ERROR);
    EXPECT_EQ(Writer().WritePos(), kStart);
    ASSERT_EQ(CommitRecord(1, 3000), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
}

TEST_F(CommitBarrier, AFailedFlushIsTriedAgainByTheNextCommitBlock) {
    ASSERT_EQ(AppendRecord(1), RC_OK);
    FailFlush(1);
    ASSERT_EQ(AppendRun({}, 1, 2000), RC_SYSTEM_ERROR);
    g_calls.clear();
    ASSERT_EQ(AppendRun({}, 1, 3000), RC_OK);
    EXPECT_EQ(g_calls, (Calls{"flush", "write 32"}));
}

}  // namespace
}  // namespace k9erepl::test
