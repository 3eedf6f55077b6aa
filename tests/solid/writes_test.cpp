// The storage file's write entry: the revision check, the flushed revision, transactions.
#include <vector>

#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

class SolidWrites : public SolidTest {
  protected:
    SolidWrites() {
        Open(TwoTransactions());
        EXPECT_EQ(Scan(), RC_OK);
        m_log.Clear();
    }
    // A commit block alone.
    u32 WriteCommit(i64 commitRev, i64 lastRevision) {
        TCommitBlock block = NewCommitBlock(0x77, commitRev);
        return m_solid.WriteItems(reinterpret_cast<u8*>(&block), kCommitBlockSize, &block, nullptr,
                                  lastRevision, nullptr);
    }
    TCommitBlock CommitBlockAt(i64 offset) {
        return LoadUnaligned<TCommitBlock>(WrittenBytes().data() + offset);
    }
};

TEST_F(SolidWrites, RefuseARevisionBelowTheFlushedOne) {
    EXPECT_EQ(WriteRecord(2, "late"), kUnknownOffset);
    EXPECT_EQ(m_writeResult, RC_BAD_DATA);
    EXPECT_EQ(m_log.Texts(), Texts{"New rev 2 is less than last flushed rev 3"});
    EXPECT_EQ(m_log.CodeOf("New rev 2 is less than last flushed rev 3"), RC_BAD_DATA);
    EXPECT_EQ(WrittenSize(), kTwoTransactionsEnd);
}

TEST_F(SolidWrites, TakeACommitBlockAtTheFlushedRevision) {
    EXPECT_EQ(WriteCommit(3, 3), RC_OK);
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(ItemsOfFile().back(), "commit 0 3");
}

TEST_F(SolidWrites, RaiseTheFlushedRevisionOnlyWithACommitBlock) {
    EXPECT_EQ(WriteRecord(4, "four", false), kTwoTransactionsEnd);
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(WriteRecord(5, "five"), kTwoTransactionsEnd + 28);
    EXPECT_EQ(FlushedRev(), 5);
}

TEST_F(SolidWrites, TheFlushedRevisionIsTheCommitBlocksOwn) {
    EXPECT_EQ(WriteCommit(10, 4), RC_OK);
    EXPECT_EQ(FlushedRev(), 10);
}

TEST_F(SolidWrites, AFailedWriteLeavesTheFlushedRevision) {
    SKIP_WHEN_ASYNC("a failed write is reported by the operation that made it");
    FailWrite(1);
    WriteRecord(4, "four");
    EXPECT_EQ(m_writeResult, RC_SYSTEM_ERROR);
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(WriteTransaction(4, "four"), kTwoTransactionsEnd);
}

TEST_F(SolidWrites, LinkTheirCommitBlocks) {
    SetTimeStampCounter(0x1'0000'0005, 1);
    const i64 first = WriteTransaction(4, "four");
    const i64 second = WriteTransaction(5, "five");
    const TCommitBlock a = CommitBlockAt(first + 28);
    const TCommitBlock b = CommitBlockAt(second + 28);
    EXPECT_EQ(u32{a.prevSequence}, TwoTransactions().LastSequence());
    EXPECT_EQ(u32{a.sequence}, 5U);
    EXPECT_EQ(u32{b.prevSequence}, 5U);
    EXPECT_EQ(u32{b.sequence}, 6U);
    EXPECT_EQ(u32{b.zero}, 0U);
}

TEST_F(SolidWrites, ARollbackRestoresPositionRevisionAndChain) {
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    WriteRecord(4, "four");
    WriteRecord(5, "five");
    EXPECT_EQ(FlushedRev(), 5);
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK);
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(WriteTransaction(4, "again"), kTwoTransactionsEnd);
    Items expected = TwoTransactionsItems();
    expected.insert(expected.end(), {"record 4 at 1203: again", "commit 0 4"});
    EXPECT_EQ(ItemsOfFile(), expected);
}

