// Enumeration from the file when its data or the system fails: every fault is the call's error.
#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

class EnumFailure : public SolidTest {
  protected:
    static constexpr u32 kLarge = 3'000'000;

    EnumFailure() { OpenScanned(TwoTransactions()); }

    void OpenScanned(const FileBuilder& file) {
        m_solid.Close();
        Open(file);
        ASSERT_EQ(Scan(), RC_OK);
        m_log.Clear();
    }
    // An enumeration of all revisions that ends with this code and message; the completed flag
    // tells the caller that it was not a visitor.
    void ExpectFailure(u32 rc, const std::string& message) {
        EXPECT_EQ(EnumerateRevs(1, 9), rc);
        EXPECT_TRUE(m_completed);
        EXPECT_EQ(m_log.Texts(), Texts{message});
        EXPECT_EQ(m_log.CodeOf(message), rc);
    }
    // Overwrites bytes of record 3, whose head is at 1142.
    void Damage(i64 at, u32 value) {
        PatchBytes(Path(), 1142 + at,
                   std::vector<u8>{static_cast<u8>(value), static_cast<u8>(value >> 8),
                                   static_cast<u8>(value >> 16), static_cast<u8>(value >> 24)});
    }
    void OpenLarge() { OpenScanned(FileBuilder().NewFile().LargeRecord(1, kLarge).Commit(0, 1)); }

    const std::string m_ioError = SysErr(SystemErrorKind::kInputOutput);
};

TEST_F(EnumFailure, AWrongWordIsBadData) {
    Damage(0, 0x00C0FFEE);
    ExpectFailure(RC_BAD_DATA, "Wrong signature (0x00C0FFEE) found, offset 1142");
    EXPECT_EQ(m_items, (Items{"record 1 at 1056: one", "record 2 at 1083: two"}));
}

TEST_F(EnumFailure, AStartInTheMiddleOfAnItemIsBadData) {
    EXPECT_EQ(Enumerate({.toRev = 9, .startOffset = 1057}), RC_BAD_DATA);
    EXPECT_EQ(m_log.Texts(), Texts{"Wrong signature (0x1B7B3A2D) found, offset 1057"});
}

TEST_F(EnumFailure, ARevisionThatDoesNotRiseIsBadData) {
    Damage(8, 2);
    ExpectFailure(RC_BAD_DATA, "Read rec with rev 2, but rev before it is 2, offset 1142");
    EXPECT_EQ(m_items, (Items{"record 1 at 1056: one", "record 2 at 1083: two"}));
}

TEST_F(EnumFailure, SizesThatDoNotFitAreBadData) {
    for (const u32 size : {0U, 7U, 23U, 24U, 30U, 0xFFFFFFFFU}) {
        OpenScanned(TwoTransactions());
        Damage(4, size);
        ExpectFailure(RC_BAD_DATA,
                      "Wrong rec size " + std::to_string(size) + ", data size 5, offset 1142");
    }
}

TEST_F(EnumFailure, ARecordThatRunsPastTheDataIsBadData) {
    Damage(4, 24 + 38);
    Damage(20, 38);
    ExpectFailure(RC_BAD_DATA, "Wrong rec size 62, data size 38, offset 1142");
}

TEST_F(EnumFailure, ARecordUpToTheEndOfTheDataIsNone) {
    Damage(4, 24 + 37);
    Damage(20, 37);
    EXPECT_EQ(EnumerateRevs(1, 9), RC_OK);
    EXPECT_EQ(m_items.size(), 3U);
}

TEST_F(EnumFailure, AnUncommittedRecordIsBadData) {
    Damage(8, 4);
    ExpectFailure(RC_BAD_DATA, "Read uncommitted rec with rev 4,last committed rev 3");
}

// A revision above the range ends it if that can be believed.
TEST_F(EnumFailure, AnUncommittedRecordAboveTheRangeIsBadData) {
    Damage(8, 10);
    ExpectFailure(RC_BAD_DATA, "Read uncommitted rec with rev 10,last committed rev 3");
    EXPECT_EQ(m_items.size(), 2U);
}

TEST_F(EnumFailure, ARecordAboveTheRangeWithWrongSizesIsBadData) {
    Damage(4, 30);
    EXPECT_EQ(EnumerateRevs(1, 2), RC_BAD_DATA);
    EXPECT_EQ(m_log.Texts(), Texts{"Wrong rec size 30, data size 5, offset 1142"});
}

