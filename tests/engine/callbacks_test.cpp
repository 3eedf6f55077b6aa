// Callbacks of a flush that call back in on the same handle: no record lost, none twice, no
// deadlock. What they commit is flushed later; OnWriteToFile with force_flush commits nothing.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "engine/clear_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

enum class Which { kOnFlush, kOnWriteToFile };

// A storage whose callback of one kind runs an action in its next call only.
class CallingBack : public ::testing::TestWithParam<Which> {
  protected:
    void SetUp() override {
        if (GetParam() == Which::kOnWriteToFile) {
            SKIP_WHEN_ASYNC("OnWriteToFile may call back in");
        }
    }
    void Set(TestStorage& storage, std::function<void()> action) {
        m_notified.DoesOnce(std::move(action));
        if (GetParam() == Which::kOnFlush) {
            m_notified.SetAsOnFlush(storage);
        } else {
            m_notified.SetAsOnWriteToFile(storage);
        }
    }
    Revs Calls() const { return m_notified.Calls(); }

  private:
    Notified m_notified;
};

INSTANTIATE_TEST_SUITE_P(Kind, CallingBack,
                         ::testing::Values(Which::kOnFlush, Which::kOnWriteToFile),
                         [](const auto& kind) {
                             return kind.param == Which::kOnFlush ? "OnFlush" : "OnWriteToFile";
                         });

}  // namespace

TEST_P(CallingBack, AnInsertionIsFlushedByTheNextCommit) {
    TestStorage storage(kFlushAlways);
    Set(storage, [&] {
        EXPECT_EQ(storage.Insert("nested"), RC_OK);
        EXPECT_EQ(storage.DataSource().FlushOnIdle(), RC_OK) << "it does nothing";
        EXPECT_EQ(storage.Commit(), RC_NO_TRANSACTION);
        EXPECT_EQ(storage.Rollback(), RC_NO_TRANSACTION_TO_ROLLBACK);
    });
    storage.InsertCommitted({"outer"});
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
    EXPECT_EQ(storage.Texts(), Strings({"outer", "nested"}));
    storage.InsertCommitted({"next"});
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1", "r2", "r3", "c3"}));
    EXPECT_EQ(Calls(), Revs({1, 3}));
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"outer", "nested", "next"}));
}

TEST_P(CallingBack, AnInsertionIsFlushedByTheIdleCall) {
    const ScopedSystemCalls systemCalls;
    SetTickCount(1000);
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=1;flush_timeout=100;");
    Set(storage, [&] { EXPECT_EQ(storage.Insert("nested"), RC_OK); });
    storage.InsertCommitted({"outer"});
    AdvanceTickCount(100);
    EXPECT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1", "r2", "c2"}));
    EXPECT_EQ(Calls(), Revs({1, 2}));
}

TEST_P(CallingBack, InsertionsMayOpenNewBlocks) {
    TestStorage storage(With(kFlushAlways, "block_size=138;cache_type=Last1;"));
    std::size_t seen = 0;
    Set(storage, [&] {
        seen = storage.Records().size();  // the transaction, from memory and disk
        storage.InsertCommitted({BlockFull("three"), BlockFull("four")});
        storage.InsertCommitted({BlockFull("five")});
    });
    storage.InsertCommitted({BlockFull("one"), BlockFull("two")});
    EXPECT_EQ(seen, 2U);
    storage.InsertCommitted({BlockFull("six")});
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "c2", "r3", "r4", "r5", "r6", "c6"}));
    EXPECT_EQ(storage.Records().size(), 6U);
}

TEST_P(CallingBack, ATransactionMayBeRolledBack) {
    TestStorage storage(With(kFlushAlways, "block_size=138;"));
    Set(storage, [&] {
        EXPECT_EQ(storage.Begin(), RC_OK);
        EXPECT_EQ(storage.Insert("same block"), RC_OK);
        EXPECT_EQ(storage.Insert(BlockFull("new block")), RC_OK);
        EXPECT_EQ(storage.Rollback(), RC_OK);
    });
    storage.InsertCommitted({"outer"});
    EXPECT_EQ(storage.NextRev(), 2);
    storage.InsertCommitted({"next"});
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1", "r2", "c2"}));
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"outer", "next"}));
}

TEST_P(CallingBack, ATransactionMayStayOpen) {
    TestStorage storage(kFlushAlways);
    Set(storage, [&] {
        EXPECT_EQ(storage.Begin(), RC_OK);
        EXPECT_EQ(storage.Insert("left open"), RC_OK);
    });
    storage.InsertCommitted({"outer"});
    EXPECT_EQ(storage.Insert("goes on"), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
    EXPECT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.NextRev(), 2);
    EXPECT_EQ(storage.Texts(), Strings({"outer"}));
}

