// The setting commit_barrier: what a commit block commits is on the disk before the block is
// written, and the bytes of the file do not tell.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "writers/writer_fixture.h"

namespace k9erepl::test {
namespace {

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
