// The header of an open storage file: life number, revision mark, reserved bytes. The small looks
// at the file before a load: its first commit block, a record at an offset. What each says that
// fails.
#include <algorithm>
#include <limits>
#include <utility>

#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

class HeaderAccess : public SolidTest {
  protected:
    HeaderAccess() { Open(TwoTransactions()); }

    u32 Lifenum() {
        u32 lifenum = 0xDEAD;
        EXPECT_EQ(m_solid.GetLifenum(&lifenum), RC_OK);
        return lifenum;
    }
    i64 ClearOldRev() {
        i64 rev = 0xDEAD;
        EXPECT_EQ(m_solid.GetClearOldRev(&rev), RC_OK);
        return rev;
    }
};

TEST_F(HeaderAccess, KeepsALifenumInFourBytesAndARevisionMarkInEight) {
    Reopen("force_flush=yes");
    EXPECT_EQ(Lifenum(), 0U);
    EXPECT_EQ(ClearOldRev(), 0);
    std::vector<u8> expected = WrittenBytes();
    EXPECT_EQ(m_solid.SetLifenum(0xA1B2C3D4), RC_OK);
    EXPECT_EQ(m_solid.SetClearOldRev(-0x0102030405060708), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kFlush), 0U);
    Reopen();
    EXPECT_EQ(Lifenum(), 0xA1B2C3D4U);
    EXPECT_EQ(ClearOldRev(), -0x0102030405060708);
    const std::vector<u8> fields = {0xD4, 0xC3, 0xB2, 0xA1, 0xF8, 0xF8,
                                    0xF9, 0xFA, 0xFB, 0xFC, 0xFD, 0xFE};
    std::copy(fields.begin(), fields.end(), expected.begin() + 12);
    EXPECT_EQ(WrittenBytes(), expected);
}

TEST_F(HeaderAccess, LeavesTheReservedBytesAsTheyAre) {
    PatchBytes(Path(), 24, std::vector<u8>(1000, 0x77));
    EXPECT_EQ(m_solid.SetLifenum(5), RC_OK);
    EXPECT_EQ(m_solid.SetClearOldRev(6), RC_OK);
    const std::vector<u8> bytes = WrittenBytes();
    EXPECT_EQ(std::vector<u8>(bytes.begin() + 24, bytes.begin() + 1024),
              std::vector<u8>(1000, 0x77));
}

// The `nth` call of its kind in an access that reads or, if `writes`, changes the header.
struct HeaderFault {
    SystemCall call;
    u32 nth;
    bool writes;
    const char* message;  // "sys-err" and the number follow
};

TEST_F(HeaderAccess, SaysWhatFailedAndChangesNothing) {
    constexpr HeaderFault kFaults[] = {
        {SystemCall::kTell, 1, false, "Cannot get file offset;"},
        {SystemCall::kSeek, 1, false, "Cannot seek to offset 0;"},
        {SystemCall::kRead, 1, false, "Failed to read file header; "},
        {SystemCall::kSeek, 2, false, "Cannot seek to offset 1024;"},
        {SystemCall::kRead, 1, true, "Failed to read file header; "},
        {SystemCall::kSeek, 2, true, "Cannot seek to offset 0;"},
        {SystemCall::kWrite, 1, true, "Failed to write file header; "}};
    const std::vector<u8> before = WrittenBytes();
    for (const HeaderFault& fault : kFaults) {
        u32 lifenum = 77;
        i64 rev = 78;
        Reopen();
        Fail(fault.call, fault.nth);
        EXPECT_EQ(fault.writes ? m_solid.SetLifenum(1) : m_solid.GetLifenum(&lifenum),
                  RC_SYSTEM_ERROR);
        const std::string text = fault.message + SysErr(SystemErrorKind::kInputOutput);
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), Texts{text});
        EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR);
        Fail(fault.call, fault.nth);
        EXPECT_EQ(fault.writes ? m_solid.SetClearOldRev(1) : m_solid.GetClearOldRev(&rev),
                  RC_SYSTEM_ERROR);
        EXPECT_EQ(lifenum, 77U);
        EXPECT_EQ(rev, 78);
        EXPECT_EQ(WrittenBytes(), before);
    }
}

TEST_F(HeaderAccess, FindsItsPlaceAgainAfterAFailedSeekBack) {
    m_solid.Close();
    Open(FileBuilder().NewFile().Record(1).Record(2).Commit(0, 2));
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_OK);  // the file pointer is at record 2 now
    FailSeek(2);
    u32 lifenum = 0;
    EXPECT_EQ(m_solid.GetLifenum(&lifenum), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_solid.CheckRecordAt(2, 1080), RC_OK);
}

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

