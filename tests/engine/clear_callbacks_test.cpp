// Callbacks that clear and truncate, and callbacks that insert while a clear is under way: which
// may do so, and that no record is lost, served twice or served after it was cleared.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <utility>

#include "engine/clear_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// A client's function that runs `action` in its first call only.
class Once : public Notified {
  public:
    explicit Once(std::function<void()> action)
        : Notified([this](i64) {
              if (const auto first = std::exchange(m_action, nullptr)) {
                  first();
              }
          }),
          m_action(std::move(action)) {}

  private:
    std::function<void()> m_action;
};

constexpr u32 kFileModes[] = {kLogical, kSqueeze, kSqueezeBackup};

// Blocks with room for four records.
constexpr std::string_view kLargerBlocks = "block_size=300;";

}  // namespace

// --- Callbacks of a commit ---------------------------------------------------------------------

TEST(OnFlushOfACommit, MayClear) {
    for (const u32 mode : kFileModes) {
        ClearableStorage* client = nullptr;
        Once flushed([&] { client->ClearTo(3, mode); });
        ClearableStorage storage(KeepOnDisk());
        client = &storage;
        storage.Put(4);
        flushed.SetAsOnFlush(storage);
        ASSERT_EQ(storage.Insert(storage.TextOf(5)), RC_OK);
        EXPECT_EQ(RevsOf(storage.Records()), RevRange(3, 5));
        storage.Reopen();
        EXPECT_EQ(RevsOf(storage.Records()), RevRange(3, 5));
        EXPECT_EQ(storage.OldestRev(), 3);
    }
}

TEST(OnFlushOfACommit, MayClearEverything) {
    for (const u32 mode : kFileModes) {
        TestStorage* client = nullptr;
        Once flushed([&] { EXPECT_EQ(client->ClearAll(mode), RC_OK); });
        TestStorage storage(kEachCommit);
        client = &storage;
        flushed.SetAsOnFlush(storage);
        storage.InsertCommitted({"one", "two"});
        EXPECT_EQ(storage.Records(), SeenRecords());
        storage.InsertCommitted({"three"});
        storage.Reopen();
        EXPECT_EQ(storage.Records(), SeenRecords({{3, 0, "three"}}));
    }
}

TEST(OnFlushOfACommit, MayTruncate) {
    TestStorage* client = nullptr;
    Once flushed([&] { EXPECT_EQ(client->Truncate(), RC_OK); });
    TestStorage storage(kEachCommit);
    client = &storage;
    flushed.SetAsOnFlush(storage);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(storage.NextRev(), 1);
    storage.InsertCommitted({"again"});
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "again"}}));
}

TEST(OnFlushOfAnIdleFlush, MayNotRemoveUnderAnOpenTransaction) {
    TestStorage* client = nullptr;
    Once flushed([&] {
        EXPECT_EQ(client->Clear(2, kLogical), RC_IN_TRANSACTION);
        EXPECT_EQ(client->Truncate(), RC_IN_TRANSACTION);
    });
    TestStorage storage(kFlushNever);
    client = &storage;
    storage.InsertCommitted({"one", "two"});
    flushed.SetAsOnFlush(storage);
    ASSERT_EQ(storage.Begin(), RC_OK);
    EXPECT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
    EXPECT_EQ(flushed.Calls(), Revs({2}));
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
}

TEST(OnWriteToFileOfACommit, MayNotRemoveAnything) {
    SKIP_WHEN_ASYNC("OnWriteToFile may call back in");
    for (const u32 mode : {0U, 1U, 2U, 4U}) {
        TestStorage* client = nullptr;
        Once written([&] {
            const LogCapture log;
            EXPECT_EQ(client->Clear(2, mode), RC_IN_TRANSACTION);
            EXPECT_EQ(log.CodeOf("Coundn't clear old rev in trans"), RC_IN_TRANSACTION) << log;
            EXPECT_EQ(client->Truncate(), RC_IN_TRANSACTION);
            EXPECT_EQ(log.Messages().size(), 1U) << log;
        });
        TestStorage storage(kEachCommit);
        client = &storage;
        written.SetAsOnWriteToFile(storage);
        storage.InsertCommitted({"one", "two"});
        EXPECT_EQ(written.Calls(), Revs({2}));
        storage.Reopen();
        EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
        EXPECT_EQ(storage.RevisionMark(), 0);
    }
}

TEST(OnFlushWithoutAFile, MayClearAndTruncate) {
    TestStorage* client = nullptr;
    Once flushed([&] { EXPECT_EQ(client->Clear(2, kLogical), RC_OK); });
    Once written([&] { EXPECT_EQ(client->Truncate(), RC_OK); });
    TestStorage storage(kInMemory);
    client = &storage;
    flushed.SetAsOnFlush(storage);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(storage.Texts(), Strings({"two"}));
    written.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({"three"});
    EXPECT_EQ(storage.Texts(), Strings());
    EXPECT_EQ(storage.NextRev(), 1);
}

