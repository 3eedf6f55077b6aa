// A write that fails on the writing thread: whom it is told, that nobody waits in vain, and that a
// reopened storage holds everything that OnWriteToFile reported.
#include "engine/write_gate.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

using AsyncWriteFailure = AsyncStorageTest;

// One record in the file; the write of a second one has failed.
struct WithFailedWrite : TestStorage {
    // `inTransaction`: another transaction was open when it failed, with a record.
    explicit WithFailedWrite(WriteGate& gate, std::string_view more = "",
                             bool inTransaction = false)
        : TestStorage(AsyncSettings(100, more)) {
        InsertCommitted({"one"});
        EXPECT_EQ(WaitForWriter(), RC_OK);
        gate.Shut();
        InsertCommitted({"two"});
        if (inTransaction) {
            EXPECT_EQ(Begin(), RC_OK);
            EXPECT_EQ(Insert("three"), RC_OK);
        }
        FailWrite(1);
        gate.Open();
        EXPECT_EQ(WaitForWriter(), RC_SYSTEM_ERROR);
    }
    void ExpectOnlyTheFirstForLife() {
        Reopen();
        EXPECT_EQ(Texts(), Strings({"one"}));
        InsertCommitted({"goes on"});
        Reopen();
        EXPECT_EQ(Texts(), Strings({"one", "goes on"}));
        EXPECT_EQ(FileItems(*this), Strings({"c0", "r1", "c1", "r2", "c2"}));
    }
};

}  // namespace

TEST_F(AsyncWriteFailure, IsToldToTheNextTransactionOrInsertion) {
    for (const bool begins : {true, false}) {
        WithFailedWrite storage(m_gate);
        EXPECT_EQ(storage.State(), StorageState::kOpen) << "nobody was told yet";
        EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
        const LogCapture log;
        EXPECT_EQ(begins ? storage.Begin() : storage.Insert("three"), RC_SYSTEM_ERROR);
        EXPECT_EQ(log.CodeOf("Failed to begin trans in solid storage"), RC_SYSTEM_ERROR) << log;
        EXPECT_EQ(storage.State(), StorageState::kBroken);
        EXPECT_EQ(storage.Insert("three"), RC_WRONG_STATE);
        storage.ExpectOnlyTheFirstForLife();
    }
}

TEST_F(AsyncWriteFailure, IsToldToEveryCommitOfAnOpenTransactionWhichMayBeRolledBack) {
    WithFailedWrite storage(m_gate, "", true);
    for (int i = 0; i < 3; ++i) {
        const LogCapture log;
        EXPECT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
        EXPECT_EQ(log.CodeOf("Failed to flush data"), RC_SYSTEM_ERROR) << log;
        EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    }
    EXPECT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
    EXPECT_EQ(storage.Begin(), RC_SYSTEM_ERROR);
    storage.ExpectOnlyTheFirstForLife();
}