TEST_F(SolidWrites, ARollbackWithoutATransactionDoesNothing) {
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK);
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(WriteTransaction(4, "four"), kTwoTransactionsEnd);
}

TEST_F(SolidWrites, ARollbackReportsItsFailure) {
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    WriteRecord(4, "four");
    FailSeek(1);
    EXPECT_EQ(m_solid.RollbackWrites(), RC_SYSTEM_ERROR);
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(WriteTransaction(4, "again"), kTwoTransactionsEnd);
    EXPECT_EQ(ItemsOfFile().back(), "commit 0 4");
}

TEST_F(SolidWrites, AScanForgetsTheTransaction) {
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    WriteRecord(4, "four");
    EXPECT_EQ(Scan(), RC_OK);
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK);
    EXPECT_EQ(FlushedRev(), 4);
}

TEST_F(SolidWrites, ACommitFlushesToTheDiskOnlyWithForceFlush) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    WriteTransaction(4, "four");
    EXPECT_EQ(CallCount(SystemCall::kFlush), 0U);
    Reopen("force_flush=yes");
    EXPECT_EQ(Scan(), RC_OK);
    WriteTransaction(5, "five");
    EXPECT_EQ(CallCount(SystemCall::kFlush), 1U);
}

TEST_F(SolidWrites, ACommitReportsAFailedFlush) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    Reopen("force_flush=yes");
    EXPECT_EQ(Scan(), RC_OK);
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    WriteRecord(4, "four");
    FailFlush(1);
    EXPECT_EQ(m_solid.Commit(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK);
    EXPECT_EQ(WriteTransaction(4, "again"), kTwoTransactionsEnd);
}

TEST_F(SolidWrites, ACommitEmptiesTheReadBuffers) {
    EXPECT_EQ(Enumerated(1, 1).size(), 1U);
    const u32 reads = CallCount(SystemCall::kRead);
    EXPECT_EQ(m_solid.Commit(), RC_OK);
    EXPECT_EQ(Enumerated(1, 1).size(), 1U);
    EXPECT_EQ(CallCount(SystemCall::kRead), reads + 1);
}

TEST_F(SolidWrites, NotifyOncePerCommitBlock) {
    std::vector<i64> revisions;
    const K9eReplFlushCb callback = [](std::int64_t rev, void* ctx) {
        static_cast<std::vector<i64>*>(ctx)->push_back(rev);
    };
    EXPECT_EQ(m_solid.SetWrittenRevisionCallback(callback, &revisions), RC_OK);
    WriteRecord(4, "four", false);
    WriteRecord(5, "five");
    WriteRecord(6, "six");
    EXPECT_EQ(m_solid.SetWrittenRevisionCallback(nullptr, nullptr), RC_OK);
    WriteRecord(7, "seven");
    EXPECT_EQ(revisions, (std::vector<i64>{5, 6}));
}

class NestedWrites : public SolidWrites {
  protected:
    // Writes one more transaction when revision 4 is announced.
    static void OnWritten(std::int64_t rev, void* ctx) {
        if (rev == 4) {
            static_cast<NestedWrites*>(ctx)->WriteRecord(5, "five");
        }
    }
};

TEST_F(NestedWrites, TheNotificationMayWriteAndNothingOfItIsTakenBack) {
    SKIP_WHEN_ASYNC("the notification may write");
    m_solid.SetWrittenRevisionCallback(&OnWritten, this);
    WriteRecord(4, "four");
    EXPECT_EQ(FlushedRev(), 5);
    Items expected = TwoTransactionsItems();
    expected.insert(expected.end(), {"record 4 at 1203: four", "commit 0 4",
                                     "record 5 at 1263: five", "commit 0 5"});
    EXPECT_EQ(ItemsOfFile(), expected);
    EXPECT_EQ(Enumerated(5, 5), Items{"record 5 at 1263: five"});
}

}  // namespace
}  // namespace k9erepl::test