TEST_F(FirstCommit, GivesItsCommitRevisionAndWhetherItemsFollow) {
    const struct {
        FileBuilder file;
        i64 commitRev;
        bool hasItems;
    } files[] = {{FileBuilder().NewFile(), 0, false},
                 {FileBuilder().NewFile().Zeros(7), 0, false},
                 {FileBuilder().NewFile().Zeros(8), 0, false},
                 {FileBuilder().NewFile().RawWord(0x12345678), 0, false},
                 {FileBuilder().NewFile().Commit(0, 0), 0, true},
                 {FileBuilder().Header().Commit(50, 77).Record(78), 77, true}};
    for (const auto& each : files) {
        m_solid.Close();
        Open(each.file);
        ExpectInfo(each.commitRev, each.hasItems);
    }
}

TEST_F(FirstCommit, IsMissedWhereItDoesNotFitOrAnotherWordStands) {
    Open(FileBuilder().NewFile().CutTo(1055));
    ExpectFailure(RC_NOT_FOUND, "File too short", RC_NOT_FOUND);
    m_solid.Close();
    Open(FileBuilder().Header().Record(1, "a record of one"));
    ExpectFailure(RC_NOT_FOUND, "Expected info not found", RC_NOT_FOUND);
}

TEST_F(FirstCommit, SaysWhatFailedAndIsFoundAfterwards) {
    const std::string read = "Failed to read block;";
    Open(TwoTransactions());
    FailRead(1);
    ExpectFailure(RC_SYSTEM_ERROR, read + m_ioError + ",offset 1024", RC_SYSTEM_ERROR);
    Reopen();
    FailRead(2);
    ExpectFailure(RC_SYSTEM_ERROR, read + m_ioError + ",offset 1056", RC_SYSTEM_ERROR);
    Reopen();
    ShortRead(1, 31);
    ExpectFailure(RC_SYSTEM_ERROR, read + "sys-err 0,offset 1024", RC_SHORT_READ);
    m_log.Clear();
    FailSeek(1);
    ExpectFailure(RC_SYSTEM_ERROR, "Cannot seek to offset 1024;" + m_ioError, RC_SYSTEM_ERROR);
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
    ASSERT_EQ(Scan(), RC_OK);
    const i64 offset = WriteTransaction(4, "four");
    EXPECT_EQ(m_solid.CheckRecordAt(4, offset), RC_OK);
    m_solid.Close();
    Open(TwoTransactions().Record(4));
    EXPECT_EQ(m_solid.CheckRecordAt(4, kTwoTransactionsEnd), RC_OK);
}

TEST_F(RecordAt, AnotherOffsetOrRevisionIsNotFound) {
    constexpr i64 kMax = std::numeric_limits<i64>::max();
    for (const i64 offset : {i64{-1}, -kMax, std::numeric_limits<i64>::min(),
                             kTwoTransactionsEnd - 23, kTwoTransactionsEnd, kMax - 23, kMax}) {
        EXPECT_EQ(m_solid.CheckRecordAt(1, offset), RC_NOT_FOUND) << offset;
    }
    EXPECT_EQ(CallCount(SystemCall::kSeek), 0U) << "outside of the file";
    EXPECT_EQ(m_solid.CheckRecordAt(2, 1056), RC_NOT_FOUND);
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1057), RC_NOT_FOUND);
    EXPECT_EQ(m_solid.CheckRecordAt(2, 1110), RC_NOT_FOUND);  // a commit block
    EXPECT_EQ(m_solid.CheckRecordAt(0, 0), RC_NOT_FOUND);     // the header
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
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

TEST_F(RecordAt, SaysWhatFailedAndIsFoundAfterwards) {
    FailSeek(1);
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Cannot seek to offset 1056;" + m_ioError), RC_SYSTEM_ERROR) << m_log;
    FailRead(1);
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Failed to read block;" + m_ioError + ",offset 1056"), RC_SYSTEM_ERROR);
    ShortRead(1, 23);
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_SHORT_READ);
    EXPECT_EQ(m_log.CodeOf("Failed to read block;sys-err 0,offset 1056"), RC_SHORT_READ) << m_log;
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_OK);
}

}  // namespace
}  // namespace k9erepl::test
