// The idle flush: by time, never waiting, and the way out of its failure.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr std::string_view kByIdleTime =
    "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=1000;read_buffers_count=1;";

// A storage whose clock stands; nothing but the test's own idle calls flushes it, for the index
// thread asks the same standing clock.
class IdleFlush : public ::testing::Test {
  protected:
    u32 Idle() { return storage.DataSource().FlushOnIdle(); }
    Strings Items() { return FileItems(storage); }

    const ScopedSystemCalls systemCalls;
    const bool clockStands = (SetTickCount(5000), true);
    TestStorage storage{kByIdleTime};
};

// Holds the storage's lock on a thread of its own.
class LockHolder {
  public:
    explicit LockHolder(StorageLock& lock)
        : m_thread([this, &lock] {
              const std::lock_guard held(lock);
              std::unique_lock guard(m_mutex);
              m_held = true;
              m_changed.notify_all();
              m_changed.wait(guard, [this] { return m_done; });
          }) {
        std::unique_lock guard(m_mutex);
        m_changed.wait(guard, [this] { return m_held; });
    }
    ~LockHolder() {
        {
            const std::lock_guard guard(m_mutex);
            m_done = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_held = false;
    bool m_done = false;
    std::thread m_thread;
};

}  // namespace

TEST_F(IdleFlush, FlushesWhenTheTimeHasPassed) {
    storage.InsertCommitted({"one"});
    AdvanceTickCount(999);
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(Items(), Strings({"c0"}));
    AdvanceTickCount(1);
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"}));
}

TEST_F(IdleFlush, CountsOverTheWrapOfTheTickCount) {
    SetTickCount(0xFFFFFF00);
    StorageAccess::Policy(storage.Object()).RecordFlushTime();
    storage.InsertCommitted({"one"});
    SetTickCount(0x000002E7);
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(Items(), Strings({"c0"}));
    SetTickCount(0x000002E8);
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"}));
}

TEST_F(IdleFlush, DoesNothingWhenNothingWasCommitted) {
    AdvanceTickCount(100000);
    const u32 writes = CallCount(SystemCall::kWrite);
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kWrite), writes);
}

TEST_F(IdleFlush, WritesNothingOfAnOpenTransaction) {
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("open"), RC_OK);
    AdvanceTickCount(1000);
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"}));
    EXPECT_EQ(storage.Commit(), RC_OK);
}

TEST_F(IdleFlush, NeverWaitsForTheLock) {
    storage.InsertCommitted({"one"});
    AdvanceTickCount(1000);
    {
        const LockHolder busyClient(StorageAccess::Lock(storage.Object()));
        EXPECT_EQ(Idle(), RC_OK);
        EXPECT_EQ(FileItems(storage.Path()), Strings({"c0"}));
    }
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"}));
}

TEST_F(IdleFlush, OfABrokenStorageAnswersSoAndNotesTheTime) {
    storage.InsertCommitted({"one"});
    StorageAccess::SetState(storage.Object(), StorageState::kBroken);
    AdvanceTickCount(1000);
    EXPECT_EQ(Idle(), RC_WRONG_STATE);
    StorageAccess::SetState(storage.Object(), StorageState::kOpen);
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(Items(), Strings({"c0"})) << "the time counts from the refused call";
    AdvanceTickCount(1000);
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"}));
}

TEST_F(IdleFlush, BeforeLoadHasNothingToDo) {
    storage.Close();
    ASSERT_EQ(storage.TryOpen(), RC_OK);
    AdvanceTickCount(100000);
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kClosed);
}

TEST(IdleFlushInMemory, DoesNothingInAnyState) {
    TestStorage storage(kInMemory, Start::kNothing);
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    StorageAccess::SetState(storage.Object(), StorageState::kBroken);
    EXPECT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
}

// --- Failures ----------------------------------------------------------------------------------

