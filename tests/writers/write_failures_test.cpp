// Writes that the system fails: nothing is left behind but bytes that the next write covers.
#include <gtest/gtest.h>

#include <string>

#include "writers/writer_fixture.h"

namespace k9erepl::test {

namespace {

class WriteFailures : public WriterTest {
  protected:
    std::string Text() const { return "Cannot write data;" + SysErr(SystemErrorKind::kNoSpace); }
};

}  // namespace

TEST_F(WriteFailures, AFailedWriteIsReportedAndChangesNothing) {
    std::atomic<i64> position{kUnknownOffset};
    Writer();
    FailWrite(1);
    EXPECT_EQ(Append(Bytes(100), &position), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(Text()), RC_SYSTEM_ERROR) << m_log;
    EXPECT_EQ(Writer().WritePos(), kStart);
    EXPECT_EQ(position, kUnknownOffset);
    EXPECT_EQ(m_log.CountContaining("Written data size"), 0U);
}

TEST_F(WriteFailures, AShortWriteIsReportedAndDoesNotAdvance) {
    std::atomic<i64> position{kUnknownOffset};
    Writer();
    ShortWrite(1, 60);
    EXPECT_EQ(Append(Bytes(100), &position), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(Text()), RC_SYSTEM_ERROR) << m_log;
    EXPECT_EQ(Writer().WritePos(), kStart);
    EXPECT_EQ(position, kUnknownOffset);
}

TEST_F(WriteFailures, AFailedCommitBlockNeitherLinksNorTells) {
    u32 calls = 0;
    m_state.onWritten.Set([](i64, void* count) { ++*static_cast<u32*>(count); }, &calls);
    Writer();
    FailWrite(1);
    EXPECT_EQ(AppendRun(Record(1, 10), 1, 2000), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_state.lastCommitSequence, kFirstSequence);
    EXPECT_EQ(calls, 0U);
}

TEST_F(WriteFailures, TheWriteAfterAShortOneLandsAtTheWritePosition) {
    Writer();
    ShortWrite(1, 60);
    ASSERT_EQ(Append(Bytes(100, 0xEE)), RC_SYSTEM_ERROR);
    ASSERT_EQ(Append(BytesOf("again")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 5), BytesOf("again"));
    EXPECT_EQ(Writer().WritePos(), kStart + 5);
}

TEST_F(WriteFailures, ARetriedRunIsWholeAndLinksToTheOneBefore) {
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
    ShortWrite(1, 40);
    ASSERT_EQ(CommitRecord(2, 3000), RC_SYSTEM_ERROR);
    ASSERT_EQ(Writer().Rollback(), RC_OK);
    ASSERT_EQ(CommitRecord(2, 4000), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 C2");
}

TEST_F(WriteFailures, WorkGoesOnWhenSpaceReturns) {
    ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
    FailWrite(1, SystemErrorKind::kNoSpace, Repeat::kFromThenOn);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(CommitRecord(2, 3000), RC_SYSTEM_ERROR);
    }
    StopFailing(SystemCall::kWrite);
    ASSERT_EQ(CommitRecord(2, 3000), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 C2");
}

}  // namespace k9erepl::test
