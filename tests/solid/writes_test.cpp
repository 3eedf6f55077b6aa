// What is written into the storage file: the revision check, the flushed revision and transactions
// of the write entry; raising the clear revision, by one commit block or nothing at all, also where
// other work is still queued; starting the file over, behind which nothing returns.
#include <algorithm>
#include <atomic>
#include <vector>

#include "solid/solid_fixture.h"
#include "support/file_bytes.h"
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
        Open(TwoTransactions(), "async_mode=yes");
        EXPECT_EQ(Scan(), RC_OK);
    }
    ~AsyncClearRev() override {
        m_calls.m_tasks.Open();
        m_solid.Close();
    }

    AsyncCalls m_calls;
    K9eReplBlock m_head{};
    std::atomic<i64> m_position{kUnknownOffset};
};

TEST_F(AsyncClearRev, DoesNotReachACommitBlockQueuedBefore) {
    std::vector<u8> run = FileBuilder().Record(4, "data").Commit(0, 4).Bytes();
    const auto size = static_cast<u32>(run.size());
    auto* const block = reinterpret_cast<TCommitBlock*>(run.data() + size - kCommitBlockSize);
    ASSERT_EQ(m_solid.WriteItems(run.data(), size, block, &m_head, 4, &m_position), RC_OK);
    ASSERT_EQ(m_solid.SetClearRev(2), RC_OK);
    m_calls.m_tasks.Open();
    ASSERT_EQ(m_solid.CompleteAsyncTasks(), RC_OK);
    Items expected = TwoTransactionsItems();
    expected.insert(expected.end(), {"record 4 at 1203: data", "commit 0 4", "commit 2 4"});
    EXPECT_EQ(ItemsOfFile(), expected);
}

class TruncateFile : public SolidTest {
  protected:
    TruncateFile() { OpenScanned(""); }

    void OpenScanned(const std::string& settings) {
        m_solid.Close();
        Open(TwoTransactions(), settings);
        EXPECT_EQ(Scan(), RC_OK);
        m_log.Clear();
    }
    // The first 1064 bytes of a file that was started over.
    static FileBuilder Beginning(u32 sequence, i64 rev, u32 lifenum = 0, i64 clearOldRev = 0) {
        TCommitBlock block = NewCommitBlock(sequence, rev);
        block.prevSequence = TwoTransactions().LastSequence();
        block.clearRev = rev;
        return FileBuilder().Header(lifenum, clearOldRev).RawCommit(block).Zeros(8);
    }
    // That, and behind it what lay there before.
    static std::vector<u8> OverTwoTransactions(FileBuilder beginning) {
        const std::vector<u8> old = TwoTransactions().Bytes();
        return beginning.Raw(old.data() + kNewFileSize, old.size() - kNewFileSize).Bytes();
    }
    TCommitBlock CommitBlockAt(i64 offset) {
        return LoadUnaligned<TCommitBlock>(WrittenBytes().data() + offset);
    }
    bool AllZeroFrom(i64 offset) {
        const std::vector<u8> bytes = WrittenBytes();
        return std::all_of(At(bytes, offset), bytes.end(), [](u8 byte) { return byte == 0; });
    }
};

TEST_F(TruncateFile, WritesAFirstCommitBlockWithTheRevision) {
    SetTimeStampCounter(0x9'0000'0077, 1);
    EXPECT_EQ(m_solid.SetLifenum(9), RC_OK);
    u32 notices = 0;
    m_solid.SetWrittenRevisionCallback([](std::int64_t, void* ctx) { ++*static_cast<u32*>(ctx); },
                                       &notices);
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    EXPECT_EQ(notices, 0U);
    EXPECT_EQ(CallCount(SystemCall::kFlush), 1U) << "it is on the disk";
    EXPECT_EQ(LoggedTexts(), Texts{"File was truncated;clear rev 3"});
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "File was truncated;clear rev 3"));
    EXPECT_EQ(WrittenBytes(), OverTwoTransactions(Beginning(0x77, 3)));
    EXPECT_EQ(ItemsOfFile(), Items{"commit 3 3"});
}

TEST_F(TruncateFile, WritesTheGivenHeaderFields) {
    SetTimeStampCounter(0x77, 1);
    EXPECT_EQ(m_solid.SetLifenum(9), RC_OK);
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 5, -6), RC_OK);
    EXPECT_EQ(WrittenBytes(), OverTwoTransactions(Beginning(0x77, 3, 5, -6)));
}

TEST_F(TruncateFile, ServesNothingAfterwards) {
    EXPECT_EQ(Enumerated(1, 9).size(), 3U);
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    EXPECT_EQ(Enumerated(1, 9), Items{});
    EXPECT_EQ(FlushedRev(), 0);
    EXPECT_EQ(m_solid.FileSize(), kNewFileSize);
}

