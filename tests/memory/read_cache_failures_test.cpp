// The read cache when the system fails it.
#include <gtest/gtest.h>

#include <string>

#include "memory/read_cache_fixture.h"

namespace k9erepl::test {

namespace {

class ReadCacheFailures : public ReadCacheTest {
  protected:
    static std::string ErrorText() {
        return std::to_string(platform::SystemErrorOf(SystemErrorKind::kInputOutput));
    }

    // A request that fails; the reader keeps what it had.
    void ExpectFailure(ReadBuffer& reader, i64 offset) {
        const ReadBuffer before = reader;
        EXPECT_EQ(m_cache.GetBuffer(offset, 4, &reader), RC_SYSTEM_ERROR);
        EXPECT_EQ(reader.offset, before.offset);
        EXPECT_EQ(reader.length, before.length);
    }
};

}  // namespace

TEST_F(ReadCacheFailures, AFailedSeekIsReportedAndLeavesTheTrackedPosition) {
    UseBuffers(1);
    ReadBuffer reader;
    FailSeek(1);
    ExpectFailure(reader, 5000);
    EXPECT_EQ(m_log.CodeOf("Cannot seek to start enum recs;offset 5000, sys-err " + ErrorText()),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(m_file.Position(), 0);
    EXPECT_EQ(Request(reader, 5000, 4), 1U);
}

TEST_F(ReadCacheFailures, AFailedReadIsReportedAndTheNextRequestSeeksAgain) {
    UseBuffers(1);
    ReadBuffer reader;
    FailRead(1);
    ExpectFailure(reader, 5000);
    EXPECT_EQ(m_log.CodeOf("Failed to read block;sys-err " + ErrorText() + ",offset 5000"),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(m_file.Position(), platform::TrackedFile::kUnknownPosition);
    EXPECT_EQ(Request(reader, 5000, 4), 1U);
    EXPECT_EQ(Seeks(), 2U);
}

TEST_F(ReadCacheFailures, ABufferKeepsItsBytesWhenItsRefillFails) {
    UseBuffers(1);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 1056, 4), 1U);
    FailRead(1);
    ExpectFailure(reader, 4 * kBuffer);
    EXPECT_EQ(Request(reader, 1056, 4096), 0U);
}

TEST_F(ReadCacheFailures, ABufferHalfOverwrittenByAFailedReadIsNotServed) {
    UseBuffers(2);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 1056, 4), 1U);
    SplitRead(1, 1000);
    FailRead(2);
    ExpectFailure(reader, 4 * kBuffer);
    EXPECT_EQ(Request(1056, 4096), 1U);
    EXPECT_EQ(Request(4 * kBuffer, 4096), 1U);
}

TEST_F(ReadCacheFailures, ABufferThatAFailedReadEmptiedIsTakenFirst) {
    UseBuffers(2);
    SetTickCount(10);
    EXPECT_EQ(Request(0, 4), 1U);
    SetTickCount(20);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 2 * kBuffer, 4), 1U);
    SplitRead(1, 1000);
    FailRead(2);
    ExpectFailure(reader, 3 * kBuffer);
    EXPECT_EQ(Request(4 * kBuffer, 4), 1U);
    EXPECT_EQ(Request(0, 4), 0U);
}

TEST_F(ReadCacheFailures, AFileThatEndsEarlyGivesAShorterLength) {
    UseBuffers(1);
    ReadBuffer reader;
    ShortRead(1, 3000);
    EXPECT_EQ(m_cache.GetBuffer(5000, 4096, &reader), RC_OK);
    EXPECT_EQ(reader.offset, 5000);
    EXPECT_EQ(reader.length, 3000U);
    EXPECT_TRUE(Has(reader, 5000, 3000));
    EXPECT_EQ(m_file.Position(), 8000);
}

TEST_F(ReadCacheFailures, AFileWithoutTheBytesGivesLengthZero) {
    UseBuffers(1);
    ReadBuffer reader;
    ResizeFile(m_path, 4000);
    EXPECT_EQ(m_cache.GetBuffer(5000, 4, &reader), RC_OK);
    EXPECT_EQ(reader.length, 0U);
}

TEST_F(ReadCacheFailures, ANegativeOffsetIsASystemError) {
    UseBuffers(1);
    ReadBuffer reader;
    ExpectFailure(reader, -5);
}

}  // namespace k9erepl::test
