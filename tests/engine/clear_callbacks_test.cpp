// Callbacks that clear and truncate, and callbacks that insert while a clear is under way: which
// may do so, and that no record is lost, served twice or served after it was cleared.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include "engine/clear_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr u32 kFileModes[] = {kLogical, kSqueeze, kSqueezeBackup};

// Blocks with room for four records.
constexpr std::string_view kLargerBlocks = "block_size=300;";

}  // namespace

// --- Callbacks of a commit ---------------------------------------------------------------------

TEST(OnFlushOfACommit, MayClear) {
    for (const u32 mode : kFileModes) {
        Notified flushed;
        ClearableStorage storage(KeepOnDisk());
        storage.Put(4);
        flushed.SetAsOnFlush(storage);
        flushed.DoesOnce([&] { storage.ClearTo(3, mode); });
        ASSERT_EQ(storage.Insert(storage.TextOf(5)), RC_OK);
        EXPECT_EQ(RevsOf(storage.Records()), RevRange(3, 5));
        storage.Reopen();
        EXPECT_EQ(RevsOf(storage.Records()), RevRange(3, 5));
        EXPECT_EQ(storage.OldestRev(), 3);
        flushed.SetAsOnFlush(storage);
        flushed.DoesOnce([&] { EXPECT_EQ(storage.ClearAll(mode), RC_OK); });
        storage.InsertCommitted({"six"});
        EXPECT_EQ(storage.Records(), SeenRecords());
        storage.InsertCommitted({"seven"});
        storage.Reopen();
        EXPECT_EQ(storage.Records(), SeenRecords({{7, 0, "seven"}}));
    }
}

TEST(OnFlushOfACommit, MayTruncate) {
    Notified flushed;
    TestStorage storage(kEachCommit);
    flushed.DoesOnce([&] { EXPECT_EQ(storage.Truncate(), RC_OK); });
    flushed.SetAsOnFlush(storage);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(storage.NextRev(), 1);
    storage.InsertCommitted({"again"});
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "again"}}));
}

TEST(OnFlushOfAnIdleFlush, MayNotRemoveUnderAnOpenTransaction) {
    Notified flushed;
    TestStorage storage(kFlushNever);
    flushed.DoesOnce([&] {
        EXPECT_EQ(storage.Clear(2, kLogical), RC_IN_TRANSACTION);
        EXPECT_EQ(storage.Truncate(), RC_IN_TRANSACTION);
    });
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
    Notified written;
    TestStorage storage(kEachCommit);
    written.DoesOnce([&] {
        const LogCapture log;
        for (const u32 mode : {0U, 1U, 2U, 4U}) {
            EXPECT_EQ(storage.Clear(2, mode), RC_IN_TRANSACTION);
        }
        EXPECT_EQ(log.CodeOf("Coundn't clear old rev in trans"), RC_IN_TRANSACTION) << log;
        EXPECT_EQ(storage.Truncate(), RC_IN_TRANSACTION);
        EXPECT_EQ(log.Messages().size(), 4U) << log;
    });
    written.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(written.Calls(), Revs({2}));
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
    EXPECT_EQ(storage.RevisionMark(), 0);
}

TEST(OnFlushWithoutAFile, MayClearAndTruncate) {
    Notified flushed;
    Notified written;
    TestStorage storage(kInMemory);
    flushed.DoesOnce([&] { EXPECT_EQ(storage.Clear(2, kLogical), RC_OK); });
    written.DoesOnce([&] { EXPECT_EQ(storage.Truncate(), RC_OK); });
    flushed.SetAsOnFlush(storage);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(storage.Texts(), Strings({"two"}));
    written.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({"three"});
    EXPECT_EQ(storage.Texts(), Strings());
    EXPECT_EQ(storage.NextRev(), 1);
}

namespace {

// What a callback removes of the records 1 to 20, and what is left.
const std::vector<std::pair<std::function<void(TestStorage&)>, Revs>> kRemovalsOfACallback = {
    {[](auto& storage) {
         for (const i64 rev : {3, 6, 9, 12}) {
             EXPECT_EQ(storage.Clear(rev, kLogical), RC_OK);
             EXPECT_EQ(storage.Clear(rev + 1, kSqueezeBackup), RC_OK);
         }
     },
     RevRange(13, 20)},
    {[](auto& storage) { EXPECT_EQ(storage.Truncate(), RC_OK); }, {}},
    {[](auto& storage) { EXPECT_EQ(storage.Clear(21, kLogical), RC_OK); }, {}}};

}  // namespace