// --- Callbacks of the clear itself -------------------------------------------------------------

namespace {

// The parameter is the mode of a clear that flushes first.
class CallbackOfAClear : public ::testing::TestWithParam<u32> {
  protected:
    // Runs `action` in OnFlush of the flush before the clear.
    void InItsFlush(std::function<void()> action) {
        m_callback.emplace(std::move(action));
        m_callback->SetAsOnFlush(m_storage);
    }
    // Runs `action` when the clear's own commit block is written; everything must be flushed.
    void InItsCommitBlock(std::function<void()> action) {
        m_callback.emplace(std::move(action));
        m_callback->SetAsOnWriteToFile(m_storage);
    }

    std::optional<Once> m_callback;
    ClearableStorage m_storage{AllKeepings()[3], kLargerBlocks};
};

INSTANTIATE_TEST_SUITE_P(Mode, CallbackOfAClear, ::testing::ValuesIn(kFileModes));

}  // namespace

TEST_P(CallbackOfAClear, MayNotRemoveAnything) {
    m_storage.Put(5);
    InItsFlush([&] {
        const LogCapture log;
        EXPECT_EQ(m_storage.Clear(2, kLogical), RC_IN_TRANSACTION);
        EXPECT_EQ(m_storage.Clear(2, kMark), RC_IN_TRANSACTION);
        EXPECT_EQ(m_storage.ClearAll(kSqueeze), RC_IN_TRANSACTION);
        EXPECT_EQ(log.Count("Coundn't clear old rev in trans"), 3U) << log;
        EXPECT_EQ(m_storage.Truncate(), RC_IN_TRANSACTION);
        EXPECT_EQ(log.Texts(K9SYS_LOG_ERROR).size(), 3U) << log;
    });
    m_storage.ClearTo(3, GetParam());
    EXPECT_EQ(m_callback->Calls(), Revs({5}));
    m_storage.ExpectContentForLife();
}

TEST_P(CallbackOfAClear, ThatInsertsInTheFlushLosesNothing) {
    m_storage.Put(5);
    InItsFlush([&] { m_storage.Put(3); });
    m_storage.ClearTo(3, GetParam());
    m_storage.ExpectContentForLife();
}

// Its record is the only one that is kept, and not in the file when the clear begins.
TEST_P(CallbackOfAClear, ThatInsertsBehindAUsedUpClearRevisionLosesNothing) {
    m_storage.Put(3);
    m_storage.UseUp();
    InItsFlush([&] { m_storage.Put(); });
    m_storage.ClearTo(4, GetParam());
    EXPECT_EQ(m_callback->Calls(), Revs({3, 5}));
    m_storage.ExpectContentForLife();
}

TEST_P(CallbackOfAClear, ThatInsertsIntoTheEmptyBlockOfTheClearRevisionLosesNothing) {
    ClearableStorage storage(AllKeepings()[3]);
    storage.Put(3);
    storage.UseUpLeavingABlock();
    Once flushed([&] { storage.Put(); });
    flushed.SetAsOnFlush(storage);
    storage.ClearTo(4, GetParam());
    storage.ExpectContentForLife();
}

TEST_P(CallbackOfAClear, ThatLeavesATransactionOpenStopsTheClear) {
    m_storage.Put(5);
    InItsFlush([&] { EXPECT_EQ(m_storage.Begin(), RC_OK); });
    const LogCapture log;
    EXPECT_EQ(m_storage.Clear(3, GetParam()), RC_IN_TRANSACTION);
    EXPECT_EQ(log.CodeOf("Coundn't clear old rev in trans"), RC_IN_TRANSACTION) << log;
    ASSERT_EQ(m_storage.Rollback(), RC_OK);
    m_storage.ExpectContentForLife();
}

TEST_P(CallbackOfAClear, ThatFindsTheStorageBrokenStopsTheClear) {
    m_storage.Put(5);
    InItsFlush([&] { StorageAccess::SetState(m_storage.Object(), StorageState::kBroken); });
    const LogCapture log;
    EXPECT_EQ(m_storage.Clear(3, GetParam()), RC_WRONG_STATE);
    EXPECT_EQ(log.CodeOf("Failed to clear old rev;state 3"), RC_WRONG_STATE) << log;
    EXPECT_EQ(m_storage.State(), StorageState::kBroken);
    m_storage.Reopen();
    m_storage.ExpectContentForLife();
}

TEST_P(CallbackOfAClear, ThatThrowsInTheFlushBreaksTheStorage) {
    m_storage.Put(5);
    InItsFlush([] { throw std::runtime_error("client"); });
    EXPECT_EQ(m_storage.Clear(3, GetParam()), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_storage.State(), StorageState::kBroken);
    m_storage.Reopen();
    m_storage.ExpectContentForLife();
}

