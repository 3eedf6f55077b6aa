// Callbacks of a flush that call back in on the same handle: no record lost, none twice, no
// deadlock. What they commit is flushed later.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

enum class Which { kOnFlush, kOnWriteToFile };

std::string Name(const ::testing::TestParamInfo<Which>& info) {
    return info.param == Which::kOnFlush ? "OnFlush" : "OnWriteToFile";
}

// A storage whose callback of one kind runs `action` in its first call only.
class CallingBack : public ::testing::TestWithParam<Which> {
  protected:
    void SetUp() override {
        if (GetParam() == Which::kOnWriteToFile) {
            SKIP_WHEN_ASYNC("OnWriteToFile may call back in");
        }
    }
    void Set(TestStorage& storage, std::function<void()> action) {
        m_action = std::move(action);
        if (GetParam() == Which::kOnFlush) {
            m_notified.SetAsOnFlush(storage);
        } else {
            m_notified.SetAsOnWriteToFile(storage);
        }
    }
    Revs Calls() const { return m_notified.Calls(); }

  private:
    std::function<void()> m_action;
    Notified m_notified{[this](i64) {
        if (const auto action = std::exchange(m_action, nullptr)) {
            action();
        }
    }};
};

INSTANTIATE_TEST_SUITE_P(Kind, CallingBack,
                         ::testing::Values(Which::kOnFlush, Which::kOnWriteToFile), Name);

}  // namespace

TEST_P(CallingBack, AnInsertionIsFlushedByTheNextCommit) {
    TestStorage storage(kFlushAlways);
    Set(storage, [&] { EXPECT_EQ(storage.Insert("nested"), RC_OK); });
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
    Set(storage, [&] {
        storage.InsertCommitted({BlockFull("three"), BlockFull("four")});
        storage.InsertCommitted({BlockFull("five")});
    });
    storage.InsertCommitted({BlockFull("one"), BlockFull("two")});
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

TEST_P(CallingBack, CommitAndRollbackFindNoTransaction) {
    TestStorage storage(kFlushAlways);
    Set(storage, [&] {
        EXPECT_EQ(storage.Commit(), RC_NO_TRANSACTION);
        EXPECT_EQ(storage.Rollback(), RC_NO_TRANSACTION_TO_ROLLBACK);
    });
    storage.InsertCommitted({"outer"});
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
}

TEST_P(CallingBack, AnEnumerationSeesTheTransactionFromMemoryAndDisk) {
    TestStorage storage(With(kFlushAlways, "block_size=138;cache_type=Last1;"));
    storage.InsertCommitted({BlockFull("one")});
    storage.InsertCommitted({BlockFull("two")});
    std::size_t seen = 0;
    Set(storage, [&] { seen = storage.Records().size(); });
    storage.InsertCommitted({BlockFull("three"), BlockFull("four")});
    EXPECT_EQ(seen, 4U);
    EXPECT_EQ(storage.Records().size(), 4U);
}

TEST_P(CallingBack, TheIdleCallDoesNothing) {
    TestStorage storage(kFlushAlways);
    Set(storage, [&] {
        EXPECT_EQ(storage.Insert("nested"), RC_OK);
        EXPECT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
    });
    storage.InsertCommitted({"outer"});
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
}

TEST_P(CallingBack, AnIdleFlushLetsTheOpenTransactionBeRolledBack) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("open"), RC_OK);
    Set(storage, [&] { EXPECT_EQ(storage.Rollback(), RC_OK); });
    EXPECT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
    storage.InsertCommitted({"two"});
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
}

TEST_P(CallingBack, AnIdleFlushLetsTheOpenTransactionBeCommitted) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    Set(storage, [&] { EXPECT_EQ(storage.Commit(), RC_OK); });
    EXPECT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
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

// --- A flush that fails after its callback -----------------------------------------------------

// The flush to the disk comes after OnWriteToFile: what the callback did lies behind a flush that
// is taken back.
TEST(CommitInOnWriteToFile, SavesNoIndexInTheMiddle) {
    SKIP_WHEN_ASYNC("OnWriteToFile comes in the middle of the flush");
    const ScopedSystemCalls systemCalls;
    Notified written;
    TestStorage storage(With(kFlushAlways, "index_hint=1;"));
    written.Does([&, first = true](i64) mutable {
        if (std::exchange(first, false)) {
            const LogCapture log({"k9eRepl-storage-idx"});
            EXPECT_EQ(storage.Insert("nested"), RC_OK);
            EXPECT_TRUE(log.Messages().empty()) << log;
        }
    });
    written.SetAsOnWriteToFile(storage);
    EXPECT_EQ(storage.Insert("outer"), RC_OK);
}

// --- Retries -----------------------------------------------------------------------------------

TEST(RetriedFlush, ItsOnFlushMayInsert) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    Notified flushed;
    TestStorage storage(kFlushAlways);
    flushed.Does([&, first = true](i64) mutable {
        if (std::exchange(first, false)) {
            EXPECT_EQ(storage.Insert("nested"), RC_OK);
        }
    });
    flushed.SetAsOnFlush(storage);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("outer"), RC_OK);
    FailWrite(1);
    ASSERT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.Commit(), RC_OK);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"outer", "nested"}));
}

// --- Exceptions --------------------------------------------------------------------------------

TEST(ThrowingCallback, BreaksTheStorageAndLeavesItsLockFree) {
    SKIP_WHEN_ASYNC("OnWriteToFile is called by the flush");
    Notified written;
    TestStorage storage(kFlushAlways);
    written.Does([](i64) { throw std::runtime_error("client"); });
    written.SetAsOnWriteToFile(storage);
    EXPECT_EQ(storage.Insert("one"), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    bool free = false;
    std::thread([&] {
        free = StorageAccess::Lock(storage.Object()).try_lock();
        if (free) {
            StorageAccess::Lock(storage.Object()).unlock();
        }
    }).join();
    EXPECT_TRUE(free);
}

TEST(ThrowingCallback, OfTheLastFlushIsReportedAndEndsThere) {
    Notified flushed;
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    flushed.Does([](i64) { throw std::runtime_error("client"); });
    flushed.SetAsOnFlush(storage);
    const std::string message =
        "A callback threw during the last flush;conn-str " + storage.ConnStr();
    const LogCapture log;
    storage.Close();
    EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, message)) << log;
}

// --- Threads -----------------------------------------------------------------------------------

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

}  // namespace k9erepl::test