// OnFlush of a flush that the index thread makes on its own: it may remove records, more than once,
// although each removal saves the index.
TEST(OnFlushOfTheIndexThread, MayRemoveAgainAndAgain) {
    for (const auto& [remove, left] : kRemovalsOfACallback) {
        const ScopedSystemCalls systemCalls;
        SetTickCount(1000);  // no time goes by, which would let a commit flush
        std::thread::id thread;
        std::atomic<bool> done{false};
        Notified flushed;
        TestStorage storage(
            "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=1;read_buffers_count=1;"
            "block_size=138;cache_type=Last2;index_hint=1");
        flushed.Does([&, &remove = remove](i64 rev) {
            if (!done && rev >= 20) {
                thread = std::this_thread::get_id();
                EXPECT_EQ(storage.Clear(2, kLogical), RC_OK);
                remove(storage);
                done = true;
            }
        });
        flushed.SetAsOnFlush(storage);
        for (u32 n = 0; n < 20; ++n) {
            ASSERT_EQ(storage.Insert(ClearableStorage::TextOf(1)), RC_OK);
        }
        AdvanceTickCount(1);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (!done && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        ASSERT_TRUE(done);
        EXPECT_NE(thread, std::this_thread::get_id());
        storage.Reopen();
        EXPECT_EQ(RevsOf(storage.Records()), left);
    }
}

// --- Callbacks of the clear itself -------------------------------------------------------------

namespace {

// The parameter is the mode of a clear that flushes first.
class CallbackOfAClear : public ::testing::TestWithParam<u32> {
  protected:
    // Runs `action` in OnFlush of the flush before the clear.
    void InItsFlush(std::function<void()> action) {
        m_callback.DoesOnce(std::move(action));
        m_callback.SetAsOnFlush(m_storage);
    }
    void ExpectThatTheClearFails(u32 rc, StorageState state) {
        EXPECT_EQ(m_storage.Clear(3, GetParam()), rc);
        EXPECT_EQ(m_storage.State(), state);
        m_storage.Reopen();
    }

    Notified m_callback;
    ClearableStorage m_storage{AllKeepings()[3], kLargerBlocks};
};

// The action runs when the clear's own commit block is written; everything is flushed before.
class CommitBlockOfAClear : public CallbackOfAClear {
  protected:
    void SetUp() override { SKIP_WHEN_ASYNC("OnWriteToFile may call back in"); }
    // A clear to `rev` of a storage of `count` records, with `action` in the middle; then `later`.
    static void ClearWith(u32 count, i64 rev, const std::function<void(ClearableStorage&)>& action,
                          const std::function<void(ClearableStorage&)>& later = nullptr) {
        Notified written;
        ClearableStorage storage(KeepInMemory(), kLargerBlocks);
        storage.Put(count);
        written.DoesOnce([&] { action(storage); });
        written.SetAsOnWriteToFile(storage);
        storage.ClearTo(rev, GetParam());
        EXPECT_EQ(written.Calls().at(0), count);
        if (later) {
            later(storage);
        }
        storage.ExpectContentForLife();
    }
};

INSTANTIATE_TEST_SUITE_P(Mode, CallbackOfAClear, ::testing::ValuesIn(kFileModes));
INSTANTIATE_TEST_SUITE_P(Mode, CommitBlockOfAClear, ::testing::ValuesIn(kFileModes));

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
    EXPECT_EQ(m_callback.Calls(), Revs({5}));
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
    for (const bool leavesABlock : {false, true}) {
        Notified flushed;
        ClearableStorage storage(AllKeepings()[3], leavesABlock ? "" : kLargerBlocks);
        storage.Put(3);
        leavesABlock ? storage.UseUpLeavingABlock() : storage.UseUp();
        flushed.DoesOnce([&] { storage.Put(); });
        flushed.SetAsOnFlush(storage);
        storage.ClearTo(4, GetParam());
        EXPECT_EQ(flushed.Calls(), Revs({3, 5}));
        storage.ExpectContentForLife();
    }
}

TEST_P(CallbackOfAClear, ThatLeavesATransactionOpenOrBreaksTheStorageStopsTheClear) {
    m_storage.Put(5);
    InItsFlush([&] { EXPECT_EQ(m_storage.Begin(), RC_OK); });
    const LogCapture log;
    EXPECT_EQ(m_storage.Clear(3, GetParam()), RC_IN_TRANSACTION);
    EXPECT_EQ(log.CodeOf("Coundn't clear old rev in trans"), RC_IN_TRANSACTION) << log;
    ASSERT_EQ(m_storage.Rollback(), RC_OK);
    m_storage.Put();
    InItsFlush([&] { StorageAccess::SetState(m_storage.Object(), StorageState::kBroken); });
    ExpectThatTheClearFails(RC_WRONG_STATE, StorageState::kBroken);
    EXPECT_EQ(log.CodeOf("Failed to clear old rev;state 3"), RC_WRONG_STATE) << log;
    m_storage.Put();
    InItsFlush([] { throw std::runtime_error("client"); });
    ExpectThatTheClearFails(RC_SYSTEM_ERROR, StorageState::kBroken);
    m_storage.ExpectContentForLife();
}

TEST_P(CommitBlockOfAClear, MayThrow) {
    m_storage.Put(5);
    ASSERT_EQ(StorageAccess::Flush(m_storage.Object()), RC_OK);
    m_callback.DoesOnce([] { throw std::runtime_error("client"); });
    m_callback.SetAsOnWriteToFile(m_storage);
    ExpectThatTheClearFails(RC_SYSTEM_ERROR, StorageState::kBroken);
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(3, 5));
    EXPECT_EQ(m_storage.Clear(4, GetParam()), RC_OK);
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(4, 5));
}

