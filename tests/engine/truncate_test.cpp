// Truncation: in which states, what it leaves of the storage, the file and the index, and how it
// fails.
#include <gtest/gtest.h>

#include "engine/clear_fixture.h"
#include "engine/write_gate.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

class Truncation : public ::testing::TestWithParam<Keeping> {
  protected:
    static void ExpectNew(TestStorage& storage) {
        EXPECT_EQ(storage.State(), StorageState::kOpen);
        EXPECT_EQ(storage.NextRev(), 1);
        EXPECT_EQ(storage.OldestRev(), 0);
        EXPECT_EQ(StorageAccess::FlushedRev(storage.Object()), 0);
        EXPECT_EQ(storage.FirstRev(), 1);
        EXPECT_EQ(storage.Lifenum(), 0U);
        EXPECT_EQ(storage.RevisionMark(), 0);
        EXPECT_FALSE(StorageAccess::BeginMoved(storage.Object()));
        EXPECT_FALSE(StorageAccess::Policy(storage.Object()).Now().transactions > 0);
        EXPECT_TRUE(StorageAccess::Blocks(storage.Object()).Blocks().empty());
        EXPECT_EQ(storage.Records(), SeenRecords());
        if (GetParam().hasFile) {
            EXPECT_EQ(FileItems(storage), Strings({"c0"}));
            EXPECT_EQ(ClearRevs(storage), Revs({0}));
            WaitUntilIdle(storage);
            EXPECT_EQ(ReadBytes(IndexPath(storage)), EmptyIndexBytes());
        }
    }
    static void ExpectUsable(TestStorage& storage) {
        storage.InsertCommitted({"one", "two"});
        EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "one"}, {2, 0, "two"}}));
        if (GetParam().hasFile) {
            storage.Reopen();
            EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "one"}, {2, 0, "two"}}));
        }
    }

    ClearableStorage m_storage{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Keeping, Truncation, ::testing::ValuesIn(AllKeepings()), NameOfKeeping);

}  // namespace

TEST_P(Truncation, LeavesTheStorageNewAndOpen) {
    m_storage.Put(9);
    ASSERT_EQ(K9eReplStorageSetLifenum(m_storage.Handle(), 5), RC_OK);
    ASSERT_EQ(m_storage.Clear(4, kMark), RC_OK);
    EXPECT_EQ(m_storage.Truncate(), RC_OK);
    ExpectNew(m_storage);
    ExpectUsable(m_storage);
    EXPECT_EQ(m_storage.Lifenum(), 0U);
    EXPECT_EQ(m_storage.RevisionMark(), 0);
}

TEST_P(Truncation, ForgetsALogicalClearToo) {
    m_storage.Put(9);
    ASSERT_EQ(m_storage.Clear(4, kLogical), RC_OK);
    EXPECT_EQ(m_storage.Truncate(), RC_OK);
    ExpectNew(m_storage);
    EXPECT_EQ(m_storage.Clear(0, kSqueeze), RC_OK);
    ExpectUsable(m_storage);
}

TEST_P(Truncation, OfAnEmptyStorageMayBeRepeated) {
    EXPECT_EQ(m_storage.Truncate(), RC_OK);
    EXPECT_EQ(m_storage.Truncate(), RC_OK);
    ExpectNew(m_storage);
    ExpectUsable(m_storage);
}

TEST_P(Truncation, OpensEveryState) {
    for (const auto state :
         {StorageState::kClosed, StorageState::kBroken, StorageState::kFlushFailed}) {
        ClearableStorage storage(GetParam());
        storage.Put(3);
        StorageAccess::SetState(storage.Object(), state);
        EXPECT_EQ(storage.Truncate(), RC_OK);
        ExpectNew(storage);
        ExpectUsable(storage);
    }
}

TEST_P(Truncation, OpensAStorageThatWasNotLoaded) {
    TestStorage storage(GetParam().settings, Start::kOpened);
    EXPECT_EQ(storage.Truncate(), RC_OK);
    ExpectNew(storage);
    EXPECT_EQ(storage.TryLoad(), RC_ALREADY);
    ExpectUsable(storage);
}

TEST_P(Truncation, IsRefusedInsideATransactionWithoutAMessage) {
    m_storage.Put(3);
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    const LogCapture log;
    EXPECT_EQ(m_storage.Truncate(), RC_IN_TRANSACTION);
    EXPECT_TRUE(log.Messages().empty()) << log;
    ASSERT_EQ(m_storage.Commit(), RC_OK);
    m_storage.ExpectContentForLife();
}

