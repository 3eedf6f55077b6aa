// The storage file's write entry: the revision check, the flushed revision, transactions. Raising
// the clear revision: one commit block behind the data, or nothing at all, also where other work is
// still queued in the asynchronous writer.
#include <vector>

#include "platform/system_calls.h"
#include "platform/thread.h"
#include "solid/solid_fixture.h"
#include "writers/async_calls.h"

namespace k9erepl::test {
namespace {

class SolidWrites : public SolidTest {
  protected:
    SolidWrites() { OpenScanned(""); }

    void OpenScanned(const std::string& settings) {
        m_solid.Close();
        Open(TwoTransactions(), settings);
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
    // What the file holds with these items behind its two transactions.
    static Items With(const Items& items) {
        Items all = TwoTransactionsItems();
        all.insert(all.end(), items.begin(), items.end());
        return all;
    }
};

TEST_F(SolidWrites, RefuseARevisionBelowTheFlushedOne) {
    EXPECT_EQ(WriteRecord(2, "late"), kUnknownOffset);
    EXPECT_EQ(m_writeResult, RC_BAD_DATA);
    EXPECT_EQ(m_log.Texts(), Texts{"New rev 2 is less than last flushed rev 3"});
    EXPECT_EQ(m_log.CodeOf("New rev 2 is less than last flushed rev 3"), RC_BAD_DATA);
    EXPECT_EQ(WrittenSize(), kTwoTransactionsEnd);
}

TEST_F(SolidWrites, RaiseTheFlushedRevisionToThatOfTheCommitBlock) {
    EXPECT_EQ(WriteRecord(4, "four", false), kTwoTransactionsEnd);
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(WriteRecord(5, "five"), kTwoTransactionsEnd + 28);
    EXPECT_EQ(FlushedRev(), 5);
    EXPECT_EQ(WriteCommit(5, 5), RC_OK);
    EXPECT_EQ(WriteCommit(10, 6), RC_OK);
    EXPECT_EQ(FlushedRev(), 10);
    EXPECT_EQ(ItemsOfFile().back(), "commit 0 10");
}

TEST_F(SolidWrites, ARollbackRestoresPositionRevisionAndChain) {
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK) << "without a transaction";
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    WriteRecord(4, "four");
    WriteRecord(5, "five");
    EXPECT_EQ(FlushedRev(), 5);
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK);
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(WriteTransaction(4, "again"), kTwoTransactionsEnd);
    EXPECT_EQ(ItemsOfFile(), With({"record 4 at 1203: again", "commit 0 4"}));
}

TEST_F(SolidWrites, ACommitAndAClearRevisionAreFlushedToTheDiskOnlyWithForceFlush) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    WriteTransaction(4, "four");
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kFlush), 0U);
    OpenScanned("force_flush=yes");
    WriteTransaction(5, "five");
    EXPECT_EQ(CallCount(SystemCall::kFlush), 1U);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kFlush), 2U);
}

class ClearRev : public SolidWrites {
  protected:
    // The clear revision that the next commit block carries.
    i64 NextClearRev(i64 rev) {
        const i64 at = WriteTransaction(rev, "next");
        return CommitBlockAt(at + kRecordHeadSize + 4).clearRev;
    }

    const std::string m_ioError = SysErr(SystemErrorKind::kInputOutput);
};

TEST_F(ClearRev, AppendsACommitBlockAtTheFlushedRevisionAndRemovesNothing) {
    SetTimeStampCounter(0x7'0000'0042, 1);
    TCommitBlock block = NewCommitBlock(0x42, 3);
    block.prevSequence = TwoTransactions().LastSequence();
    block.clearRev = 2;
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(m_log.Texts().back(), "Set clear rev 2");
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Set clear rev 2"));
    EXPECT_TRUE(RunsAsynchronously() || m_log.Has("Written data size 32, last rev 3"));
    EXPECT_EQ(WrittenBytes(), TwoTransactions().RawCommit(block).Bytes());
    EXPECT_EQ(Enumerated(1, 9).size(), 3U);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK) << "it may stay the same";
    EXPECT_EQ(ItemsOfFile(), With({"commit 2 3", "commit 2 3"}));
}