TEST_P(CallingBack, OfAnIdleFlushTheOpenTransactionMayBeEnded) {
    for (const bool commits : {false, true}) {
        TestStorage storage(kFlushNever);
        storage.InsertCommitted({"one"});
        ASSERT_EQ(storage.Begin(), RC_OK);
        ASSERT_EQ(storage.Insert("two"), RC_OK);
        Set(storage, [&] { EXPECT_EQ(commits ? storage.Commit() : storage.Rollback(), RC_OK); });
        EXPECT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
        EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
        storage.InsertCommitted({"last"});
        storage.Reopen();
        EXPECT_EQ(storage.Texts(),
                  commits ? Strings({"one", "two", "last"}) : Strings({"one", "last"}));
    }
}

TEST_P(CallingBack, WhatAClosingStorageCommitsIsWrittenToo) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    Set(storage, [&] {
        EXPECT_EQ(storage.Insert("two"), RC_OK);
        EXPECT_EQ(storage.Begin(), RC_OK);
        EXPECT_EQ(storage.Insert("never committed"), RC_OK);
    });
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
    EXPECT_EQ(Calls(), Revs({1}));
}

TEST(CallbackThatAlwaysInserts, LetsTheStorageClose) {
    Notified flushed;
    TestStorage storage(kFlushAlways);
    flushed.Does([&](i64) { EXPECT_EQ(storage.Insert("more"), RC_OK); });
    flushed.SetAsOnFlush(storage);
    storage.InsertCommitted({"one"});
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one", "more", "more"}));
}

TEST(CommitInOnWriteToFile, SavesNoIndexInTheMiddle) {
    SKIP_WHEN_ASYNC("OnWriteToFile comes in the middle of the flush");
    const ScopedSystemCalls systemCalls;
    Notified written;
    TestStorage storage(With(kFlushAlways, "index_hint=1;"));
    written.DoesOnce([&] {
        const LogCapture log({"k9eRepl-storage-idx"});
        EXPECT_EQ(storage.Insert("nested"), RC_OK);
        EXPECT_TRUE(log.Messages().empty()) << log;
    });
    written.SetAsOnWriteToFile(storage);
    EXPECT_EQ(storage.Insert("outer"), RC_OK);
}

TEST(RetriedFlush, ItsOnFlushMayInsert) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    Notified flushed;
    TestStorage storage(kFlushAlways);
    flushed.DoesOnce([&] { EXPECT_EQ(storage.Insert("nested"), RC_OK); });
    flushed.SetAsOnFlush(storage);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("outer"), RC_OK);
    FailWrite(1);
    ASSERT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.Commit(), RC_OK);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"outer", "nested"}));
}

TEST(CallbackPair, MayBeSetWhileAnotherThreadCommits) {
    Notified first;
    Notified second;
    TestStorage storage(kFlushAlways);
    std::atomic<bool> stop{false};
    std::thread setter([&] {
        while (!stop) {
            first.SetAsOnFlush(storage);
            first.SetAsOnWriteToFile(storage);
            second.SetAsOnFlush(storage);
            second.SetAsOnWriteToFile(storage);
        }
    });
    storage.InsertMany(50);
    stop = true;
    setter.join();
    EXPECT_LE(first.Calls().size() + second.Calls().size(), 100U);
    EXPECT_EQ(storage.Texts(), Numbered(50));
}

// --- OnWriteToFile with force_flush --------------------------------------------------------------

namespace {

// It comes before the flush to disk, which may still fail. What it would commit there would go with
// a failed flush, so it commits nothing.
class OnWriteToFileBeforeTheDisk : public ::testing::Test {
  protected:
    void SetUp() override { SKIP_WHEN_ASYNC("OnWriteToFile may call back in"); }

    void InTheNextCall(std::function<void()> action) {
        m_written.DoesOnce(std::move(action));
        m_written.SetAsOnWriteToFile(m_storage);
    }
    // Begin and both kinds of insertion answer 27 with their messages and change nothing.
    void ExpectNothingMayBegin() {
        const i64 nextRev = m_storage.NextRev();
        const LogCapture log;
        EXPECT_EQ(m_storage.Begin(), RC_WRONG_STATE);
        EXPECT_EQ(log.CodeOf("Failed to begin trans;state 2"), RC_WRONG_STATE) << log;
        EXPECT_EQ(m_storage.Insert("nested"), RC_WRONG_STATE);
        EXPECT_EQ(log.CodeOf("Failed to insert;state 2"), RC_WRONG_STATE) << log;
        EXPECT_EQ(m_storage.InsertP(nextRev, "nested"), RC_WRONG_STATE);
        EXPECT_EQ(log.CodeOf("Failed to insert prepared;state 2"), RC_WRONG_STATE) << log;
        EXPECT_EQ(log.Messages().size(), 3U) << log;
        EXPECT_EQ(m_storage.NextRev(), nextRev);
        ++m_calls;
    }