TEST_F(TruncateFile, TheNextWriteBeginsTheFileAndCarriesTheRevision) {
    SetTimeStampCounter(0x77, 1);
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    EXPECT_EQ(WriteTransaction(4, "four"), kFirstItemOffset);
    const TCommitBlock next = CommitBlockAt(kFirstItemOffset + 28);
    EXPECT_EQ(u32{next.prevSequence}, 0x77U);
    EXPECT_EQ(i64{next.clearRev}, 3);
    EXPECT_EQ(ItemsOfFile(), (Items{"commit 3 3", "record 4 at 1056: four", "commit 3 4"}));
}

TEST_F(TruncateFile, ALoadTakesRecordsFromTheRevisionOn) {
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    EXPECT_EQ(m_solid.TruncateToClearRev(5, 0, 0), RC_OK);
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK) << "the transaction is forgotten";
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK) << "it may be repeated";
    EXPECT_EQ(WriteTransaction(3, "three"), kFirstItemOffset);
    EXPECT_EQ(ItemsOfFile(), (Items{"commit 3 3", "record 3 at 1056: three", "commit 3 3"}));
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    WriteTransaction(2, "two");
    EXPECT_EQ(ItemsOfFile(), Items{"commit 3 3"});
    EXPECT_TRUE(m_log.Has("Found rec with rev (2) less than lastCommitted at offset 1056"));
}

TEST_F(TruncateFile, OldItemsDoNotReturnWhenTheDataReachesThem) {
    for (const bool reopens : {false, true}) {
        OpenScanned("");
        EXPECT_EQ(m_solid.TruncateToClearRev(0, 0, 0), RC_OK);
        EXPECT_EQ(WrittenSize(), kTwoTransactionsEnd);
        if (reopens) {
            Reopen();
            EXPECT_EQ(Scanned(), Items{"commit 0 0"});
        }
        // Ends where the second transaction's record 3 lies in the old file.
        EXPECT_EQ(WriteTransaction(1, std::string(30, 'x')), kFirstItemOffset);
        EXPECT_TRUE(AllZeroFrom(kFirstItemOffset + 54 + 32));
        EXPECT_EQ(WrittenSize(), kTwoTransactionsEnd);
        EXPECT_EQ(ItemsOfFile(),
                  (Items{"commit 0 0", "record 1 at 1056: " + std::string(30, 'x'), "commit 0 1"}));
    }
}

TEST_F(TruncateFile, SetsTheInitialSize) {
    OpenScanned("file_initial_size=1");
    SetTimeStampCounter(0x77, 1);
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    std::vector<u8> expected = OverTwoTransactions(Beginning(0x77, 3));
    expected.resize(kMebibyte);
    EXPECT_EQ(WrittenBytes(), expected);
    EXPECT_EQ(m_solid.FileSize(), kMebibyte);
}

TEST_F(TruncateFile, GrowsByTheStepFromTheNewSize) {
    OpenScanned("file_size_delta=1");
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    WriteTransaction(4, "four");
    EXPECT_EQ(WrittenSize(), kNewFileSize + kMebibyte);
    EXPECT_EQ(m_solid.FileSize(), kNewFileSize + kMebibyte);
    EXPECT_TRUE(AllZeroFrom(kFirstItemOffset + 28 + 32));
}

TEST_F(TruncateFile, ThatFailsIsReportedAndMayBeTriedAgain) {
    constexpr struct {
        SystemCall call;
        u32 nth;
        const char* message;
    } kFaults[] = {{SystemCall::kSeek, 1, "Cannot seek to offset 0;"},
                   {SystemCall::kWrite, 1, "Cannot write file header to file;"},
                   {SystemCall::kSetEnd, 1, "Cannot set initial file size (1048576);"},
                   {SystemCall::kSeek, 2, "Cannot seek to offset 1056;"},
                   {SystemCall::kFlush, 1, "Cannot flush file;"}};
    for (const auto& fault : kFaults) {
        OpenScanned("file_initial_size=1");
        Fail(fault.call, fault.nth);
        const std::string text = fault.message + SysErr(SystemErrorKind::kInputOutput);
        EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_SYSTEM_ERROR);
        EXPECT_EQ(LoggedTexts(), Texts{text});
        EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
        WriteTransaction(4, "four");
        EXPECT_EQ(ItemsOfFile(), (Items{"commit 3 3", "record 4 at 1056: four", "commit 3 4"}));
    }
}

}  // namespace
}  // namespace k9erepl::test
