// Taking all entries out of the index file, before what they describe changes.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>
#include <thread>

#include "index/index_fixture.h"

namespace k9erepl::test {
namespace {

class IndexObjectEmpty : public IndexObjectTest {
  protected:
    void SaveThree() {
        MakeStarted();
        m_blocks.AddMany(3);
        ASSERT_EQ(SaveSync(), RC_OK);
        m_log.Clear();
    }
    std::string FailureOf(const char* part, SystemErrorKind kind) const {
        return "Couldn't write file '" + Path() + "' (" + part + "); sysErr " + SysErr(kind);
    }
};

TEST_F(IndexObjectEmpty, LeavesAHeaderWithoutEntries) {
    SaveThree();
    EXPECT_EQ(m_index->Empty(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
    EXPECT_EQ(m_log.Texts(), std::vector<std::string>({"File rewritten (32 bytes)"}));
    EXPECT_FALSE(m_index->IsBusy());
    EXPECT_FALSE(m_index->IsFinished());
}

TEST_F(IndexObjectEmpty, ReturnsWhenThatIsOnTheDisk) {
    SaveThree();
    const u32 flushes = CallCount(SystemCall::kFlush);
    EXPECT_EQ(m_index->Empty(), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kFlush), flushes + 1);
}

TEST_F(IndexObjectEmpty, WritesAnEmptyFileToo) {
    MakeStarted();
    for (u32 i = 0; i < 2; ++i) {
        const u32 writes = CallCount(SystemCall::kWrite);
        EXPECT_EQ(m_index->Empty(), RC_OK);
        EXPECT_EQ(CallCount(SystemCall::kWrite), writes + 1);
        EXPECT_EQ(FileBytes(), IndexFileBytes({}));
    }
}

TEST_F(IndexObjectEmpty, IsFollowedByASaveOfEverything) {
    for (const IndexSaveMode mode : {IndexSaveMode::kSync, IndexSaveMode::kAsync}) {
        m_blocks.Clear();
        SaveThree();
        EXPECT_EQ(m_index->Empty(), RC_OK);
        m_blocks.AddMany(1);
        EXPECT_EQ(m_index->RequestSave(m_blocks.Index(), mode), RC_OK);
        WaitForThread();
        EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
        EXPECT_TRUE(m_log.Has("File rewritten (96 bytes)")) << m_log;
    }
}

TEST_F(IndexObjectEmpty, StartsAThreadThatHasFinished) {
    SaveThree();
    m_index->Stop();
    ASSERT_TRUE(m_index->IsFinished());
    EXPECT_EQ(m_index->Empty(), RC_OK);
    EXPECT_FALSE(m_index->IsFinished());
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectEmpty, StartsTheFirstThread) {
    Make();
    EXPECT_EQ(m_index->Empty(), RC_OK);
    EXPECT_FALSE(m_index->IsFinished());
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
}

TEST_F(IndexObjectEmpty, StartsAThreadWhoseSaveHasFailed) {
    SaveThree();
    m_blocks.AddMany(1);
    FailWrite(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    ASSERT_TRUE(WaitFor([this] { return m_index->IsFinished(); }));
    EXPECT_EQ(m_index->Empty(), RC_OK);
    EXPECT_FALSE(m_index->IsFinished());
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
}

// Whoever comes first: the thread that closes the file, or the one that empties it.
TEST_F(IndexObjectEmpty, SucceedsWhileTheSaveBeforeItFails) {
    MakeStarted();
    for (int round = 0; round < 30; ++round) {
        m_blocks.AddMany(1);
        FailWrite(1);
        ASSERT_EQ(SaveAsync(), RC_OK);
        ASSERT_EQ(m_index->Empty(), RC_OK) << m_log;
        ASSERT_EQ(FileBytes(), IndexFileBytes({}));
        m_index->Stop();
        ASSERT_EQ(m_index->Start(), RC_OK);
    }
}

TEST_F(IndexObjectEmpty, AnswersThatNoThreadCanBeStarted) {
    SaveThree();
    m_index->Stop();
    FailCreateThread(1);
    EXPECT_EQ(m_index->Empty(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_index->IsFinished());
    FailOpen(1);
    EXPECT_EQ(m_index->Empty(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_index->Empty(), RC_OK);
}

TEST_F(IndexObjectEmpty, AnswersAFailedWrite) {
    SaveThree();
    FailWrite(1);
    EXPECT_EQ(m_index->Empty(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(FailureOf("full", SystemErrorKind::kNoSpace)), RC_SYSTEM_ERROR) << m_log;
    EXPECT_FALSE(m_index->IsFinished());
    EXPECT_FALSE(m_index->IsBusy());
    EXPECT_EQ(m_index->Empty(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
}

TEST_F(IndexObjectEmpty, AnswersAFailedChangeOfTheSize) {
    SaveThree();
    FailSetEnd(1);
    EXPECT_EQ(m_index->Empty(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(FailureOf("full", SystemErrorKind::kNoSpace)), RC_SYSTEM_ERROR) << m_log;
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectEmpty, AnswersAFailedFlushToTheDisk) {
    SaveThree();
    FailFlush(1);
    EXPECT_EQ(m_index->Empty(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(FailureOf("flush", SystemErrorKind::kInputOutput)), RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_FALSE(m_index->IsFinished());
    EXPECT_FALSE(m_index->IsBusy());
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectEmpty, WaitsForASaveInProgress) {
    GateForWrites::Install();
    SaveThree();
    GateForWrites::Shut();
    m_blocks.AddMany(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    ASSERT_TRUE(WaitFor(GateForWrites::IsReached));
    std::atomic<bool> returned{false};
    std::thread emptier([&] {
        EXPECT_EQ(m_index->Empty(), RC_OK);
        returned = true;
    });
    for (u32 i = 0; i < 1000; ++i) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(returned);
    GateForWrites::Open();
    emptier.join();
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
}

}  // namespace
}  // namespace k9erepl::test