TEST_F(EnumFailure, ARecordAboveTheRangeBeforeAPlaceThatTheRangeReachesIsBadData) {
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 2, .reachesTo = 1142}), RC_OK);
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 2, .reachesTo = 1143}), RC_BAD_DATA);
    EXPECT_TRUE(m_completed);
    EXPECT_EQ(m_items.size(), 2U);
    EXPECT_EQ(
        m_log.CodeOf("Read rec with rev 3, but revs up to 2 reach to offset 1143, offset 1142"),
        RC_BAD_DATA)
        << m_log;
}

TEST_F(EnumFailure, ARecordAboveTheRangeWithALowerOneBehindItIsBadData) {
    OpenScanned(TwoTransactions().Record(4, "four").Record(5, "five").Commit(0, 5));
    Damage(8, 5);
    EXPECT_EQ(EnumerateRevs(1, 3), RC_BAD_DATA);
    EXPECT_EQ(m_log.Texts(), Texts{"Read rec with rev 4, but rev before it is 5, offset 1203"});
    EXPECT_EQ(m_items, (Items{"record 1 at 1056: one", "record 2 at 1083: two"}));
}

TEST_F(EnumFailure, AnythingElseBehindARecordAboveTheRangeDoesNotMatter) {
    OpenScanned(TwoTransactions().Record(4, "four").Commit(0, 4));
    PatchBytes(Path(), 1203, std::vector<u8>{1, 2, 3, 4});
    EXPECT_EQ(Enumerated(1, 2).size(), 2U);
}

TEST_F(EnumFailure, AFileThatWasCutIsCorrupt) {
    ResizeFile(Path(), 1143);
    ExpectFailure(RC_FILE_CORRUPT, "Couldn't read 4 bytes at once");
}

TEST_F(EnumFailure, AHeadThatWasCutIsCorrupt) {
    ResizeFile(Path(), 1142 + 23);
    ExpectFailure(RC_FILE_CORRUPT, "Couldn't read 24 bytes at once");
}

TEST_F(EnumFailure, ARecordThatWasCutIsCorrupt) {
    ResizeFile(Path(), 1170);
    ExpectFailure(RC_FILE_CORRUPT, "Couldn't read 29 bytes at once");
}

TEST_F(EnumFailure, ACommitBlockThatWasCutIsCorrupt) {
    ResizeFile(Path(), kTwoTransactionsEnd - 1);
    ExpectFailure(RC_FILE_CORRUPT, "Couldn't read 32 bytes at once");
}

TEST_F(EnumFailure, ACommitBlockThatRunsPastTheDataIsCorrupt) {
    Damage(0, kCommitSignature);
    PatchBytes(Path(), 1142 + 32, std::vector<u8>{0x7D, 0x2A, 0x2D, 0x3A});
    ExpectFailure(RC_FILE_CORRUPT, "Couldn't read 32 bytes at once");
}

TEST_F(EnumFailure, OfTheSeek) {
    FailSeek(1);
    ExpectFailure(RC_SYSTEM_ERROR, "Cannot seek to start enum recs;offset 1024, " + m_ioError);
}

TEST_F(EnumFailure, OfTheRead) {
    FailRead(1);
    ExpectFailure(RC_SYSTEM_ERROR, "Failed to read block;" + m_ioError + ",offset 1024");
    EXPECT_EQ(Enumerated(3, 3), Items{"record 3 at 1142: three"});
}

TEST_F(EnumFailure, OfALargeRecordsMemory) {
    OpenLarge();
    FailAlloc(1, kLarge);
    EXPECT_EQ(EnumerateRevs(1, 9), RC_NO_MEMORY);
    EXPECT_TRUE(m_completed);
    EXPECT_EQ(Enumerated(1, 9).size(), 1U);
}

TEST_F(EnumFailure, OfALargeRecordsSeek) {
    OpenLarge();
    FailSeek(2);
    ExpectFailure(RC_SYSTEM_ERROR, "Cannot seek to start enum recs;offset 1056, " + m_ioError);
}

TEST_F(EnumFailure, OfALargeRecordsRead) {
    OpenLarge();
    FailRead(2);
    ExpectFailure(RC_SYSTEM_ERROR, "Failed to read block;" + m_ioError + ",offset 1056");
    EXPECT_EQ(Enumerated(1, 9).size(), 1U);
}

TEST_F(EnumFailure, OfALargeRecordThatWasCut) {
    OpenLarge();
    ResizeFile(Path(), 2'900'000);
    ExpectFailure(RC_FILE_CORRUPT, "Couldn't read 3000024 bytes at once");
}

}  // namespace
}  // namespace k9erepl::test
