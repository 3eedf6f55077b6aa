// The load scan from an offset that the index file suggests.
#include <limits>

#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

class ScanHint : public SolidTest {
  protected:
    void ExpectNoCommit(i64 hint, const std::string& endMessage) {
        EXPECT_EQ(ScanFrom(hint), RC_FILE_CORRUPT);
        EXPECT_EQ(m_log.Texts(), (Texts{endMessage, "First commit block is not found",
                                        "Try to delete index file"}));
        EXPECT_EQ(m_log.CodeOf("First commit block is not found"), RC_FILE_CORRUPT);
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, "Try to delete index file"));
    }
};

TEST_F(ScanHint, Zero1024And1056AreTheBeginning) {
    Open(TwoTransactions().Zeros(8));
    for (const i64 start : {0, 1024, 1056}) {
        EXPECT_EQ(ScannedFrom(start), TwoTransactionsItems()) << start;
    }
}

TEST_F(ScanHint, AtTheBeginningARecordFirstIsCorruptForAllThree) {
    Open(FileBuilder().Header().Record(1, "a record of one"));
    for (const i64 start : {0, 1024, 1056}) {
        EXPECT_EQ(ScanFrom(start), RC_FILE_CORRUPT) << start;
    }
    EXPECT_EQ(m_log.Count("Found rec, but commit expected at offset 1024"), 3U);
    EXPECT_FALSE(m_log.Has("Try to delete index file"));
}

TEST_F(ScanHint, BeginsWithTheRecordAtTheHint) {
    Open(TwoTransactions().Zeros(8));
    EXPECT_EQ(ScannedFrom(1142), (Items{"record 3 at 1142: three", "commit 0 3"}));
    EXPECT_TRUE(m_log.Has("Min rev: 0, max rev: 3, valid commit offset 1171, prevRecRev 3"));
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(WriteTransaction(4, "four"), kTwoTransactionsEnd);
    EXPECT_EQ(ItemsOfFile().back(), "commit 0 4");
}

TEST_F(ScanHint, MayBeginWithACommitBlock) {
    Open(TwoTransactions().Zeros(8));
    EXPECT_EQ(ScannedFrom(1110), (Items{"commit 0 2", "record 3 at 1142: three", "commit 0 3"}));
}

TEST_F(ScanHint, MayBeginInsideATransaction) {
    Open(TwoTransactions().Zeros(8));
    EXPECT_EQ(ScannedFrom(1083), (Items{"record 2 at 1083: two", "commit 0 2",
                                        "record 3 at 1142: three", "commit 0 3"}));
}

TEST_F(ScanHint, ThatMeetsOnlyRecordsIsRefused) {
    Open(TwoTransactions().CutTo(1171));
    ExpectNoCommit(1142, "Couldn't read 4 bytes at once");
    EXPECT_EQ(m_items, Items{"record 3 at 1142: three"});
}

TEST_F(ScanHint, ThatMeetsNoItemIsRefused) {
    Open(TwoTransactions().Zeros(8));
    ExpectNoCommit(1057, "Loading stopped due to wrong signature (0x1B7B3A2D) at offset 1057");
}

TEST_F(ScanHint, BehindTheFileIsRefused) {
    Open(TwoTransactions());
    ExpectNoCommit(1'000'000, "Couldn't read 4 bytes at once");
}

TEST_F(ScanHint, AtTheLargestOffsetIsRefused) {
    Open(TwoTransactions());
    const u32 rc = ScanFrom(std::numeric_limits<i64>::max());
    EXPECT_TRUE(rc == RC_FILE_CORRUPT || rc == RC_SYSTEM_ERROR) << rc;
}

TEST_F(ScanHint, ACommitBlockBelowTheRecordsOfAHintIsRefusedAsTheWholeScanDoes) {
    FileBuilder file = TwoTransactions();
    TCommitBlock block = NewCommitBlock(5, 3);
    block.prevSequence = file.LastSequence();
    Open(file.Record(4, "four").RawCommit(block).Zeros(8));
    EXPECT_EQ(ScanFrom(kTwoTransactionsEnd), RC_FILE_CORRUPT);
    EXPECT_TRUE(
        m_log.Has("Found commit block at offset 1231 with commitRev (3) less than recRev (4)"));
}

TEST_F(ScanHint, ACommitBlockCountsWithItsCommitRevisionAsInTheWholeScan) {
    FileBuilder file = TwoTransactions();
    Open(file.Record(4, "four").Commit(9, 4).Record(5, "five").Commit(9, 5).Zeros(8));
    Items whole = ScannedFrom(0);
    whole.erase(whole.begin(), whole.end() - 4);
    EXPECT_EQ(ScannedFrom(kTwoTransactionsEnd), whole);
    EXPECT_EQ(FlushedRev(), 5);
}

TEST_F(ScanHint, AFailedScanLeavesTheWritePositionAlone) {
    Open(TwoTransactions().Zeros(8));
    Scanned();
    EXPECT_EQ(ScanFrom(1057), RC_FILE_CORRUPT);
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(WriteTransaction(4, "four"), kTwoTransactionsEnd);
}

}  // namespace
}  // namespace k9erepl::test