TEST_P(CommitBlockOfAClear, MaySeeCommitsAndEnumerationsThatLoseNothing) {
    for (const u32 count : {2U, 3U, 4U}) {
        ClearWith(count, count, [&](auto& storage) {
            EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, count));
            storage.Put(3);
        });
    }
}

// The place to which the transaction goes back moves with the records.
TEST_P(CommitBlockOfAClear, MayBeginATransactionThatEndsLater) {
    for (const u32 count : {3U, 4U, 5U}) {
        for (const u32 inTransaction : {0U, 1U, 6U}) {
            ClearWith(
                count, 3,
                [&](auto& storage) {
                    ASSERT_EQ(storage.Begin(), RC_OK);
                    for (u32 i = 0; i < inTransaction; ++i) {
                        ASSERT_EQ(storage.Insert(storage.TextOf(99)), RC_OK);
                    }
                },
                [](auto& storage) {
                    EXPECT_EQ(storage.Clear(4, GetParam()), RC_IN_TRANSACTION);
                    ASSERT_EQ(storage.Rollback(), RC_OK);
                });
            ClearWith(
                count, 3,
                [&](auto& storage) {
                    ASSERT_EQ(storage.Begin(), RC_OK);
                    storage.Put(inTransaction);
                },
                [](auto& storage) {
                    storage.Put();
                    ASSERT_EQ(storage.Commit(), RC_OK);
                });
        }
    }
}

TEST_P(CommitBlockOfAClear, MaySeeARollbackThatLeavesNothing) {
    ClearWith(3, 3, [](auto& storage) {
        ASSERT_EQ(storage.Begin(), RC_OK);
        ASSERT_EQ(storage.Insert(storage.TextOf(99)), RC_OK);
        ASSERT_EQ(storage.Rollback(), RC_OK);
    });
}

// --- Callbacks of an enumeration ---------------------------------------------------------------

namespace {

class EnumerationThatRemoves : public ::testing::TestWithParam<Keeping> {
  protected:
    // Enumerates twelve records, clears in the callback of each record to the revision that
    // `clearTo` gives, in every mode, and expects to see these.
    static void ExpectSeen(const Revs& expected, const std::function<i64(i64 rev)>& clearTo) {
        for (const u32 mode : kFileModes) {
            ClearableStorage storage(GetParam());
            storage.Put(12);
            const Revs seen = Walk(storage, [&](i64 rev) { storage.ClearTo(clearTo(rev), mode); });
            EXPECT_EQ(seen, expected);
            storage.ExpectContentForLife();
        }
    }
    static Revs Joined(Revs first, const Revs& second) {
        first.insert(first.end(), second.begin(), second.end());
        return first;
    }
};

INSTANTIATE_TEST_SUITE_P(Keeping, EnumerationThatRemoves, ::testing::ValuesIn(AllKeepings()),
                         NameOfKeeping);

}  // namespace

TEST_P(EnumerationThatRemoves, GoesOnWithTheNextKeptRecord) {
    ExpectSeen(RevRange(1, 12), [](i64 rev) { return rev - 1; });
    ExpectSeen(RevRange(1, 12), [](i64 rev) { return rev + 1; });
    ExpectSeen(RevRange(1, 5), [](i64 rev) { return rev == 5 ? 13 : 0; });
    for (const i64 at : {1, 4, 8}) {
        ExpectSeen(Joined(RevRange(1, at), RevRange(10, 12)),
                   [=](i64 rev) { return rev == at ? 10 : 0; });
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
            if (outerRev == 3) {
                inner = Walk(storage, [&](i64 rev) { storage.ClearTo(rev == 5 ? 9 : 0, mode); });
            }
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
            seen.push_back(i64{rec.rev});
            if (seen.size() == 4) {
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
