// The load scan's rules: what a scan accepts, where it stops, what it says and what it leaves.
#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

class ScanRules : public SolidTest {
  protected:
    // A scan of the file that ends behind the first two transactions with these messages, the
    // last of which is the summary.
    void ExpectStop(const FileBuilder& file, K9SysLogLevel level, const std::string& message,
                    const Items& itemsBehind = {}) {
        Open(file);
        Items expected = TwoTransactionsItems();
        expected.insert(expected.end(), itemsBehind.begin(), itemsBehind.end());
        EXPECT_EQ(Scanned(), expected);
        EXPECT_TRUE(m_log.Has(level, message)) << m_log;
        EXPECT_EQ(m_log.Messages().size(), 2U) << m_log;
        EXPECT_EQ(FlushedRev(), 3);
        EXPECT_EQ(WriteTransaction(4, "next"), kTwoTransactionsEnd);
    }
    static TCommitBlock Linked(const FileBuilder& file, i64 clearRev, i64 commitRev) {
        TCommitBlock block = NewCommitBlock(99, commitRev);
        block.prevSequence = file.LastSequence();
        block.clearRev = clearRev;
        return block;
    }
};

TEST_F(ScanRules, ANewFileStopsAtTheZerosBehindItsFirstCommitBlock) {
    Open(FileBuilder().NewFile().Zeros(8));
    EXPECT_EQ(Scanned(), Items{"commit 0 0"});
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_INFO),
              (Texts{"Loading stopped due to wrong signature (0x00000000) at offset 1056",
                     "Min rev: 0, max rev: 0, valid commit offset 1024, prevRecRev 0"}));
    EXPECT_EQ(m_log.Messages().size(), 2U) << m_log;
    EXPECT_EQ(FlushedRev(), 0);
    EXPECT_EQ(WriteTransaction(1, "one"), 1056);
}

TEST_F(ScanRules, HandsOutItemsInFileOrder) {
    Open(TwoTransactions().Zeros(8));
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
    EXPECT_EQ(m_log.Texts(),
              (Texts{"Loading stopped due to wrong signature (0x00000000) at offset 1203",
                     "Min rev: 0, max rev: 3, valid commit offset 1171, prevRecRev 3"}));
    EXPECT_EQ(FlushedRev(), 3);
}

TEST_F(ScanRules, DataThatRunsExactlyToTheEndOfTheFileIsWhole) {
    ExpectStop(TwoTransactions(), K9SYS_LOG_WARNING, "Couldn't read 4 bytes at once");
}

TEST_F(ScanRules, AnUnknownWordEndsTheData) {
    ExpectStop(TwoTransactions().RawWord(0x7B3A2D2B), K9SYS_LOG_INFO,
               "Loading stopped due to wrong signature (0x7B3A2D2B) at offset 1203");
}

TEST_F(ScanRules, ARecordBeforeAnyCommitBlockIsCorrupt) {
    Open(FileBuilder().Header().Record(1, "one").Commit(0, 1));
    EXPECT_EQ(Scan(), RC_FILE_CORRUPT);
    EXPECT_EQ(m_log.Texts(), Texts{"Found rec, but commit expected at offset 1024"});
    EXPECT_EQ(m_log.CodeOf("Found rec, but commit expected at offset 1024"), RC_FILE_CORRUPT);
    EXPECT_TRUE(m_items.empty());
}

TEST_F(ScanRules, NoCommitBlockAtAllIsCorrupt) {
    Open(FileBuilder().Header().Zeros(100));
    EXPECT_EQ(Scan(), RC_FILE_CORRUPT);
    EXPECT_EQ(m_log.Texts(),
              (Texts{"Loading stopped due to wrong signature (0x00000000) at offset 1024",
                     "First commit block is not found"}));
    EXPECT_EQ(m_log.CodeOf("First commit block is not found"), RC_FILE_CORRUPT);
}

TEST_F(ScanRules, AFileOfOneHeaderIsCorrupt) {
    Open(FileBuilder().Header());
    EXPECT_EQ(Scan(), RC_FILE_CORRUPT);
    EXPECT_EQ(m_log.Texts(),
              (Texts{"Couldn't read 4 bytes at once", "First commit block is not found"}));
}

TEST_F(ScanRules, ARecordBelowTheLastCommitStopsIt) {
    ExpectStop(TwoTransactions().Record(2, "late"), K9SYS_LOG_WARNING,
               "Found rec with rev (2) less than lastCommitted at offset 1203");
}

TEST_F(ScanRules, ARevisionThatDoesNotRiseStopsIt) {
    ExpectStop(TwoTransactions().Record(7, "seven").Record(7, "again"), K9SYS_LOG_WARNING,
               "Found rec with rev (7) greater than prev (7) at offset 1232",
               {"record 7 at 1203: seven"});
}

TEST_F(ScanRules, ARevisionThatFallsStopsIt) {
    ExpectStop(TwoTransactions().Record(7, "seven").Record(5, "five"), K9SYS_LOG_WARNING,
               "Found rec with rev (5) greater than prev (7) at offset 1232",
               {"record 7 at 1203: seven"});
}

TEST_F(ScanRules, ARecordAtTheCommittedRevisionItselfStopsByTheSecondRule) {
    ExpectStop(TwoTransactions().Record(3, "again"), K9SYS_LOG_WARNING,
               "Found rec with rev (3) greater than prev (3) at offset 1203");
}

