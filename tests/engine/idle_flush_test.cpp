// The idle flush: by time, never waiting, and the way out of its failure. And the index thread,
// which makes it: when commits ask it for a save, what they do when it cannot, and the close of a
// storage during a save.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "engine/flush_fixture.h"
#include "engine/write_gate.h"
#include "support/call_layer.h"
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

TEST_F(IdleFlush, NeverWaitsForTheLock) {
    storage.InsertCommitted({"one"});
    AdvanceTickCount(1000);
    {
        const LockHolder busyClient(storage);
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

TEST_F(IdleFlush, BeforeLoadOrInMemoryHasNothingToDo) {
    storage.Close();
    ASSERT_EQ(storage.TryOpen(), RC_OK);
    AdvanceTickCount(100000);
    EXPECT_EQ(Idle(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kClosed);
    TestStorage inMemory(kInMemory, Start::kNothing);
    ASSERT_EQ(inMemory.TryOpenAndLoad(), RC_OK);
    ASSERT_EQ(inMemory.Insert("one"), RC_OK);
    StorageAccess::SetState(inMemory.Object(), StorageState::kBroken);
    EXPECT_EQ(inMemory.DataSource().FlushOnIdle(), RC_OK);
}

// --- Failures ----------------------------------------------------------------------------------

namespace {

// One committed record, whose idle flush fails for as long as StopFailing is not called.
class FailedIdleFlush : public IdleFlush {
  protected:
    void SetUp() override {
        SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
        storage.InsertCommitted({"one"});
    }
    void Fail() {
        AdvanceTickCount(1000);
        FailWrite(1, SystemErrorKind::kNoSpace, Repeat::kFromThenOn);
        const LogCapture log;
        EXPECT_EQ(Idle(), RC_SYSTEM_ERROR);
        EXPECT_EQ(log.CodeOf("Failed to flush data"), RC_SYSTEM_ERROR) << log;
        EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
        EXPECT_EQ(storage.Insert("refused"), RC_WRONG_STATE);
        EXPECT_EQ(storage.TryLoad(), RC_ALREADY);
    }
    void Heal() { StopFailing(SystemCall::kWrite); }
};

}  // namespace

TEST_F(FailedIdleFlush, IsTriedAgainByACommitOrARollbackWithoutATransaction) {
    for (const bool commits : {true, false}) {
        Fail();
        const u32 rc = commits ? RC_NO_TRANSACTION : RC_NO_TRANSACTION_TO_ROLLBACK;
        EXPECT_EQ(commits ? storage.Commit() : storage.Rollback(), rc);
        EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
        Heal();
        EXPECT_EQ(commits ? storage.Commit() : storage.Rollback(), rc);
        EXPECT_EQ(storage.State(), StorageState::kOpen);
        EXPECT_EQ(Items().back(), commits ? "c1" : "c2") << "what was committed stays";
        storage.InsertCommitted({"two"});
    }
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one", "two", "two"}));
}

TEST_F(FailedIdleFlush, LetsAnOpenTransactionBeEnded) {
    for (const bool commits : {true, false}) {
        ASSERT_EQ(storage.Begin(), RC_OK);
        ASSERT_EQ(storage.Insert("two"), RC_OK);
        Fail();
        Heal();
        EXPECT_EQ(commits ? storage.Commit() : storage.Rollback(), RC_OK);
        EXPECT_EQ(storage.State(), StorageState::kOpen);
        if (commits) {
            EXPECT_EQ(Items(), Strings({"c0", "r1", "r2", "c2"}));
        }
        storage.InsertCommitted({"three"});
    }
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one", "two", "three", "three"}));
}

// After the idle call noted the time, a commit may need no flush: the storage opens, and what is
// not flushed is flushed in time.
TEST_F(FailedIdleFlush, IsForgottenByACommitThatNeedsNoFlush) {
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    Fail();
    ASSERT_EQ(Idle(), RC_WRONG_STATE);
    Heal();
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

// --- The saves of the index thread --------------------------------------------------------------

namespace {

// Each commit of BlockFull adds a block; every second block asks for a save.
constexpr std::string_view kEverySecondBlock = "block_size=138;index_hint=2;";
constexpr const char* kRequested = "Async idx save requested";

}  // namespace

TEST(IndexCadence, ASaveIsRequestedWhenEnoughBlocksWereAdded) {
    TestStorage storage(With(kFlushAlways, kEverySecondBlock));
    const LogCapture log({"k9eRepl-storage-idx"});
    for (const std::size_t requests : {0U, 1U, 1U, 2U}) {
        storage.InsertCommitted({BlockFull("block")});
        EXPECT_EQ(log.Count(kRequested), requests);
        EXPECT_EQ(storage.WaitForWriter(), RC_OK);  // so that there is something to be saved
        WaitUntilIdle(storage);
    }
}

TEST(IndexCadence, ABusyThreadIsLeftAloneUntilTheNextTurn) {
    const ScopedSystemCalls systemCalls;
    WriteGate gate(WriteGate::File::kIndex);
    TestStorage storage(With(kFlushAlways, kEverySecondBlock));
    storage.InsertCommitted({BlockFull("one")});
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);  // so that there is an entry to be saved
    gate.Shut();
    storage.InsertCommitted({BlockFull("two")});
    const LogCapture log;
    storage.InsertCommitted({BlockFull("three"), BlockFull("four")});
    EXPECT_TRUE(log.Has(K9SYS_LOG_WARNING, "Index thread is busy")) << log;
    EXPECT_EQ(log.Count(kRequested), 0U);
    gate.Open();
    WaitUntilIdle(storage);
    storage.InsertCommitted({BlockFull("five")});
    EXPECT_EQ(log.Count(kRequested), 0U) << "the count was taken over when it was busy";
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);  // so that there is something new to be saved
    storage.InsertCommitted({BlockFull("six")});
    EXPECT_EQ(log.Count(kRequested), 1U);
}

TEST(IndexCadence, AThreadThatEndedIsStartedAgain) {
    const ScopedSystemCalls systemCalls;
    WriteGate gate(WriteGate::File::kIndex);
    TestStorage storage(With(kFlushAlways, kEverySecondBlock));
    storage.InsertCommitted({BlockFull("one")});
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);  // so that there is an entry to be saved
    gate.Refuse(true);
    storage.InsertCommitted({BlockFull("two")});
    const LogCapture log;
    while (!StorageAccess::Index(storage.Object())->IsFinished()) {
        std::this_thread::yield();
    }
    gate.Refuse(false);
    storage.InsertCommitted({BlockFull("three"), BlockFull("four")});
    EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, "Index thread is finished; trying to restart")) << log;
    EXPECT_FALSE(StorageAccess::Index(storage.Object())->IsFinished());
    storage.InsertCommitted({BlockFull("five"), BlockFull("six")});
    EXPECT_EQ(log.Count(kRequested), 1U) << log;
    storage.Reopen();
    EXPECT_EQ(storage.Records().size(), 6U);
}