TEST_P(Truncation, LetsOldRecordsNeverComeBack) {
    m_storage.Put(9);
    ASSERT_EQ(m_storage.Truncate(), RC_OK);
    for (i64 rev = 1; rev <= 9 && GetParam().hasFile; ++rev) {
        ASSERT_EQ(m_storage.Insert("new"), RC_OK);
        m_storage.Reopen();
        EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, rev));
    }
    EXPECT_EQ(m_storage.Texts(), Strings(GetParam().hasFile ? 9 : 0, "new"));
}

// --- With a file -------------------------------------------------------------------------------

TEST(TruncationOfAFile, StartsTheIndexThreadWithoutAMessage) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(3);
    StorageAccess::Index(storage.Object())->Stop();
    const LogCapture log;
    EXPECT_EQ(storage.Truncate(), RC_OK);
    EXPECT_EQ(log.Count("Index thread is finished; trying to restart"), 0U) << log;
    EXPECT_FALSE(StorageAccess::Index(storage.Object())->IsFinished());
}

TEST(TruncationOfAFile, BreaksTheStorageWhenTheThreadCannotBeStarted) {
    const ScopedSystemCalls systemCalls;
    ClearableStorage storage(KeepInMemory());
    storage.Put(3);
    StorageAccess::Index(storage.Object())->Stop();
    FailCreateThread(1);
    EXPECT_EQ(storage.Truncate(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    storage.Reopen();
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 3));
}

TEST(TruncationOfAFile, BreaksTheStorageWhenTheFileCannotBeWritten) {
    const ScopedSystemCalls systemCalls;
    for (const u32 nth : {1U, 2U}) {
        ClearableStorage storage(KeepInMemory());
        storage.Put(3);
        ASSERT_EQ(storage.WaitForWriter(), RC_OK);
        FailWrite(nth);
        const LogCapture log;
        EXPECT_EQ(storage.Truncate(), RC_SYSTEM_ERROR);
        EXPECT_EQ(log.CodeOf("Failed to truncate solid storage"), RC_SYSTEM_ERROR) << log;
        EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, "Failed to truncate solid storage"));
        EXPECT_EQ(storage.State(), StorageState::kBroken);
        EXPECT_EQ(storage.Truncate(), RC_OK) << "it may be tried again";
        EXPECT_EQ(storage.State(), StorageState::kOpen);
        EXPECT_EQ(storage.Records(), SeenRecords());
    }
}

// The way back from a squeeze that closed the file is a new handle.
TEST(TruncationOfAFile, FailsWhenTheFileWasClosed) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(3);
    storage.Object().SolidStorage().Close();
    const LogCapture log;
    EXPECT_EQ(storage.Truncate(), RC_NO_WRITER);
    EXPECT_EQ(log.CodeOf("Failed to truncate solid storage"), RC_NO_WRITER) << log;
    EXPECT_EQ(storage.State(), StorageState::kBroken);
}

TEST(TruncationOfAFile, WaitsForASaveOfTheIndexThread) {
    const ScopedSystemCalls systemCalls;
    WriteGate gate(WriteGate::File::kIndex);
    ClearableStorage storage(KeepInMemory());
    storage.Put(7);
    gate.Shut();
    storage.ClearTo(2, kLogical);
    std::thread opener([&] { gate.Open(); });
    EXPECT_EQ(storage.Truncate(), RC_OK);
    opener.join();
    EXPECT_EQ(ReadBytes(IndexPath(storage)), EmptyIndexBytes());
}

TEST(TruncationOfAFile, ReportsTheTimes) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(3);
    const LogCapture log({"***TP***"});
    EXPECT_EQ(storage.Truncate(), RC_OK);
    EXPECT_EQ(log.CountContaining("WriteData1: "), 1U) << log;
}

TEST(TruncationOfAFile, ShrinksItToTheInitialSize) {
    ClearableStorage storage(KeepInMemory(), "file_initial_size=1;file_size_delta=1;");
    ASSERT_EQ(storage.Truncate(), RC_OK);
    EXPECT_EQ(FileSize(storage.Path()), 1024 * 1024);
    storage.InsertCommitted({"one"});
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
}

}  // namespace k9erepl::test