TEST_F(ScanRules, ABrokenSequenceStopsIt) {
    FileBuilder file = TwoTransactions().Record(4, "four");
    TCommitBlock block = Linked(file, 0, 4);
    block.prevSequence ^= 1U;
    ExpectStop(file.RawCommit(block), K9SYS_LOG_WARNING,
               "Commit block consistency sequence is broken at offset 1231",
               {"record 4 at 1203: four"});
}

TEST_F(ScanRules, AClearRevisionThatFallsStopsIt) {
    FileBuilder file = FileBuilder().NewFile().Record(5, "five").Commit(3, 5);
    file.RawCommit(Linked(file, 2, 5));
    Open(file);
    EXPECT_EQ(Scanned(), (Items{"commit 0 0", "record 5 at 1056: five", "commit 3 5"}));
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_WARNING),
              Texts{"Found commit block at offset 1116 with clearRev (2) less than expected"});
    EXPECT_TRUE(m_log.Has("Min rev: 3, max rev: 5, valid commit offset 1084, prevRecRev 5"))
        << m_log;
}

TEST_F(ScanRules, ACommitBelowItsRecordsStopsIt) {
    FileBuilder file = TwoTransactions().Record(9, "nine");
    ExpectStop(file.RawCommit(Linked(file, 0, 8)), K9SYS_LOG_WARNING,
               "Found commit block at offset 1231 with commitRev (8) less than recRev (9)",
               {"record 9 at 1203: nine"});
}

TEST_F(ScanRules, ASequenceIsCheckedBeforeTheRevisions) {
    FileBuilder file = TwoTransactions();
    TCommitBlock block = Linked(file, -1, -1);
    block.prevSequence = 0;
    ExpectStop(file.RawCommit(block), K9SYS_LOG_WARNING,
               "Commit block consistency sequence is broken at offset 1203");
}

TEST_F(ScanRules, TheFirstCommitBlockCountsWithTheLargerOfItsRevisions) {
    Open(FileBuilder().Header().Commit(50, 40).Record(49, "below"));
    EXPECT_EQ(Scanned(), Items{"commit 50 40"});
    EXPECT_TRUE(m_log.Has("Found rec with rev (49) less than lastCommitted at offset 1056"));
    EXPECT_TRUE(m_log.Has("Min rev: 50, max rev: 50, valid commit offset 1024, prevRecRev 0"));
    EXPECT_EQ(FlushedRev(), 50);
}

TEST_F(ScanRules, ALaterCommitBlockCountsWithItsCommitRevision) {
    Open(FileBuilder().NewFile().Record(4, "four").Commit(4, 4).Commit(9, 4).Record(5, "five"));
    EXPECT_EQ(Scanned(), (Items{"commit 0 0", "record 4 at 1056: four", "commit 4 4", "commit 9 4",
                                "record 5 at 1148: five"}));
    EXPECT_EQ(FlushedRev(), 4);
}

TEST_F(ScanRules, AcceptsEqualRevisionsOfClearingAndCommit) {
    Open(
        FileBuilder().NewFile().Record(4, "four").Commit(4, 4).Commit(4, 4).Record(5).Commit(5, 5));
    EXPECT_EQ(Scanned().back(), "commit 5 5");
}

TEST_F(ScanRules, ACommitRevisionMayExceedItsRecords) {
    Open(FileBuilder().NewFile().Record(4, "four").Commit(0, 10).Record(10, "ten").Commit(0, 10));
    EXPECT_EQ(Scanned().back(), "commit 0 10");
    EXPECT_EQ(FlushedRev(), 10);
}

TEST_F(ScanRules, IgnoresTheFourthWordOfACommitBlock) {
    FileBuilder file = TwoTransactions();
    TCommitBlock block = Linked(file, 0, 3);
    block.zero = 0xFFFFFFFF;
    Open(file.RawCommit(block));
    EXPECT_EQ(Scanned().size(), TwoTransactionsItems().size() + 1);
}

TEST_F(ScanRules, ARecordWithoutDataIsValid) {
    Open(FileBuilder().NewFile().Record(1).Record(2).Commit(0, 2));
    EXPECT_EQ(Scanned(),
              (Items{"commit 0 0", "record 1 at 1056: ", "record 2 at 1080: ", "commit 0 2"}));
}

TEST_F(ScanRules, HandsOutTheUserWord) {
    Open(FileBuilder().NewFile().Record(1, "x", 0xC0FFEE42).Commit(0, 1));
    u32 word = 0;
    const K9eReplScanRecordCb record = [](std::uint64_t, const K9eReplRec* rec, void* ctx) {
        *static_cast<u32*>(ctx) = rec->userWord;
        return RC_OK;
    };
    const K9eReplScanCommitCb commit = [](void*, std::int64_t, std::int64_t) { return RC_OK; };
    EXPECT_EQ(m_solid.ScanFile(record, commit, &word), RC_OK);
    EXPECT_EQ(word, 0xC0FFEE42U);
}

TEST_F(ScanRules, LoadedSequenceAndClearRevisionGoIntoTheNextCommitBlock) {
    FileBuilder file = FileBuilder().NewFile().Record(5, "five").Commit(3, 5);
    Open(file);
    ASSERT_EQ(Scan(), RC_OK);
    SetTimeStampCounter(0xABCD);
    EXPECT_EQ(WriteTransaction(6, "six"), file.Size());
    TCommitBlock expected = Linked(file, 3, 6);
    expected.sequence = 0xABCD;
    EXPECT_EQ(WrittenBytes(), file.Record(6, "six").RawCommit(expected).Bytes());
}

}  // namespace
}  // namespace k9erepl::test
