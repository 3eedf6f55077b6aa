// Saving the block index, by the caller and by the thread.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>
#include <thread>

#include "index/index_fixture.h"

namespace k9erepl::test {
namespace {

using IndexObjectSave = IndexObjectTest;

TEST_F(IndexObjectSave, WritesBeforeASynchronousSaveReturns) {
    MakeStarted();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Sync idx save requested")) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "File rewritten (80 bytes)"));
    EXPECT_FALSE(m_index->IsBusy());
}

TEST_F(IndexObjectSave, LetsTheThreadWriteAnAsynchronousSave) {
    MakeStarted();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Async idx save requested")) << m_log;
    EXPECT_FALSE(m_index->IsFinished());
}

TEST_F(IndexObjectSave, UpdatesTheFileAtLaterSaves) {
    MakeStarted();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveAsync(), RC_OK);
    m_blocks.AddMany(4);
    EXPECT_EQ(SaveAsync(), RC_OK);
    m_blocks.AddMany(5);
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    EXPECT_TRUE(m_log.Has("File updated (80 bytes)")) << m_log;
    EXPECT_TRUE(m_log.Has("File updated (96 bytes)")) << m_log;
}

TEST_F(IndexObjectSave, WritesNothingWhenTheBlockIndexHasNotChanged) {
    MakeStarted();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveSync(), RC_OK);
    const u32 writes = CallCount(SystemCall::kWrite);
    m_log.Clear();
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(SaveAsync(), RC_OK);
    EXPECT_FALSE(m_index->IsBusy());
    EXPECT_EQ(CallCount(SystemCall::kWrite), writes);
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
}

TEST_F(IndexObjectSave, WritesNothingForAnEmptyBlockIndexAtFirst) {
    MakeStarted();
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kWrite), 1U);
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
}

TEST_F(IndexObjectSave, WritesEverythingAfterStartOver) {
    MakeStarted();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveSync(), RC_OK);
    m_blocks.Remove(1);
    m_index->StartOver();
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    m_index->StartOver();
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    EXPECT_EQ(m_log.Count("File rewritten (64 bytes)"), 2U) << m_log;
}

TEST_F(IndexObjectSave, EmptiesTheFileWhenAllBlocksAreGone) {
    MakeStarted();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveSync(), RC_OK);
    m_blocks.Clear();
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
}

TEST_F(IndexObjectSave, ReturnsTheFailureOfASynchronousSave) {
    MakeStarted();
    m_blocks.AddMany(3);
    FailWrite(1);
    EXPECT_EQ(SaveSync(), RC_SYSTEM_ERROR);
    const std::string text =
        "Couldn't write file '" + Path() + "' (full); sysErr " + SysErr(SystemErrorKind::kNoSpace);
    EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR) << m_log;
    EXPECT_FALSE(m_index->IsFinished());
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectSave, WritesEverythingAfterAFailedUpdate) {
    MakeStarted();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveSync(), RC_OK);
    m_blocks.AddMany(1);
    FailWrite(2);
    EXPECT_EQ(SaveSync(), RC_SYSTEM_ERROR);
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_TRUE(m_log.Has("File rewritten (96 bytes)")) << m_log;
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectSave, AnswersExhaustedMemory) {
    MakeStarted();
    m_blocks.AddMany(1000);
    FailAlloc(1);
    EXPECT_EQ(SaveAsync(), RC_NO_MEMORY);
    EXPECT_EQ(m_log.CodeOf("Couldn't allocate buffer"), RC_NO_MEMORY) << m_log;
    EXPECT_FALSE(m_index->IsBusy());
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectSave, EndsTheThreadWhenItsWriteFails) {
    MakeStarted();
    m_blocks.AddMany(3);
    FailWrite(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    ASSERT_TRUE(WaitFor([this] { return m_index->IsFinished(); }));
    WaitForThread();
    EXPECT_EQ(m_log.CountContaining("' (full); sysErr "), 1U) << m_log;
    EXPECT_EQ(m_log.CountContaining(";exit code 0x4"), 1U) << m_log;
}

TEST_F(IndexObjectSave, AnswersAnErrorWhenTheThreadHasEnded) {
    MakeStarted();
    m_blocks.AddMany(3);
    FailWrite(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    ASSERT_TRUE(WaitFor([this] { return m_index->IsFinished(); }));
    EXPECT_EQ(SaveAsync(), RC_OK);
    EXPECT_FALSE(m_index->IsBusy());
    EXPECT_EQ(SaveSync(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CountContaining("Couldn't write file '" + Path() + "' (full); sysErr "), 2U)
        << m_log;
    m_index->StartOver();
    EXPECT_FALSE(m_index->IsBusy());
}

TEST_F(IndexObjectSave, AnswersAnErrorBeforeTheStart) {
    Make();
    EXPECT_EQ(SaveSync(), RC_SYSTEM_ERROR);
    EXPECT_EQ(SaveAsync(), RC_OK);
    EXPECT_FALSE(m_index->IsBusy());
}

TEST_F(IndexObjectSave, BeginsWithAFullWriteAfterARestart) {
    MakeStarted();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveSync(), RC_OK);
    m_blocks.AddMany(1);
    FailWrite(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    ASSERT_TRUE(WaitFor([this] { return m_index->IsFinished(); }));
    m_index->Stop();
    ASSERT_EQ(m_index->Start(), RC_OK);
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    EXPECT_TRUE(m_log.Has("File rewritten (96 bytes)")) << m_log;
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectSave, KeepsARequestMadeRightAfterTheStart) {
    Make();
    m_blocks.AddMany(1);
    for (u32 i = 0; i < 50; ++i) {
        ASSERT_EQ(m_index->Start(), RC_OK);
        ASSERT_EQ(SaveAsync(), RC_OK);
        WaitForThread();
        ASSERT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    }
}

TEST_F(IndexObjectSave, MakesUpForAFailedWakeUpAtTheNextTimeOut) {
    MakeStarted(1);
    m_blocks.AddMany(3);
    FailSetEvent(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectSave, WaitsForTheThreadsWriteBeforeTheNextSave) {
    GateForWrites::Install();
    MakeStarted();
    GateForWrites::Shut();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveAsync(), RC_OK);
    ASSERT_TRUE(WaitFor(GateForWrites::IsReached));
    EXPECT_TRUE(m_index->IsBusy());
    Blocks more;
    more.AddMany(5);
    std::atomic<bool> returned{false};
    std::thread requester([&] {
        EXPECT_EQ(m_index->RequestSave(more.Index(), IndexSaveMode::kSync), RC_OK);
        returned = true;
    });
    for (u32 i = 0; i < 1000; ++i) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(returned);
    EXPECT_FALSE(m_log.Has("Sync idx save requested")) << m_log;
    GateForWrites::Open();
    requester.join();
    EXPECT_EQ(FileBytes(), IndexFileBytes(more.All()));
    EXPECT_TRUE(m_log.Has("File updated (48 bytes)")) << m_log;
}

}  // namespace
}  // namespace k9erepl::test
