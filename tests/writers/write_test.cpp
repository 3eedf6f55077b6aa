// What a write of the synchronous writer puts into the file, and what it tells.
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
    struct Notice {
        i64 rev;
        i64 writePos;
        u32 sequence;
    };

    // Collects what OnWriteToFile is told, and what the writer's state is meanwhile.
    void Listen() {
        m_state.onWritten.Set(
            [](i64 rev, void* context) {
                auto* const self = static_cast<Write*>(context);
                self->m_notices.push_back(
                    {rev, self->Writer().WritePos(), self->m_state.lastCommitSequence.load()});
            },
            this);
    }

    std::vector<Notice> m_notices;
};

}  // namespace

TEST_F(Write, PutsTheBytesAtTheWritePositionAndNothingElse) {
    const Bytes before = FileBytes();
    ASSERT_EQ(Append(BytesOf("first;")), RC_OK);
    ASSERT_EQ(Append(BytesOf("second")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 12), BytesOf("first;second"));
    EXPECT_EQ(FileBytes(0, kStart), Bytes(before.begin(), before.begin() + kStart));
    EXPECT_EQ(FileLength(), kStart + 12);
}

TEST_F(Write, AdvancesTheWritePositionByTheSize) {
    ASSERT_EQ(Append(Bytes(100)), RC_OK);
    EXPECT_EQ(Writer().WritePos(), kStart + 100);
    EXPECT_EQ(m_state.writePos, kStart + 100);
}

TEST_F(Write, OfNoBytesChangesNothing) {
    const Bytes before = FileBytes();
    EXPECT_EQ(Append({}), RC_OK);
    EXPECT_EQ(FileBytes(), before);
    EXPECT_EQ(Writer().WritePos(), kStart);
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

TEST_F(Write, OfACommitBlockAloneIsStampedToo) {
    ASSERT_EQ(AppendRun({}, 0, 2000), RC_OK);
    EXPECT_EQ(CommitBlockAt(kStart).prevSequence, kFirstSequence);
    EXPECT_EQ(Writer().WritePos(), kStart + kCommitBlockSize);
}

TEST_F(Write, LinksEachCommitBlockToTheOneBefore) {
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    ASSERT_EQ(CommitRecord(2, 500), RC_OK);
    ASSERT_EQ(CommitRecord(3, 4000), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 C2 R3 C3");
}

TEST_F(Write, WithoutACommitBlockLeavesTheSequenceAndTellsNobody) {
    Listen();
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(m_state.lastCommitSequence, kFirstSequence);
    EXPECT_TRUE(m_notices.empty());
}

TEST_F(Write, TellsOncePerCommitBlockWithItsCommitRevision) {
    Listen();
    ASSERT_EQ(AppendRecord(1), RC_OK);
    ASSERT_EQ(AppendRun(Record(2, 10), 2, 2000), RC_OK);
    ASSERT_EQ(AppendRun({}, 2, 3000), RC_OK);
    ASSERT_EQ(m_notices.size(), 2U);
    EXPECT_EQ(m_notices[0].rev, 2);
    EXPECT_EQ(m_notices[1].rev, 2);
}

TEST_F(Write, TellsWhenEverythingIsSettled) {
    Listen();
    ASSERT_EQ(AppendRun({}, 9, 2000), RC_OK);
    ASSERT_EQ(m_notices.size(), 1U);
    EXPECT_EQ(m_notices[0].writePos, kStart + kCommitBlockSize);
    EXPECT_EQ(m_notices[0].sequence, 2000U);
}

TEST_F(Write, FillsInAnUnknownPositionWithTheOffsetOfItsData) {
    std::atomic<i64> position{kUnknownOffset};
    ASSERT_EQ(Append(Bytes(40)), RC_OK);
    ASSERT_EQ(Append(Bytes(7), &position), RC_OK);
    EXPECT_EQ(position, kStart + 40);
}

TEST_F(Write, LeavesAKnownPositionAsItIs) {
    std::atomic<i64> position{0};
    ASSERT_EQ(Append(Bytes(7), &position), RC_OK);
    EXPECT_EQ(position, 0);
    position = 4711;
    ASSERT_EQ(Append(Bytes(7), &position), RC_OK);
    EXPECT_EQ(position, 4711);
}

TEST_F(Write, WorksBeyondFourGibibytes) {
    constexpr i64 kFar = (i64{1} << 32U) + 5;
    ASSERT_EQ(Writer().SetWritePos(kFar, true), RC_OK);
    std::atomic<i64> position{kUnknownOffset};
    ASSERT_EQ(Append(BytesOf("far"), &position), RC_OK);
    EXPECT_EQ(position, kFar);
    EXPECT_EQ(FileLength(), kFar + 3);
    EXPECT_EQ(m_log.CountContaining(" Size: 3 m_fileCurrWritePos: 4294967301 "), 1U) << m_log;
}

TEST_F(Write, CompletesATransferThatTheSystemMakesInTwo) {
    Writer();
    SplitWrite(1, 4);
    ASSERT_EQ(Append(BytesOf("in two parts")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 12), BytesOf("in two parts"));
}

TEST_F(Write, NothingIsEverQueued) {
    EXPECT_EQ(Writer().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(Writer().WaitReleaseBlock(), RC_OK);
}

TEST_F(Write, OnAClosedFileAnswersNoWriter) {
    Writer().CloseFile();
    std::atomic<i64> position{kUnknownOffset};
    EXPECT_EQ(Append(Bytes(7), &position), RC_NO_WRITER);
    EXPECT_EQ(AppendRun({}, 1, 2000), RC_NO_WRITER);
    EXPECT_EQ(position, kUnknownOffset);
    EXPECT_EQ(Writer().WritePos(), kStart);
}

}  // namespace k9erepl::test
