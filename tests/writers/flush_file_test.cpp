// When the writer forces the file to the disk, and what it says.
#include <gtest/gtest.h>

#include <vector>

#include "writers/writer_fixture.h"

namespace k9erepl::test {

namespace {

class FlushFile : public WriterTest {};

}  // namespace

TEST_F(FlushFile, WithoutForceFlushDoesNothing) {
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    m_log.Clear();
    EXPECT_EQ(Writer().FlushFile(), RC_OK);
    EXPECT_EQ(Flushes(), 0U);
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
}

TEST_F(FlushFile, WithForceFlushFlushesAndNamesTheFlushedRevision) {
    m_state.forceFlush = true;
    ASSERT_EQ(CommitRecord(7, 2000), RC_OK);
    m_log.Clear();
    EXPECT_EQ(Writer().FlushFile(), RC_OK);
    EXPECT_EQ(Flushes(), 1U);
    const LoggedMessage expected{K9SYS_LOG_INFO, "k9eRepl-storage", "FlushFile flushedRev 7", 0};
    EXPECT_EQ(m_log.Messages(), std::vector{expected}) << m_log;
}

TEST_F(FlushFile, AFailureIsReported) {
    m_state.forceFlush = true;
    Writer();
    FailFlush(1);
    EXPECT_EQ(Writer().FlushFile(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("FlushFileBuffers failed;" + SysErr(SystemErrorKind::kInputOutput)),
              RC_SYSTEM_ERROR)
        << m_log;
}

TEST_F(FlushFile, AfterAFailureAndARollbackEverythingIsWrittenAgain) {
    m_state.forceFlush = true;
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    FailFlush(1);
    ASSERT_EQ(Writer().FlushFile(), RC_SYSTEM_ERROR);
    ASSERT_EQ(Writer().Rollback(), RC_OK);
    // What the failed flush dropped, as a crash would show it.
    ResizeFile(m_path, kStart);
    ASSERT_EQ(CommitRecord(1, 3000), RC_OK);
    ASSERT_EQ(Writer().FlushFile(), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
}

TEST_F(FlushFile, OnAClosedFileAnswersNoWriter) {
    Writer().CloseFile();
    EXPECT_EQ(Writer().FlushFile(), RC_NO_WRITER);
    m_state.forceFlush = true;
    EXPECT_EQ(Writer().FlushFile(), RC_NO_WRITER);
    EXPECT_EQ(Flushes(), 0U);
}

}  // namespace k9erepl::test
