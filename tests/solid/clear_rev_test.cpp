// Raising the clear revision: one commit block behind the data, or nothing at all.
#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

class ClearRev : public SolidTest {
  protected:
    ClearRev() { OpenScanned(""); }

    void OpenScanned(const std::string& settings) {
        m_solid.Close();
        Open(TwoTransactions(), settings);
        EXPECT_EQ(Scan(), RC_OK);
        m_log.Clear();
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
    // The clear revision that the next commit block carries.
    i64 NextClearRev(i64 rev) {
        const i64 at = WriteTransaction(rev, "next");
        return CommitBlockAt(at + kRecordHeadSize + 4).clearRev;
    }

    const std::string m_ioError = SysErr(SystemErrorKind::kInputOutput);
};

TEST_F(ClearRev, AppendsACommitBlockAtTheFlushedRevision) {
    SetTimeStampCounter(0x7'0000'0042, 1);
    TCommitBlock block = NewCommitBlock(0x42, 3);
    block.prevSequence = TwoTransactions().LastSequence();
    block.clearRev = 2;
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(WrittenBytes(), TwoTransactions().RawCommit(block).Bytes());
}

TEST_F(ClearRev, SaysWhatItDid) {
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(m_log.Texts().back(), "Set clear rev 2");
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Set clear rev 2"));
    EXPECT_TRUE(RunsAsynchronously() || m_log.Has("Written data size 32, last rev 3"));
}

TEST_F(ClearRev, RemovesNothing) {
    EXPECT_EQ(m_solid.SetClearRev(3), RC_OK);
    EXPECT_EQ(Enumerated(1, 9).size(), 3U);
    EXPECT_EQ(ItemsOfFile(), With({"commit 3 3"}));
}

TEST_F(ClearRev, IsCarriedByEveryLaterCommitBlock) {
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(NextClearRev(4), 2);
    EXPECT_EQ(NextClearRev(5), 2);
    EXPECT_EQ(ItemsOfFile(), With({"commit 2 3", "record 4 at 1235: next", "commit 2 4",
                                   "record 5 at 1295: next", "commit 2 5"}));
}

TEST_F(ClearRev, IsInForceAfterALoad) {
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    Reopen();
    EXPECT_EQ(Scan(), RC_OK);
    EXPECT_EQ(NextClearRev(4), 2);
}

TEST_F(ClearRev, NeverFailsTheRevisionCheck) {
    WriteTransaction(40, "forty");
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(FlushedRev(), 40);
    EXPECT_EQ(ItemsOfFile().back(), "commit 2 40");
}

TEST_F(ClearRev, MayStayTheSame) {
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(ItemsOfFile(), With({"commit 2 3", "commit 2 3"}));
}

TEST_F(ClearRev, NeverFalls) {
    EXPECT_EQ(m_solid.SetClearRev(3), RC_OK);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(NextClearRev(4), 3);
    EXPECT_EQ(ItemsOfFile().size(), With({"", "", "", ""}).size());
}

TEST_F(ClearRev, OfAStorageWithoutItemsIsLoaded) {
    m_solid.Close();
    Open(FileBuilder().NewFile().Zeros(8));
    EXPECT_EQ(Scan(), RC_OK);
    EXPECT_EQ(m_solid.SetClearRev(1), RC_OK);
    EXPECT_EQ(ItemsOfFile(), (Items{"commit 0 0", "commit 1 0"}));
}

TEST_F(ClearRev, IsAnnouncedWithTheFlushedRevision) {
    std::vector<i64> revisions;
    m_solid.SetWrittenRevisionCallback(
        [](std::int64_t rev, void* ctx) { static_cast<std::vector<i64>*>(ctx)->push_back(rev); },
        &revisions);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(m_solid.CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(revisions, std::vector<i64>{3});
}

TEST_F(ClearRev, GrowsTheFileLikeEveryWrite) {
    OpenScanned("file_size_delta=1");
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(WrittenSize(), kTwoTransactionsEnd + 1024 * 1024);
}

TEST_F(ClearRev, NeedsAnOpenFile) {
    m_solid.Close();
    EXPECT_EQ(m_solid.SetClearRev(2), RC_NO_WRITER);
    EXPECT_EQ(LoggedTexts(), Texts{});
}

TEST_F(ClearRev, IsFlushedToTheDiskOnlyWithForceFlush) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kFlush), 0U);
    OpenScanned("force_flush=yes");
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kFlush), 1U);
}

TEST_F(ClearRev, ThatCannotBeWrittenStaysAsItWas) {
    SKIP_WHEN_ASYNC("a failed write is reported by the operation that made it");
    FailWrite(1);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR),
              Texts{"Cannot write data;" + SysErr(SystemErrorKind::kNoSpace)});
    EXPECT_EQ(NextClearRev(4), 0);
    EXPECT_EQ(ItemsOfFile(), With({"record 4 at 1203: next", "commit 0 4"}));
}

TEST_F(ClearRev, ThatIsWrittenInPartStaysAsItWas) {
    SKIP_WHEN_ASYNC("a failed write is reported by the operation that made it");
    ShortWrite(1, 20);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_SYSTEM_ERROR);
    EXPECT_EQ(NextClearRev(4), 0);
    EXPECT_EQ(ItemsOfFile(), With({"record 4 at 1203: next", "commit 0 4"}));
}

TEST_F(ClearRev, ThatCannotBeFlushedGoesBack) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    OpenScanned("force_flush=yes");
    FailFlush(1);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), Texts{"FlushFileBuffers failed;" + m_ioError});
    EXPECT_FALSE(m_log.Has("Set clear rev 2"));
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(NextClearRev(4), 0);
    EXPECT_EQ(ItemsOfFile(), With({"record 4 at 1203: next", "commit 0 4"}));
}

TEST_F(ClearRev, ThatCannotBeFlushedMayBeRaisedAgain) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    OpenScanned("force_flush=yes");
    FailFlush(1);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(ItemsOfFile(), With({"commit 2 3"}));
}

TEST_F(ClearRev, GoesBackAlsoWhenTheFilePointerDoesNot) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    OpenScanned("force_flush=yes");
    FailFlush(1);
    FailSeek(1);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_SYSTEM_ERROR);
    EXPECT_EQ(NextClearRev(4), 0);
    EXPECT_EQ(ItemsOfFile(), With({"record 4 at 1203: next", "commit 0 4"}));
}

TEST_F(ClearRev, EmptiesTheReadBuffers) {
    EXPECT_EQ(Enumerated(1, 1).size(), 1U);
    const u32 reads = CallCount(SystemCall::kRead);
    EXPECT_EQ(m_solid.SetClearRev(2), RC_OK);
    EXPECT_EQ(Enumerated(1, 1).size(), 1U);
    EXPECT_EQ(CallCount(SystemCall::kRead), reads + 1);
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

}  // namespace
}  // namespace k9erepl::test
