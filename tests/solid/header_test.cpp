// The header of an open storage file: life number, revision mark, reserved bytes, failing calls.
#include <functional>

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
    // An operation that must fail with RC_SYSTEM_ERROR and this one message; nothing is changed.
    void ExpectFailure(const std::function<u32()>& operation, const std::string& message) {
        const std::vector<u8> before = WrittenBytes();
        EXPECT_EQ(operation(), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), Texts{message});
        EXPECT_EQ(m_log.CodeOf(message), RC_SYSTEM_ERROR);
        EXPECT_EQ(WrittenBytes(), before);
    }
    u32 Get() {
        u32 lifenum = 0;
        return m_solid.GetLifenum(&lifenum);
    }

    const std::string m_ioError = SysErr(SystemErrorKind::kInputOutput);
};

TEST_F(HeaderAccess, BeginsWithZeros) {
    EXPECT_EQ(Lifenum(), 0U);
    EXPECT_EQ(ClearOldRev(), 0);
}

TEST_F(HeaderAccess, KeepsALifenumInItsFourBytes) {
    std::vector<u8> expected = WrittenBytes();
    EXPECT_EQ(m_solid.SetLifenum(0xA1B2C3D4), RC_OK);
    EXPECT_EQ(Lifenum(), 0xA1B2C3D4U);
    expected[12] = 0xD4;
    expected[13] = 0xC3;
    expected[14] = 0xB2;
    expected[15] = 0xA1;
    EXPECT_EQ(WrittenBytes(), expected);
}

TEST_F(HeaderAccess, KeepsARevisionMarkInItsEightBytes) {
    std::vector<u8> expected = WrittenBytes();
    EXPECT_EQ(m_solid.SetClearOldRev(0x0102030405060708), RC_OK);
    EXPECT_EQ(ClearOldRev(), 0x0102030405060708);
    for (u8 i = 0; i < 8; ++i) {
        expected[16 + i] = static_cast<u8>(8 - i);
    }
    EXPECT_EQ(WrittenBytes(), expected);
}

TEST_F(HeaderAccess, SurvivesAReopening) {
    EXPECT_EQ(m_solid.SetLifenum(5), RC_OK);
    EXPECT_EQ(m_solid.SetClearOldRev(-6), RC_OK);
    Reopen();
    EXPECT_EQ(Lifenum(), 5U);
    EXPECT_EQ(ClearOldRev(), -6);
}

TEST_F(HeaderAccess, LeavesTheReservedBytesAsTheyAre) {
    PatchBytes(Path(), 24, std::vector<u8>(1000, 0x77));
    EXPECT_EQ(m_solid.SetLifenum(5), RC_OK);
    EXPECT_EQ(m_solid.SetClearOldRev(6), RC_OK);
    const std::vector<u8> bytes = WrittenBytes();
    EXPECT_EQ(std::vector<u8>(bytes.begin() + 24, bytes.begin() + 1024),
              std::vector<u8>(1000, 0x77));
}

TEST_F(HeaderAccess, KeepsReservedZerosZero) {
    EXPECT_EQ(m_solid.SetLifenum(5), RC_OK);
    EXPECT_EQ(m_solid.SetClearOldRev(6), RC_OK);
    const std::vector<u8> bytes = WrittenBytes();
    EXPECT_EQ(std::vector<u8>(bytes.begin() + 24, bytes.begin() + 1024), std::vector<u8>(1000, 0));
}

TEST_F(HeaderAccess, DoesNotFlushToTheDisk) {
    Reopen("force_flush=yes");
    EXPECT_EQ(m_solid.SetLifenum(5), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kFlush), 0U);
}

TEST_F(HeaderAccess, DoesNotDisturbReading) {
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
    EXPECT_EQ(Enumerated(1, 1), Items{"record 1 at 1056: one"});
    EXPECT_EQ(m_solid.SetLifenum(5), RC_OK);
    EXPECT_EQ(Enumerated(2, 3), (Items{"record 2 at 1083: two", "record 3 at 1142: three"}));
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
}

TEST_F(HeaderAccess, FailsWithTheOffset) {
    FailTell(1);
    ExpectFailure([this] { return Get(); }, "Cannot get file offset;" + m_ioError);
}

TEST_F(HeaderAccess, FailsWithTheSeekToTheStart) {
    FailSeek(1);
    ExpectFailure([this] { return Get(); }, "Cannot seek to offset 0;" + m_ioError);
}

TEST_F(HeaderAccess, FailsWithTheRead) {
    FailRead(1);
    ExpectFailure([this] { return m_solid.SetLifenum(1); },
                  "Failed to read file header; " + m_ioError);
}

TEST_F(HeaderAccess, FailsWithAShortRead) {
    ShortRead(1, 1000);
    ExpectFailure([this] { return Get(); }, "Failed to read file header; sys-err 0");
}

TEST_F(HeaderAccess, FailsWithTheSeekBack) {
    FailSeek(2);
    ExpectFailure([this] { return Get(); }, "Cannot seek to offset 1024;" + m_ioError);
}

TEST_F(HeaderAccess, FailsWithTheSeekBeforeTheWrite) {
    FailSeek(2);
    ExpectFailure([this] { return m_solid.SetClearOldRev(1); },
                  "Cannot seek to offset 0;" + m_ioError);
}

TEST_F(HeaderAccess, FailsWithTheWrite) {
    FailWrite(1);
    ExpectFailure([this] { return m_solid.SetLifenum(1); },
                  "Failed to write file header; " + SysErr(SystemErrorKind::kNoSpace));
}

TEST_F(HeaderAccess, FailsWithAShortWrite) {
    ShortWrite(1, 10);
    ExpectFailure([this] { return m_solid.SetLifenum(1); },
                  "Failed to write file header; " + SysErr(SystemErrorKind::kNoSpace));
}

TEST_F(HeaderAccess, LeavesTheOutPointersOfAFailureAlone) {
    u32 lifenum = 77;
    i64 rev = 78;
    FailRead(1);
    EXPECT_EQ(m_solid.GetLifenum(&lifenum), RC_SYSTEM_ERROR);
    FailRead(1);
    EXPECT_EQ(m_solid.GetClearOldRev(&rev), RC_SYSTEM_ERROR);
    EXPECT_EQ(lifenum, 77U);
    EXPECT_EQ(rev, 78);
}

TEST_F(HeaderAccess, FindsItsPlaceAgainAfterAFailedSeekBack) {
    m_solid.Close();
    Open(FileBuilder().NewFile().Record(1).Record(2).Commit(0, 2));
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_OK);  // the file pointer is at record 2 now
    FailSeek(2);
    EXPECT_EQ(Get(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_solid.CheckRecordAt(2, 1080), RC_OK);
}

}  // namespace
}  // namespace k9erepl::test