TEST_F(ClearRev, IsCarriedByEveryLaterCommitBlockAlsoAfterALoad) {
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(NextClearRev(4), 2);
    Reopen();
    EXPECT_EQ(Scan(), RC_OK);
    EXPECT_EQ(NextClearRev(5), 2);
    EXPECT_EQ(ItemsOfFile(), With({"commit 2 3", "record 4 at 1235: next", "commit 2 4",
                                   "record 5 at 1295: next", "commit 2 5"}));
}

TEST_F(ClearRev, NeverFalls) {
    EXPECT_EQ(m_solid.SetClearRev(3), RC_OK);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(NextClearRev(4), 3);
    EXPECT_EQ(ItemsOfFile().size(), With({"", "", "", ""}).size());
}

TEST_F(ClearRev, ThatCannotBeWrittenStaysAsItWas) {
    SKIP_WHEN_ASYNC("a failed write is reported by the operation that made it");
    for (const bool partly : {false, true}) {
        OpenScanned("");
        partly ? ShortWrite(1, 20) : FailWrite(1);
        EXPECT_EQ(m_solid.SetClearRev(2), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR),
                  Texts{"Cannot write data;" + SysErr(SystemErrorKind::kNoSpace)});
        EXPECT_EQ(NextClearRev(4), 0);
        EXPECT_EQ(ItemsOfFile(), With({"record 4 at 1203: next", "commit 0 4"}));
    }
}

TEST_F(ClearRev, ThatCannotBeFlushedGoesBackAndMayBeRaisedAgain) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    for (const bool pointerStays : {false, true}) {
        OpenScanned("force_flush=yes");
        FailFlush(1);
        if (pointerStays) {
            FailSeek(1);
        }
        EXPECT_EQ(m_solid.SetClearRev(2), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR)[0], "FlushFileBuffers failed;" + m_ioError);
        EXPECT_FALSE(m_log.Has("Set clear rev 2"));
        EXPECT_EQ(FlushedRev(), 3);
        EXPECT_EQ(NextClearRev(4), 0);
        EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
        EXPECT_EQ(ItemsOfFile(), With({"record 4 at 1203: next", "commit 0 4", "commit 2 4"}));
    }
}

TEST_F(ClearRev, EmptiesTheReadBuffersAsACommitDoes) {
    for (const bool clears : {true, false}) {
        EXPECT_EQ(Enumerated(1, 1).size(), 1U);
        const u32 reads = CallCount(SystemCall::kRead);
        EXPECT_EQ(clears ? m_solid.SetClearRev(2) : m_solid.Commit(), RC_OK);
        EXPECT_EQ(Enumerated(1, 1).size(), 1U);
        EXPECT_EQ(CallCount(SystemCall::kRead), reads + 1);
    }
}

class NestedClearRev : public ClearRev {
  protected:
    // Writes a transaction when the clear revision's commit block is announced.
    NestedClearRev() {
        OpenScanned("force_flush=yes");
        m_solid.SetWrittenRevisionCallback(
            [](std::int64_t rev, void* ctx) {
                if (rev == 3) {
                    static_cast<NestedClearRev*>(ctx)->WriteTransaction(4, "four");
                }
            },
            this);
    }
};

TEST_F(NestedClearRev, TheNotificationMayWrite) {
    SKIP_WHEN_ASYNC("the notification may write");
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(ItemsOfFile(), With({"commit 2 3", "record 4 at 1235: four", "commit 2 4"}));
}

