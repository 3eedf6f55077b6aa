// The load scan and sizes: hostile claims, items at the border of the buffer and beyond its size.
#include "solid/file_scan.h"
#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

class ScanSizes : public SolidTest {
  protected:
    static constexpr u32 kBuffer = FileScan::kBufferSize;
    static constexpr u32 kLargestData = kBuffer - kRecordHeadSize;

    // A scan that hands out the two transactions and stops behind them with this warning.
    void ExpectWarning(const FileBuilder& file, const std::string& warning) {
        Open(file);
        EXPECT_EQ(Scanned(), TwoTransactionsItems());
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_WARNING), Texts{warning});
        EXPECT_EQ(WriteTransaction(4, "next"), kTwoTransactionsEnd);
        EXPECT_EQ(ItemsOfFile().back(), "commit 0 4");
    }
    static std::string WrongSize(u32 size, u32 dataSize) {
        return "Found rec with size " + std::to_string(size) + ", but data size " +
               std::to_string(dataSize) + " at offset 1203";
    }
};

TEST_F(ScanSizes, AClaimBelowTheHeadStopsIt) {
    for (const u32 size : {0U, 7U, 8U, 23U}) {
        ExpectWarning(TwoTransactions().HeadClaiming(4, size, 0).Zeros(100), WrongSize(size, 0));
        m_solid.Close();
    }
}

TEST_F(ScanSizes, AClaimThatDoesNotFitTheDataSizeStopsIt) {
    ExpectWarning(TwoTransactions().HeadClaiming(4, 24, 5).Zeros(100), WrongSize(24, 5));
    m_solid.Close();
    ExpectWarning(TwoTransactions().HeadClaiming(4, 30, 5).Zeros(100), WrongSize(30, 5));
}

TEST_F(ScanSizes, AnEqualityModulo32BitsIsNone) {
    ExpectWarning(TwoTransactions().HeadClaiming(4, 24 - 24, 0xFFFFFFE8).Zeros(100),
                  WrongSize(0, 0xFFFFFFE8));
    m_solid.Close();
    ExpectWarning(TwoTransactions().HeadClaiming(4, 8, 0xFFFFFFF0).Zeros(100),
                  WrongSize(8, 0xFFFFFFF0));
}

TEST_F(ScanSizes, AClaimOf4GiBStopsIt) {
    ExpectWarning(TwoTransactions().HeadClaiming(4, 0xFFFFFFFF, 0xFFFFFFE7).Zeros(100),
                  "Couldn't read 4294967295 bytes at once");
}

TEST_F(ScanSizes, ARecordThatRunsPastTheFileStopsIt) {
    ExpectWarning(TwoTransactions().HeadClaiming(4, 24 + 9, 9).Fill(8, 'x'),
                  "Couldn't read 33 bytes at once");
}

TEST_F(ScanSizes, AHeadThatRunsPastTheFileStopsIt) {
    ExpectWarning(TwoTransactions().HeadClaiming(4, 24, 0).CutTo(kTwoTransactionsEnd + 23),
                  "Couldn't read 24 bytes at once");
    m_solid.Close();
    ExpectWarning(TwoTransactions().HeadClaiming(4, 7, 0).CutTo(kTwoTransactionsEnd + 10),
                  "Couldn't read 24 bytes at once");
    m_solid.Close();
    ExpectWarning(TwoTransactions().RawWord(kRecordSignature).Zeros(3),
                  "Couldn't read 8 bytes at once");
}

TEST_F(ScanSizes, ACommitBlockThatRunsPastTheFileStopsIt) {
    FileBuilder file = TwoTransactions().Commit(0, 3);
    ExpectWarning(file.CutTo(file.Size() - 1), "Couldn't read 32 bytes at once");
}

TEST_F(ScanSizes, AWordThatRunsPastTheFileStopsIt) {
    ExpectWarning(TwoTransactions().RawWord(kRecordSignature).CutTo(kTwoTransactionsEnd + 3),
                  "Couldn't read 4 bytes at once");
}

TEST_F(ScanSizes, ARecordAsLargeAsTheBufferIsRead) {
    Open(FileBuilder().NewFile().LargeRecord(1, kLargestData).Commit(0, 1));
    EXPECT_EQ(
        Scanned(),
        (Items{"commit 0 0", "record 1 at 1056: " + std::to_string(kLargestData) + " pattern bytes",
               "commit 0 1"}));
}

TEST_F(ScanSizes, ARecordOneByteLargerThanTheBufferStopsIt) {
    Open(FileBuilder().NewFile().LargeRecord(1, kLargestData + 1).Commit(0, 1).Zeros(8));
    EXPECT_EQ(Scanned(), Items{"commit 0 0"});
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_WARNING), Texts{"Couldn't read 10485761 bytes at once"});
    EXPECT_TRUE(m_log.Has("Min rev: 0, max rev: 0, valid commit offset 1024, prevRecRev 0"));
}

// The buffer's first load ends `part` bytes behind the beginning of record 2.
class ScanBorder : public ScanSizes, public ::testing::WithParamInterface<u32> {};

TEST_P(ScanBorder, IsCrossedWhereverItFalls) {
    constexpr u32 kUsedBefore = kCommitBlockSize + kRecordHeadSize;
    const u32 firstData = kBuffer - kUsedBefore - GetParam();
    FileBuilder file;
    file.NewFile().LargeRecord(1, firstData).LargeRecord(2, 300).Commit(0, 2).Record(3, "end");
    const i64 second = kFirstItemOffset + kRecordHeadSize + firstData;
    Open(file.Commit(0, 3).Zeros(8));
    EXPECT_EQ(
        Scanned(),
        (Items{"commit 0 0", "record 1 at 1056: " + std::to_string(firstData) + " pattern bytes",
               "record 2 at " + std::to_string(second) + ": 300 pattern bytes", "commit 0 2",
               "record 3 at " + std::to_string(second + 324 + 32) + ": end", "commit 0 3"}));
    EXPECT_EQ(CallCount(SystemCall::kRead), 3U);  // the header, and twice the buffer
}

// In record 2: in its signature, its size, its head, its data, at its end; in the commit block.
INSTANTIATE_TEST_SUITE_P(Borders, ScanBorder,
                         ::testing::Values(0, 1, 4, 7, 8, 23, 24, 25, 323, 324, 325, 327, 328, 355,
                                           356, 357));

TEST_F(ScanSizes, ALargeFileIsReadInPiecesOfTheBuffer) {
    FileBuilder file;
    file.NewFile();
    for (i64 rev = 1; rev <= 30; ++rev) {
        file.LargeRecord(rev, 1'000'000);
    }
    Open(file.Commit(0, 30));
    const u32 readsBefore = CallCount(SystemCall::kRead);
    const u32 seeksBefore = CallCount(SystemCall::kSeek);
    const Items items = Scanned();
    ASSERT_EQ(items.size(), 32U);
    EXPECT_EQ(items[30], "record 30 at 29001752: 1000000 pattern bytes");
    EXPECT_EQ(CallCount(SystemCall::kRead) - readsBefore, 3U);
    EXPECT_EQ(CallCount(SystemCall::kSeek) - seeksBefore, 3U);  // two refills, the write position
}

}  // namespace
}  // namespace k9erepl::test