TEST_P(CallbackOfAClear, ThatThrowsAtItsCommitBlockBreaksTheStorage) {
    SKIP_WHEN_ASYNC("OnWriteToFile may call back in");
    m_storage.Put(5);
    ASSERT_EQ(StorageAccess::Flush(m_storage.Object()), RC_OK);
    InItsCommitBlock([] { throw std::runtime_error("client"); });
    EXPECT_EQ(m_storage.Clear(3, GetParam()), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_storage.State(), StorageState::kBroken);
    m_storage.Reopen();
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(3, 5));
    EXPECT_EQ(m_storage.Clear(4, GetParam()), RC_OK);
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(4, 5));
}

TEST_P(CallbackOfAClear, ThatCommitsAtItsCommitBlockLosesNothing) {
    SKIP_WHEN_ASYNC("OnWriteToFile may call back in");
    for (const u32 count : {2U, 3U, 4U}) {
        ClearableStorage storage(KeepInMemory(), kLargerBlocks);
        storage.Put(count);
        Once written([&] { storage.Put(3); });
        written.SetAsOnWriteToFile(storage);
        storage.ClearTo(count, GetParam());
        EXPECT_EQ(written.Calls(), Revs({count}));
        storage.ExpectContentForLife();
    }
}

// The place to which the transaction goes back moves with the records.
TEST_P(CallbackOfAClear, ThatBeginsATransactionMayRollItBackLater) {
    SKIP_WHEN_ASYNC("OnWriteToFile may call back in");
    for (const u32 count : {3U, 4U, 5U}) {
        for (const u32 inTransaction : {0U, 1U, 6U}) {
            ClearableStorage storage(KeepInMemory(), kLargerBlocks);
            storage.Put(count);
            Once written([&] {
                ASSERT_EQ(storage.Begin(), RC_OK);
                for (u32 i = 0; i < inTransaction; ++i) {
                    ASSERT_EQ(storage.Insert(storage.TextOf(99)), RC_OK);
                }
            });
            written.SetAsOnWriteToFile(storage);
            storage.ClearTo(3, GetParam());
            EXPECT_EQ(storage.Clear(4, GetParam()), RC_IN_TRANSACTION);
            ASSERT_EQ(storage.Rollback(), RC_OK);
            storage.ExpectContentForLife();
        }
    }
}

TEST_P(CallbackOfAClear, ThatBeginsATransactionMayCommitItLater) {
    SKIP_WHEN_ASYNC("OnWriteToFile may call back in");
    for (const u32 count : {3U, 4U, 5U}) {
        for (const u32 inTransaction : {0U, 1U, 6U}) {
            ClearableStorage storage(KeepInMemory(), kLargerBlocks);
            storage.Put(count);
            Once written([&] {
                ASSERT_EQ(storage.Begin(), RC_OK);
                storage.Put(inTransaction);
            });
            written.SetAsOnWriteToFile(storage);
            storage.ClearTo(3, GetParam());
            storage.Put();
            ASSERT_EQ(storage.Commit(), RC_OK);
            storage.ExpectContentForLife();
        }
    }
}

TEST_P(CallbackOfAClear, ThatRollsBackAtItsCommitBlockLeavesNothing) {
    SKIP_WHEN_ASYNC("OnWriteToFile may call back in");
    m_storage.Put(3);
    ASSERT_EQ(StorageAccess::Flush(m_storage.Object()), RC_OK);
    InItsCommitBlock([&] {
        ASSERT_EQ(m_storage.Begin(), RC_OK);
        ASSERT_EQ(m_storage.Insert(m_storage.TextOf(99)), RC_OK);
        ASSERT_EQ(m_storage.Rollback(), RC_OK);
    });
    m_storage.ClearTo(3, GetParam());
    m_storage.ExpectContentForLife();
}

TEST_P(CallbackOfAClear, MayEnumerateAtItsCommitBlock) {
    SKIP_WHEN_ASYNC("OnWriteToFile may call back in");
    ClearableStorage storage(KeepOnDisk());
    storage.Put(9);
    Revs seen;
    Once written([&] { seen = RevsOf(storage.Records()); });
    written.SetAsOnWriteToFile(storage);
    storage.ClearTo(4, GetParam());
    EXPECT_EQ(seen, RevRange(1, 9));
    storage.ExpectContentForLife();
}

// --- Callbacks of an enumeration ---------------------------------------------------------------

namespace {

class EnumerationThatRemoves : public ::testing::TestWithParam<Keeping> {
  protected:
    static Revs Joined(Revs first, const Revs& second) {
        first.insert(first.end(), second.begin(), second.end());
        return first;
    }
};

INSTANTIATE_TEST_SUITE_P(Keeping, EnumerationThatRemoves, ::testing::ValuesIn(AllKeepings()),
                         NameOfKeeping);

}  // namespace