TEST_F(NestedClearRev, StaysUnderWhatTheNotificationWrote) {
    SKIP_WHEN_ASYNC("the notification may write");
    FailFlush(2);  // the notification's own is the first
    EXPECT_EQ(m_solid.SetClearRev(2), RC_SYSTEM_ERROR);
    m_solid.SetWrittenRevisionCallback(nullptr, nullptr);
    EXPECT_EQ(FlushedRev(), 4);
    EXPECT_EQ(NextClearRev(5), 2);
    EXPECT_EQ(ItemsOfFile(), With({"commit 2 3", "record 4 at 1235: four", "commit 2 4",
                                   "record 5 at 1295: next", "commit 2 5"}));
}

class AsyncClearRev : public SolidTest {
  protected:
    AsyncClearRev() {
        s_test = this;
        platform::TheSystemCalls().allocMemory = Alloc;
        Open(TwoTransactions(), "async_mode=yes");
        EXPECT_EQ(Scan(), RC_OK);
    }
    ~AsyncClearRev() override {
        m_calls.m_tasks.Open();
        m_solid.Close();
    }

    // The commit block finds no memory, and what was queued before it reaches the file meanwhile.
    void FailTheCommitBlockWhileTheQueueIsWritten() { m_failing = true; }
    void RunAll() {
        m_calls.m_tasks.Open();
        ASSERT_EQ(m_solid.CompleteAsyncTasks(), RC_OK);
    }
    TCommitBlock CommitBlockAt(i64 offset) const {
        return LoadUnaligned<TCommitBlock>(ReadBytes(Path()).data() + offset);
    }
    u32 QueueRecord(i64 rev, i64 commitRev) {
        FileBuilder items;
        items.Record(rev, "data").Commit(0, commitRev);
        m_block = items.Bytes();
        const auto size = static_cast<u32>(m_block.size());
        auto* const commitBlock =
            reinterpret_cast<TCommitBlock*>(m_block.data() + size - kCommitBlockSize);
        return m_solid.WriteItems(m_block.data(), size, commitBlock, &m_head, commitRev,
                                  &m_position);
    }

    AsyncCalls m_calls;
    std::vector<u8> m_block;
    K9eReplBlock m_head{};
    std::atomic<i64> m_position{kUnknownOffset};

  private:
    static void* Alloc(std::size_t size) {
        if (size != kCommitBlockSize || !s_test->m_failing) {
            return platform::NativeSystemCalls().allocMemory(size);
        }
        s_test->m_failing = false;
        s_test->m_calls.m_tasks.LetOnePass();
        s_test->m_calls.m_tasks.WaitUntilHeld();
        return nullptr;
    }

    static inline AsyncClearRev* s_test = nullptr;
    std::atomic<bool> m_failing{false};
};

TEST_F(AsyncClearRev, ThatCannotBeQueuedStaysAsItWas) {
    ASSERT_EQ(QueueRecord(4, 4), RC_OK);
    FailTheCommitBlockWhileTheQueueIsWritten();
    EXPECT_EQ(m_solid.SetClearRev(2), RC_NO_MEMORY);
    EXPECT_EQ(m_head.pendingWrites, 0);
    ASSERT_EQ(QueueRecord(5, 5), RC_OK);
    RunAll();
    EXPECT_EQ(ItemsOfFile().back(), "commit 0 5");
}

TEST_F(AsyncClearRev, DoesNotReachACommitBlockQueuedBefore) {
    ASSERT_EQ(QueueRecord(4, 4), RC_OK);
    ASSERT_EQ(m_solid.SetClearRev(2), RC_OK);
    RunAll();
    EXPECT_EQ(CommitBlockAt(kTwoTransactionsEnd + 28).clearRev, 0);
    EXPECT_EQ(CommitBlockAt(kTwoTransactionsEnd + 28 + kCommitBlockSize).clearRev, 2);
    EXPECT_EQ(ItemsOfFile().back(), "commit 2 4");
}

}  // namespace
}  // namespace k9erepl::test