TEST_F(AsyncWriteFailure, IsToldToTheIdleFlush) {
    SetTickCount(1000);
    TestStorage storage(
        "async_mode=yes;flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=1000;");
    storage.InsertMany(1);
    AdvanceTickCount(1000);
    ShutGate();
    ASSERT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
    storage.InsertMany(1);
    FailWrite(1);
    OpenGate();
    EXPECT_EQ(storage.WaitForWriter(), RC_SYSTEM_ERROR);
    AdvanceTickCount(1000);
    EXPECT_EQ(storage.DataSource().FlushOnIdle(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(storage.Commit(), RC_NO_TRANSACTION);
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
}

TEST_F(AsyncWriteFailure, IsToldToHeaderChanges) {
    WithFailedWrite storage(m_gate);
    EXPECT_EQ(K9eReplStorageSetLifenum(storage.Handle(), 5), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.Clear(1, kMark), RC_SYSTEM_ERROR);
    storage.ExpectOnlyTheFirstForLife();
    EXPECT_EQ(storage.Lifenum(), 0U);
    EXPECT_EQ(storage.RevisionMark(), 0);
}

TEST_F(AsyncWriteFailure, IsToldToEveryRemoval) {
    for (const u32 mode : {kLogical, kSqueeze, kSqueezeBackup}) {
        for (const i64 rev : {2, 3}) {
            WithFailedWrite storage(m_gate);
            EXPECT_EQ(storage.Clear(rev, mode), RC_SYSTEM_ERROR);
            EXPECT_NE(storage.State(), StorageState::kOpen);
            storage.ExpectOnlyTheFirstForLife();
        }
    }
    WithFailedWrite storage(m_gate);
    EXPECT_EQ(storage.Truncate(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    storage.ExpectOnlyTheFirstForLife();
}

// What a clear of its own writes, not only what was queued before it.
TEST_F(AsyncWriteFailure, OfACommitBlockOfALogicalClearIsToldToTheClear) {
    for (const u32 mode : {kLogical, kSqueeze, kSqueezeBackup}) {
        ClearableStorage storage(AsyncKeeping(1));
        storage.Put(9);
        storage.Settle();
        FailWrite(1);
        EXPECT_EQ(storage.Clear(4, mode), RC_SYSTEM_ERROR);
        EXPECT_EQ(storage.State(), StorageState::kBroken);
        storage.Reopen();
        storage.ExpectContentForLife();
    }
}

TEST_F(AsyncWriteFailure, LeavesTheRestInMemoryUnwrittenAtClosing) {
    WithFailedWrite storage(m_gate, "force_flush=yes;");
    const u32 writes = CallCount(SystemCall::kWrite);
    storage.Object().SolidStorage().Close();
    EXPECT_EQ(CallCount(SystemCall::kWrite), writes);
    storage.Close();
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
}

// --- Everything acknowledged -------------------------------------------------------------------

namespace {

struct WriteFault {
    const char* name;
    u32 bytes;  // that the failing write takes all the same
    std::string settings;
};

class AcknowledgedByOnWriteToFile : public ::testing::TestWithParam<WriteFault> {
  protected:
    const ScopedSystemCalls m_systemCalls;
};

INSTANTIATE_TEST_SUITE_P(Fault, AcknowledgedByOnWriteToFile,
                         ::testing::Values(WriteFault{"Failed", 0, ""}, WriteFault{"Short", 20, ""},
                                           WriteFault{"UnbufferedShort", 10,
                                                      "async_buffer_size=0;"}),
                         [](const auto& fault) { return fault.param.name; });

}  // namespace

TEST_P(AcknowledgedByOnWriteToFile, IsThereAfterReopening) {
    const LogCapture quiet({"no module"});
    for (u32 nth = 1; nth <= 12; ++nth) {
        Notified written;
        TestStorage storage(AsyncSettings(2, GetParam().settings));
        written.SetAsOnWriteToFile(storage);
        if (GetParam().bytes == 0) {
            FailWrite(nth);
        } else {
            ShortWrite(nth, GetParam().bytes);
        }
        bool told = false;  // somebody is told of the fault; 40 insertions may make fewer writes
        for (u32 n = 1; n <= 40 && !told; ++n) {
            told = storage.Insert("r" + std::to_string(n)) != RC_OK;
        }
        told = told || storage.WaitForWriter() != RC_OK;
        storage.Close();
        StopFailing(SystemCall::kWrite);
        EXPECT_TRUE(told || nth > 1);
        ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
        const Strings texts = storage.Texts();
        const std::size_t reported =
            written.Calls().empty() ? 0 : static_cast<std::size_t>(written.Calls().back());
        EXPECT_EQ(texts, Numbered(static_cast<u32>(texts.size())));
        EXPECT_GE(texts.size(), reported);
        EXPECT_TRUE(told || texts.size() == 40);
    }
}

}  // namespace k9erepl::test