    const ScopedSystemCalls m_systemCalls;
    u32 m_calls = 0;
    Notified m_written;
    TestStorage m_storage{With(kFlushAlways, "force_flush=yes;")};
};

}  // namespace

TEST_F(OnWriteToFileBeforeTheDisk, OfACommitMayNotBeginNorInsert) {
    InTheNextCall([this] {
        ExpectNothingMayBegin();
        EXPECT_EQ(m_storage.Commit(), RC_NO_TRANSACTION);
        EXPECT_EQ(m_storage.Rollback(), RC_NO_TRANSACTION_TO_ROLLBACK);
        EXPECT_EQ(m_storage.Texts(), Strings({"outer"})) << "it may read";
    });
    m_storage.InsertCommitted({"outer"});
    EXPECT_EQ(m_calls, 1U);
    m_storage.InsertCommitted({"next"});
    EXPECT_EQ(FileItems(m_storage), Strings({"c0", "r1", "c1", "r2", "c2"}));
}

TEST_F(OnWriteToFileBeforeTheDisk, LosesNothingWhenTheFlushToDiskFails) {
    InTheNextCall([this] { ExpectNothingMayBegin(); });
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert("outer"), RC_OK);
    FailFlush(1);
    EXPECT_EQ(m_storage.Commit(), RC_SYSTEM_ERROR);
    InTheNextCall([this] {
        EXPECT_EQ(m_storage.Insert("nested"), RC_WRONG_STATE);
        ++m_calls;
    });
    EXPECT_EQ(m_storage.Commit(), RC_OK);
    EXPECT_EQ(m_calls, 2U);
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Strings({"outer"}));
}

// The idle flush writes what was committed before the client's transaction, which stays open.
TEST_F(OnWriteToFileBeforeTheDisk, OfAnIdleFlushMayNotCommitTheClientsTransaction) {
    m_storage.Reopen(
        "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=3600000;force_flush=yes");
    m_storage.InsertCommitted({"one"});
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert("two"), RC_OK);
    InTheNextCall([this] {
        const LogCapture log;
        EXPECT_EQ(m_storage.Insert("nested"), RC_WRONG_STATE);
        EXPECT_EQ(m_storage.Commit(), RC_WRONG_STATE);
        EXPECT_EQ(log.CodeOf("Failed to commit;state 2"), RC_WRONG_STATE) << log;
        ++m_calls;
    });
    FailFlush(1);
    EXPECT_EQ(StorageAccess::Flush(m_storage.Object()), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_calls, 1U);
    EXPECT_EQ(m_storage.Commit(), RC_OK);
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Strings({"one", "two"}));
}

TEST_F(OnWriteToFileBeforeTheDisk, OfAClearOrTheLastFlushMayNotBeginNorInsert) {
    for (const u32 mode : {kLogical, kSqueeze, kSqueezeBackup}) {
        m_storage.InsertCommitted({"gone", "kept"});
        const i64 kept = m_storage.NextRev() - 1;
        InTheNextCall([this] { ExpectNothingMayBegin(); });
        EXPECT_EQ(m_storage.Clear(kept, mode), RC_OK);
        EXPECT_EQ(m_storage.Texts(), Strings({"kept"}));
    }
    m_storage.Reopen(With(kFlushNever, "force_flush=yes;"));
    m_storage.InsertCommitted({"one"});
    InTheNextCall([this] { ExpectNothingMayBegin(); });
    m_storage.Reopen();
    EXPECT_EQ(m_calls, 4U);
    EXPECT_EQ(m_storage.Texts(), Strings({"kept", "one"}));
}

// The flush of a clear that OnFlush makes is one in the middle of nothing but itself.
TEST_F(OnWriteToFileBeforeTheDisk, MayNotInsertInAClearOfOnFlushWhichMay) {
    Notified flushed;
    flushed.DoesOnce([this] {
        EXPECT_EQ(m_storage.Insert("nested"), RC_OK);
        InTheNextCall([this] { ExpectNothingMayBegin(); });
        EXPECT_EQ(m_storage.Clear(2, kLogical), RC_OK);
    });
    flushed.SetAsOnFlush(m_storage);
    m_storage.InsertCommitted({"outer"});
    EXPECT_EQ(m_calls, 1U);
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Strings({"nested"}));
}

}  // namespace k9erepl::test