TEST_P(EnumerationThatRemoves, GoesOnBehindTheLastRecordWhenThatIsKept) {
    for (const u32 mode : kFileModes) {
        ClearableStorage storage(GetParam());
        storage.Put(12);
        const Revs seen = Walk(storage, [&](i64 rev) { storage.ClearTo(rev - 1, mode); });
        EXPECT_EQ(seen, RevRange(1, 12));
        storage.ExpectContentForLife();
    }
}

TEST_P(EnumerationThatRemoves, ClearsWhatItHasSeen) {
    for (const u32 mode : kFileModes) {
        ClearableStorage storage(GetParam());
        storage.Put(12);
        const Revs seen = Walk(storage, [&](i64 rev) { storage.ClearTo(rev + 1, mode); });
        EXPECT_EQ(seen, RevRange(1, 12));
        storage.ExpectContentForLife();
    }
}

TEST_P(EnumerationThatRemoves, GoesOnWithTheFirstKeptRecord) {
    for (const u32 mode : kFileModes) {
        for (const i64 at : {1, 4, 8}) {
            ClearableStorage storage(GetParam());
            storage.Put(12);
            const Revs seen = Walk(storage, [&](i64 rev) {
                if (rev == at) {
                    storage.ClearTo(10, mode);
                }
            });
            EXPECT_EQ(seen, Joined(RevRange(1, at), RevRange(10, 12)));
            storage.ExpectContentForLife();
        }
    }
}

TEST_P(EnumerationThatRemoves, EndsWhenNothingIsLeft) {
    for (const u32 mode : kFileModes) {
        ClearableStorage storage(GetParam());
        storage.Put(12);
        const Revs seen = Walk(storage, [&](i64 rev) {
            if (rev == 5) {
                storage.ClearTo(13, mode);
            }
        });
        EXPECT_EQ(seen, RevRange(1, 5));
        storage.ExpectContentForLife();
    }
}

TEST_P(EnumerationThatRemoves, GoesOnAboveTheLastRecordAfterATruncation) {
    ClearableStorage storage(GetParam());
    storage.Put(12);
    const Revs seen = Walk(storage, [&](i64 rev) {
        if (rev == 4) {
            ASSERT_EQ(storage.Truncate(), RC_OK);
            storage.InsertMany(7);
        }
    });
    EXPECT_EQ(seen, RevRange(1, 7));
    EXPECT_EQ(storage.Texts(), Numbered(7));
}

TEST_P(EnumerationThatRemoves, MayBeNested) {
    for (const u32 mode : kFileModes) {
        ClearableStorage storage(GetParam());
        storage.Put(12);
        Revs inner;
        const Revs outer = Walk(storage, [&](i64 outerRev) {
            if (outerRev != 3) {
                return;
            }
            inner = Walk(storage, [&](i64 rev) {
                if (rev == 5) {
                    storage.ClearTo(9, mode);
                }
            });
        });
        EXPECT_EQ(inner, Joined(RevRange(1, 5), RevRange(9, 12)));
        EXPECT_EQ(outer, Joined(RevRange(1, 3), RevRange(9, 12)));
        storage.ExpectContentForLife();
    }
}

TEST_P(EnumerationThatRemoves, MayInsertBehindTheSqueeze) {
    ClearableStorage storage(GetParam());
    storage.Put(9);
    const Revs seen = Walk(storage, [&](i64 rev) {
        if (rev % 3 == 0 && rev <= 9) {
            storage.ClearTo(rev, kSqueeze);
            storage.Put(2);
        }
    });
    EXPECT_EQ(seen, RevRange(1, 15));
    storage.ExpectContentForLife();
}

TEST(EnumerationWhoseSqueezeFails, ReadsNoFileThatIsClosed) {
    const ScopedSystemCalls systemCalls;
    for (const u32 mode : {kSqueeze, kSqueezeBackup}) {
        ClearableStorage storage(KeepOnDisk());
        storage.Put(12);
        storage.Settle();
        Revs seen;
        const u32 rc = EnumerateWith(storage, 0, kEndOfRevs, [&](const K9eReplRec& rec) -> u32 {
            const i64 rev = rec.rev;
            seen.push_back(rev);
            if (rev == 4) {
                FailRename(1);
                EXPECT_EQ(storage.Clear(3, mode), RC_SYSTEM_ERROR);
            }
            return RC_OK;
        });
        EXPECT_NE(rc, RC_OK);
        EXPECT_EQ(seen, RevRange(1, 4));
        EXPECT_EQ(storage.State(), StorageState::kBroken);
        storage.Reopen();
        EXPECT_EQ(RevsOf(storage.Records()).back(), 12);
    }
}

}  // namespace k9erepl::test