TEST_F(IdleFlush, ThatFailsIsLoggedAndMakesTheStateFlushFailed) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    storage.InsertCommitted({"one"});
    AdvanceTickCount(1000);
    FailWrite(1);
    const LogCapture log;
    EXPECT_EQ(Idle(), RC_SYSTEM_ERROR);
    EXPECT_EQ(log.CodeOf("Failed to flush data"), RC_SYSTEM_ERROR) << log;
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(storage.Insert("refused"), RC_WRONG_STATE);
    EXPECT_EQ(Idle(), RC_WRONG_STATE);
}

TEST_F(IdleFlush, ThatFailedIsTriedAgainByACommitWithoutATransaction) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    storage.InsertCommitted({"one"});
    AdvanceTickCount(1000);
    FailWrite(1, SystemErrorKind::kNoSpace, Repeat::kFromThenOn);
    ASSERT_EQ(Idle(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.Commit(), RC_NO_TRANSACTION);
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    StopFailing(SystemCall::kWrite);
    EXPECT_EQ(storage.Commit(), RC_NO_TRANSACTION);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"}));
    storage.InsertCommitted({"two"});
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
}

TEST_F(IdleFlush, ThatFailedIsTriedAgainByARollbackWithoutATransaction) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    storage.InsertCommitted({"one"});
    AdvanceTickCount(1000);
    FailWrite(1);
    ASSERT_EQ(Idle(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.Rollback(), RC_NO_TRANSACTION_TO_ROLLBACK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    EXPECT_EQ(storage.Texts(), Strings({"one"})) << "what was committed is not rolled back";
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"}));
}

TEST_F(IdleFlush, ThatFailedInAnOpenTransactionLetsItCommit) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    AdvanceTickCount(1000);
    FailWrite(1);
    ASSERT_EQ(Idle(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    EXPECT_EQ(Items(), Strings({"c0", "r1", "r2", "c2"}));
}

TEST_F(IdleFlush, ThatFailedInAnOpenTransactionLetsItRollBack) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("gone"), RC_OK);
    AdvanceTickCount(1000);
    FailWrite(1);
    ASSERT_EQ(Idle(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
}

// After the idle call noted the time, a commit may need no flush: the storage opens, and what is
// not flushed is flushed in time.
TEST_F(IdleFlush, ThatFailedIsForgottenByACommitThatNeedsNoFlush) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    AdvanceTickCount(1000);
    FailWrite(1);
    ASSERT_EQ(Idle(), RC_SYSTEM_ERROR);
    ASSERT_EQ(Idle(), RC_WRONG_STATE);
    EXPECT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    EXPECT_EQ(Items(), Strings({"c0"}));
    AdvanceTickCount(1000);
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(Items(), Strings({"c0", "r1", "r2", "c2"}));
}

// --- The index thread --------------------------------------------------------------------------

TEST(IndexThread, FlushesWhenNothingElseHappens) {
    std::atomic<i64> flushedRev{0};
    Notified flushed([&](i64 rev) { flushedRev = rev; });
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=20;");
    flushed.SetAsOnFlush(storage);
    storage.InsertCommitted({"one"});
    while (flushedRev != 1) {
        std::this_thread::yield();
    }
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
}

// The idle flush may come at any time while the storage is torn down.
TEST(IndexThread, MayFlushWhileTheStorageCloses) {
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=1;");
    for (u32 i = 1; i <= 20; ++i) {
        ASSERT_EQ(storage.Insert("text"), RC_OK);
        storage.Reopen();
        ASSERT_EQ(storage.Records().size(), i);
    }
}

TEST(IndexThread, FindsNothingToFlushAfterALastFlushThatFailed) {
    const ScopedSystemCalls systemCalls;
    SetTickCount(1000);
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=1;");
    for (u32 i = 0; i < 20; ++i) {
        ASSERT_EQ(storage.Insert("text"), RC_OK);
        FailWrite(1, SystemErrorKind::kNoSpace, Repeat::kFromThenOn);
        AdvanceTickCount(1);
        storage.Close();
        StopFailing(SystemCall::kWrite);
        ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
        ASSERT_EQ(storage.Records().size(), 0U);
    }
}

}  // namespace k9erepl::test
