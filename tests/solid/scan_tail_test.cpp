// What lies behind the last commit block: torn transactions, and the zeroing of what could be
// taken for data later.
#include "solid/solid_fixture.h"
#include "support/file_bytes.h"

namespace k9erepl::test {
namespace {

class ScanTail : public SolidTest {
  protected:
    static constexpr i64 kFirstEnd = 1142;  // of the first transaction of two

    ScanTail() { m_firstTransaction.resize(4); }

    std::vector<u8> Tail(i64 offset) {
        const std::vector<u8> bytes = WrittenBytes();
        return {At(bytes, offset), bytes.end()};
    }
    static bool AllZero(const std::vector<u8>& bytes) {
        return bytes == std::vector<u8>(bytes.size(), 0);
    }

    Items m_firstTransaction = TwoTransactionsItems();

    std::size_t Zeroings() const { return m_log.CountContaining("Abandoned data was cleared;"); }
};

// A commit block of an undone transaction, linked to the commit block of the first transaction.
FileBuilder GhostAt(i64 offset) {
    FileBuilder file;
    file.NewFile().Record(1, "one").Record(2, "two").Commit(0, 2);
    TCommitBlock ghost = NewCommitBlock(0x666, 9);
    ghost.prevSequence = file.LastSequence();
    file.Fill(static_cast<std::size_t>(offset - file.Size()), 0xEE);
    return file.RawCommit(ghost);
}

TEST_F(ScanTail, ATransactionCutAtAnyByteIsGone) {
    const FileBuilder whole = TwoTransactions();
    for (i64 size = kFirstEnd; size < whole.Size(); ++size) {
        Open(FileBuilder(whole).CutTo(size));
        Items items = Scanned();
        EXPECT_EQ(FlushedRev(), 2) << size;
        EXPECT_EQ(items.size(), size >= 1171 ? 5U : 4U) << size;
        items.resize(4);
        EXPECT_EQ(items, m_firstTransaction) << size;
        EXPECT_EQ(WriteTransaction(3, "again"), kFirstEnd) << size;
        m_solid.Close();
        EXPECT_EQ(ItemsOfFile().back(), "commit 0 3") << size;
    }
}

TEST_F(ScanTail, ATransactionZeroedFromAnyByteIsGone) {
    // Behind the first byte of its commit revision there are zeros anyway.
    for (i64 size = kFirstEnd; size <= kTwoTransactionsEnd - 8; ++size) {
        Open(TwoTransactions().CutTo(size).Zeros(500));
        Scanned();
        EXPECT_EQ(FlushedRev(), 2) << size;
        m_solid.Close();
    }
}

TEST_F(ScanTail, ACutOffTransactionIsHandedOutButNotFlushed) {
    Open(TwoTransactions().CutTo(1171).Zeros(40));
    EXPECT_EQ(Scanned(), (Items{"commit 0 0", "record 1 at 1056: one", "record 2 at 1083: two",
                                "commit 0 2", "record 3 at 1142: three"}));
    EXPECT_EQ(m_log.Texts(),
              (Texts{"Loading stopped due to wrong signature (0x00000000) at offset 1171",
                     "Min rev: 0, max rev: 2, valid commit offset 1110, prevRecRev 3"}));
    EXPECT_EQ(FlushedRev(), 2);
}

TEST_F(ScanTail, StaysAsItIsUntilTheFirstWrite) {
    const std::vector<u8> before = TwoTransactions().CutTo(1190).Bytes();
    Open(TwoTransactions().CutTo(1190));
    Scanned();
    EXPECT_EQ(WrittenBytes(), before);
}

TEST_F(ScanTail, IsZeroedBeforeTheFirstWrite) {
    Open(TwoTransactions().CutTo(1190).Fill(5000, 0xEE));
    Scanned();
    EXPECT_EQ(WriteTransaction(3, "x"), kFirstEnd);
    EXPECT_TRUE(AllZero(Tail(kFirstEnd + 25 + 32)));
    EXPECT_EQ(WrittenSize(), 6190);
    EXPECT_TRUE(m_log.Has("Abandoned data was cleared;offset 1142,file size 6190")) << m_log;
    WriteTransaction(4, "y");
    EXPECT_EQ(Zeroings(), 1U);
}

TEST_F(ScanTail, WithForceFlushTheZerosReachTheDiskBeforeTheWrite) {
    Open(TwoTransactions().CutTo(1190), "force_flush=yes");
    Scanned();
    FailWrite(1);
    WriteRecord(3, "x");
    EXPECT_EQ(m_writeResult, RC_SYSTEM_ERROR);
    EXPECT_EQ(CallCount(SystemCall::kFlush), 1U);
}

TEST_F(ScanTail, OfZerosIsNotTouched) {
    Open(TwoTransactions().Zeros(5000));
    Scanned();
    WriteTransaction(4, "x");
    EXPECT_EQ(Zeroings(), 0U);
    EXPECT_EQ(CallCount(SystemCall::kSetEnd), 0U);
}

TEST_F(ScanTail, OfNothingIsNotTouched) {
    Open(TwoTransactions());
    Scanned();
    WriteTransaction(4, "x");
    EXPECT_EQ(Zeroings(), 0U);
    EXPECT_EQ(CallCount(SystemCall::kSetEnd), 0U);
}

TEST_F(ScanTail, IsNoticedBehindAZeroWord) {
    Open(TwoTransactions().Zeros(4000).RawWord(1).Zeros(10));
    Scanned();
    WriteTransaction(4, "x");
    EXPECT_EQ(Zeroings(), 1U);
}

TEST_F(ScanTail, FurtherThanTheScanLookedIsClearedToo) {
    Open(TwoTransactions().Zeros(FileScan::kBufferSize).RawWord(kCommitSignature));
    Scanned();
    EXPECT_EQ(WriteTransaction(4, "x"), kTwoTransactionsEnd);
    EXPECT_EQ(Zeroings(), 1U);
    EXPECT_TRUE(AllZero(Tail(kTwoTransactionsEnd + 25 + 32)));
}

TEST_F(ScanTail, ThatTheBufferDoesNotReachCountsAsInUse) {
    constexpr std::size_t kBuffer = FileScan::kBufferSize;
    Open(TwoTransactions().Zeros(kBuffer).RawWord(1));
    Scanned();
    WriteTransaction(4, "x");
    EXPECT_EQ(Zeroings(), 1U);
    EXPECT_TRUE(AllZero(Tail(kTwoTransactionsEnd + 25 + 32)));
}

TEST_F(ScanTail, OfZerosUpToTheBuffersEndIsNotTouched) {
    FileBuilder file = TwoTransactions();
    Open(file.Zeros(
        static_cast<std::size_t>(kFirstCommitOffset + FileScan::kBufferSize - file.Size())));
    Scanned();
    WriteTransaction(4, "x");
    EXPECT_EQ(Zeroings(), 0U);
}

TEST_F(ScanTail, OfWholeRecordsUpToTheFilesEndIsNoticed) {
    Open(TwoTransactions().CutTo(1171));
    Scanned();
    EXPECT_EQ(WriteTransaction(3, "x"), kFirstEnd);
    EXPECT_EQ(Zeroings(), 1U);
}

TEST_F(ScanTail, OfLessThanAWordIsNoticed) {
    Open(TwoTransactions().Fill(1, 0x2A));
    Scanned();
    WriteTransaction(4, "x");
    EXPECT_EQ(Zeroings(), 1U);
}

TEST_F(ScanTail, AGhostCommitIsNeverBorrowed) {
    // The records that are written next end where a commit block of an undone transaction lies,
    // and the process ends before their own commit block is written.
    Open(GhostAt(1142 + 29));
    EXPECT_EQ(Scanned().back(), "commit 0 2");
    EXPECT_EQ(WriteRecord(3, "three", false), kFirstEnd);
    m_solid.Close();
    EXPECT_EQ(ItemsOfFile(), (Items{"commit 0 0", "record 1 at 1056: one", "record 2 at 1083: two",
                                    "commit 0 2", "record 3 at 1142: three"}));
    EXPECT_TRUE(m_log.Has("Min rev: 0, max rev: 2, valid commit offset 1110, prevRecRev 3"));
}

TEST_F(ScanTail, AGhostCommitOfARollbackIsNeverBorrowed) {
    Open(TwoTransactions().CutTo(kFirstEnd));
    Scanned();
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    EXPECT_EQ(WriteRecord(3, "three"), kFirstEnd);
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK);
    EXPECT_EQ(WriteRecord(3, "THREE", false), kFirstEnd);
    m_solid.Close();
    EXPECT_EQ(ItemsOfFile().back(), "record 3 at 1142: THREE");
}

TEST_F(ScanTail, AScanEmptiesTheReadBuffers) {
    Open(TwoTransactions());
    Scanned();
    EXPECT_EQ(Enumerated(1, 1), Items{"record 1 at 1056: one"});
    PatchBytes(Path(), 1080, std::vector<u8>{'O', 'N', 'E'});
    Scanned();
    EXPECT_EQ(Enumerated(1, 1), Items{"record 1 at 1056: ONE"});
}

TEST_F(ScanTail, ARescanOfAStorageInUseSeesWhatWasWritten) {
    Open(TwoTransactions());
    Scanned();
    WriteTransaction(4, "four");
    WriteTransaction(5, "five");
    Items expected = TwoTransactionsItems();
    expected.insert(expected.end(), {"record 4 at 1203: four", "commit 0 4",
                                     "record 5 at 1263: five", "commit 0 5"});
    EXPECT_EQ(Scanned(), expected);
    EXPECT_EQ(FlushedRev(), 5);
    EXPECT_EQ(WriteTransaction(6, "six"), 1323);
}

TEST_F(ScanTail, ARescanBringsNoUndoneTransactionBack) {
    Open(TwoTransactions().Zeros(500));
    Scanned();
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    WriteRecord(4, "four");
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK);
    m_log.Clear();
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
    EXPECT_TRUE(m_log.Has("Loading stopped at the end of the written data, offset 1203")) << m_log;
    EXPECT_EQ(FlushedRev(), 3);
}

}  // namespace
}  // namespace k9erepl::test
