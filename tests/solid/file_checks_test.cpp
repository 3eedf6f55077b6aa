// The small looks at the file before a load: its first commit block, a record at an offset.
#include <limits>
#include <utility>

#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

class FirstCommit : public SolidTest {
  protected:
    u32 Read() { return m_solid.ReadFirstCommitInfo(&m_commitRev, &m_hasItems); }
    void ExpectInfo(i64 commitRev, bool hasItems) {
        EXPECT_EQ(Read(), RC_OK) << m_log;
        EXPECT_EQ(m_commitRev, commitRev);
        EXPECT_EQ(m_hasItems, hasItems);
        EXPECT_TRUE(m_log.Messages().empty()) << m_log;
    }
    void ExpectFailure(u32 rc, const std::string& message, u32 loggedCode) {
        EXPECT_EQ(Read(), rc);
        EXPECT_EQ(m_log.Texts(), Texts{message});
        EXPECT_EQ(m_log.CodeOf(message), loggedCode);
        EXPECT_EQ(m_commitRev, -7);
        EXPECT_TRUE(m_hasItems);
    }

    i64 m_commitRev = -7;
    bool m_hasItems = true;
    const std::string m_ioError = SysErr(SystemErrorKind::kInputOutput);
};

TEST_F(FirstCommit, OfANewFileHasNothingBehindIt) {
    Open(FileBuilder().NewFile().Zeros(8));
    ExpectInfo(0, false);
}

TEST_F(FirstCommit, GivesItsCommitRevision) {
    Open(FileBuilder().Header().Commit(50, 77).Record(78));
    ExpectInfo(77, true);
}

TEST_F(FirstCommit, MayBeFollowedByACommitBlock) {
    Open(FileBuilder().NewFile().Commit(0, 0));
    ExpectInfo(0, true);
}

TEST_F(FirstCommit, MayBeFollowedByRubbish) {
    Open(FileBuilder().NewFile().RawWord(0x12345678));
    ExpectInfo(0, false);
}

TEST_F(FirstCommit, IsTooShortWith1055Bytes) {
    Open(FileBuilder().NewFile().CutTo(1055));
    ExpectFailure(RC_NOT_FOUND, "File too short", RC_NOT_FOUND);
}

TEST_F(FirstCommit, MayEndTheFileOrBeFollowedByAnyFewBytes) {
    for (u32 more = 0; more < 8; ++more) {
        Open(FileBuilder().NewFile().Zeros(more));
        ExpectInfo(0, false);
        m_solid.Close();
    }
}

TEST_F(FirstCommit, IsMissedWhenAnotherWordStandsThere) {
    Open(FileBuilder().Header().Record(1, "a record of one"));
    ExpectFailure(RC_NOT_FOUND, "Expected info not found", RC_NOT_FOUND);
}

TEST_F(FirstCommit, NeedsNoSeekAfterOpening) {
    Open(TwoTransactions());
    ExpectInfo(0, true);
    EXPECT_EQ(CallCount(SystemCall::kSeek), 0U);
    ExpectInfo(0, true);
    EXPECT_EQ(CallCount(SystemCall::kSeek), 1U);
}

TEST_F(FirstCommit, FailsWithTheSeek) {
    Open(TwoTransactions());
    Read();
    m_commitRev = -7;
    FailSeek(1);
    ExpectFailure(RC_SYSTEM_ERROR, "Cannot seek to offset 1024;" + m_ioError, RC_SYSTEM_ERROR);
}

TEST_F(FirstCommit, FailsWithTheReadOfTheBlock) {
    Open(TwoTransactions());
    FailRead(1);
    ExpectFailure(RC_SYSTEM_ERROR, "Failed to read block;" + m_ioError + ",offset 1024",
                  RC_SYSTEM_ERROR);
}

TEST_F(FirstCommit, FailsWithTheReadOfTheWordBehindIt) {
    Open(TwoTransactions());
    FailRead(2);
    ExpectFailure(RC_SYSTEM_ERROR, "Failed to read block;" + m_ioError + ",offset 1056",
                  RC_SYSTEM_ERROR);
}