TEST(IndexCadence, AThreadThatCannotBeStartedFailsNoCommit) {
    const ScopedSystemCalls systemCalls;
    TestStorage storage(With(kFlushAlways, kEverySecondBlock));
    StorageAccess::Index(storage.Object())->Stop();
    FailCreateThread(1);
    storage.InsertCommitted({BlockFull("one"), BlockFull("two")});
    EXPECT_TRUE(StorageAccess::Index(storage.Object())->IsFinished());
    storage.Reopen();
    EXPECT_EQ(storage.Records().size(), 2U);
}

TEST(IndexCadence, NestedCommitsAskForNothing) {
    TestStorage storage(With(kFlushNever, kEverySecondBlock));
    const LogCapture log({"k9eRepl-storage-idx"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert(BlockFull("one")), RC_OK);
    ASSERT_EQ(storage.Insert(BlockFull("two")), RC_OK);
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_TRUE(log.Messages().empty()) << log;
    ASSERT_EQ(storage.Commit(), RC_OK);
}

// --- Closing -------------------------------------------------------------------------------------

namespace {

// Lets the held save go on when the closing thread looks at the clock, as it does to wait for it,
// or else when the storage file is closed. To be made after the gate and before the storage.
class ClosingWatch : CallLayer<ClosingWatch> {
  public:
    explicit ClosingWatch(WriteGate& gate) : m_gate(gate) {
        Take<&CallTable::openFile, &ClosingWatch::OpenFile>();
        Take<&CallTable::closeFile, &ClosingWatch::CloseFile>();
        Take<&CallTable::tickCount, &ClosingWatch::TickCount>();
    }

    bool ClosedWhileHeld() const { return m_closedWhileHeld; }

  private:
    friend CallLayer;

    platform::NativeFile OpenFile(const char* path, const platform::FileOpenRequest& request) {
        const platform::NativeFile file = Below().openFile(path, request);
        if (std::string_view(path).ends_with("storage.eRepl")) {
            m_storageFile = file;
        }
        return file;
    }
    bool CloseFile(platform::NativeFile file) {
        if (file == m_storageFile && m_gate.IsHeld()) {
            m_closedWhileHeld = true;
            m_gate.Open();
        }
        return Below().closeFile(file);
    }
    u32 TickCount() {
        if (m_log.CountContaining("Deinit e-repl storage") != 0) {
            m_gate.Open();
        }
        return Below().tickCount();
    }

    const LogCapture m_log;
    WriteGate& m_gate;
    std::atomic<platform::NativeFile> m_storageFile{platform::kInvalidNativeFile};
    std::atomic<bool> m_closedWhileHeld{false};
};

}  // namespace

// Whoever opens the storage file next makes the index file anew: nothing is written to that any
// more.
TEST(CloseIndex, ASaveInProgressEndsBeforeTheStorageFileIsGivenFree) {
    WriteGate gate(WriteGate::File::kIndex);
    const ClosingWatch watch(gate);
    TestStorage storage(With(kFlushAlways, "block_size=138;index_hint=1;"));
    gate.Shut();
    storage.InsertCommitted({BlockFull("one")});
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    storage.InsertCommitted({BlockFull("two")});
    gate.WaitUntilHeld();
    storage.Close();
    EXPECT_FALSE(watch.ClosedWhileHeld());
}

}  // namespace k9erepl::test