TEST_F(FirstCommit, FailsWithAShortRead) {
    Open(TwoTransactions());
    ShortRead(1, 31);
    ExpectFailure(RC_SYSTEM_ERROR, "Failed to read block;sys-err 0,offset 1024", RC_SHORT_READ);
}

TEST_F(FirstCommit, IsFoundAfterAFailedRead) {
    Open(TwoTransactions());
    FailRead(1);
    EXPECT_EQ(Read(), RC_SYSTEM_ERROR);
    m_log.Clear();
    ExpectInfo(0, true);
}

class RecordAt : public SolidTest {
  protected:
    RecordAt() { Open(TwoTransactions()); }

    const std::string m_ioError = SysErr(SystemErrorKind::kInputOutput);
};

TEST_F(RecordAt, ItsOffsetIsFound) {
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_OK);
    EXPECT_EQ(m_solid.CheckRecordAt(3, 1142), RC_OK);
    EXPECT_EQ(m_solid.CheckRecordAt(2, 1083), RC_OK);
}

TEST_F(RecordAt, AnotherOffsetOrRevisionIsNotFound) {
    EXPECT_EQ(m_solid.CheckRecordAt(2, 1056), RC_NOT_FOUND);
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1057), RC_NOT_FOUND);
    EXPECT_EQ(m_solid.CheckRecordAt(2, 1110), RC_NOT_FOUND);  // a commit block
    EXPECT_EQ(m_solid.CheckRecordAt(0, 0), RC_NOT_FOUND);     // the header
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
}

TEST_F(RecordAt, OffsetsOutsideTheFileAreNotFound) {
    constexpr i64 kMax = std::numeric_limits<i64>::max();
    for (const i64 offset : {i64{-1}, -kMax, std::numeric_limits<i64>::min(),
                             kTwoTransactionsEnd - 23, kTwoTransactionsEnd, kMax - 23, kMax}) {
        EXPECT_EQ(m_solid.CheckRecordAt(1, offset), RC_NOT_FOUND) << offset;
    }
    EXPECT_EQ(CallCount(SystemCall::kSeek), 0U);
}

TEST_F(RecordAt, TheLastRecordOfAFileIsFound) {
    m_solid.Close();
    Open(TwoTransactions().Record(4));
    EXPECT_EQ(m_solid.CheckRecordAt(4, kTwoTransactionsEnd), RC_OK);
}

TEST_F(RecordAt, SizesThatDoNotFitAreNotFound) {
    for (const auto& [size, dataSize] :
         {std::pair{0U, 0U}, std::pair{23U, 0U}, std::pair{24U, 5U}, std::pair{0U, 0xFFFFFFE8U},
          std::pair{33U, 9U}, std::pair{0xFFFFFFFFU, 0xFFFFFFE7U}}) {
        m_solid.Close();
        Open(TwoTransactions().HeadClaiming(4, size, dataSize).Fill(8, 'x'));
        EXPECT_EQ(m_solid.CheckRecordAt(4, kTwoTransactionsEnd), RC_NOT_FOUND) << size;
    }
    m_solid.Close();
    Open(TwoTransactions().HeadClaiming(4, 32, 8).Fill(8, 'x'));
    EXPECT_EQ(m_solid.CheckRecordAt(4, kTwoTransactionsEnd), RC_OK);
}

TEST_F(RecordAt, FailsWithTheSeek) {
    FailSeek(1);
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Cannot seek to offset 1056;" + m_ioError), RC_SYSTEM_ERROR) << m_log;
}

TEST_F(RecordAt, FailsWithTheRead) {
    FailRead(1);
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Failed to read block;" + m_ioError + ",offset 1056"), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_OK);
}

TEST_F(RecordAt, FailsWithAShortRead) {
    ShortRead(1, 23);
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_SHORT_READ);
    EXPECT_EQ(m_log.CodeOf("Failed to read block;sys-err 0,offset 1056"), RC_SHORT_READ) << m_log;
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_OK);
}

TEST_F(RecordAt, WhatWasWrittenIsFound) {
    ASSERT_EQ(Scan(), RC_OK);
    const i64 offset = WriteTransaction(4, "four");
    EXPECT_EQ(m_solid.CheckRecordAt(4, offset), RC_OK);
}

}  // namespace
}  // namespace k9erepl::test
