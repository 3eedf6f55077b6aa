// Clears after which nothing is left: the file starts over with a commit block that keeps the next
// revision, and the oldest revision never falls again. And truncation, after which the storage is
// new.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "engine/clear_fixture.h"
#include "engine/write_gate.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

struct Everything {
    Keeping keeping;
    u32 mode;
};

void PrintTo(const Everything& parameter, std::ostream* out) {
    *out << parameter.keeping << " in mode " << parameter.mode;
}

std::vector<Everything> EveryWay() {
    std::vector<Everything> ways;
    for (const Keeping& keeping : KeepingsWithFile()) {
        for (const u32 mode : {kLogical, kSqueeze, kSqueezeBackup, 3U}) {
            ways.push_back({keeping, mode});
        }
    }
    return ways;
}

class ClearOfEverything : public ::testing::TestWithParam<Everything> {
  protected:
    // The file holds a first commit block with this revision and nothing else, and no index entry.
    static void ExpectFileStartedOver(ClearableStorage& storage, i64 rev) {
        EXPECT_EQ(FileItems(storage), Strings({"c" + std::to_string(rev)}));
        EXPECT_EQ(ClearRevs(storage), Revs({rev}));
        WaitUntilIdle(storage);
        EXPECT_EQ(ReadBytes(IndexPath(storage)), IndexBytes({}));
        EXPECT_FALSE(Exists(BackupPath(storage)));
    }

    ClearableStorage m_storage{GetParam().keeping};
    const u32 m_mode = GetParam().mode;
};

INSTANTIATE_TEST_SUITE_P(Way, ClearOfEverything, ::testing::ValuesIn(EveryWay()));

}  // namespace

TEST_P(ClearOfEverything, FromTheNextRevisionOnKeepsThat) {
    for (const i64 rev : {i64{8}, kEndOfRevs}) {
        ClearableStorage storage(GetParam().keeping);
        storage.Put(7);
        const LogCapture log;
        storage.ClearTo(rev, m_mode);
        EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "File was truncated;clear rev 7")) << log;
        ExpectFileStartedOver(storage, 7);
        EXPECT_EQ(storage.OldestRev(), 7);
        EXPECT_EQ(storage.FirstRev(), 1);
        EXPECT_TRUE(StorageAccess::Blocks(storage.Object()).Blocks().empty());
        EXPECT_FALSE(StorageAccess::BeginMoved(storage.Object()));
        storage.ExpectContentForLife();
    }
}

TEST_P(ClearOfEverything, IsWhatClearAllDoes) {
    m_storage.PutAt(10);
    m_storage.Put(3);
    EXPECT_EQ(m_storage.ClearAll(m_mode), RC_OK);
    ExpectFileStartedOver(m_storage, 13);
    EXPECT_EQ(m_storage.NextRev(), 14);
    EXPECT_EQ(m_storage.Records(), SeenRecords());
    m_storage.Reopen();
    EXPECT_EQ(m_storage.NextRev(), 14);
    EXPECT_EQ(m_storage.ClearAll(m_mode), RC_OK);
}

TEST_P(ClearOfEverything, HappensWhenTheRevisionsThatAreLeftWereUsedUp) {
    for (const u32 records : {0U, 1U, 3U}) {
        for (const bool leavesABlock : {false, true}) {
            ClearableStorage storage(GetParam().keeping);
            storage.Put(records);
            if (leavesABlock || records == 0) {
                storage.UseUpLeavingABlock();
            } else {
                storage.UseUp();
            }
            storage.UseUp();
            storage.ClearTo(records + 1 + (leavesABlock ? 1 : 0), m_mode);
            ExpectFileStartedOver(storage, records + 2);
            storage.ExpectContentForLife();
        }
    }
}

TEST_P(ClearOfEverything, KeepsTheLifeNumberAndTheRevisionMark) {
    m_storage.Put(3);
    ASSERT_EQ(K9eReplStorageSetLifenum(m_storage.Handle(), 9), RC_OK);
    ASSERT_EQ(m_storage.Clear(2, kMark), RC_OK);
    m_storage.ClearTo(4, m_mode);
    for (int life = 0; life < 3; ++life) {
        EXPECT_EQ(m_storage.Lifenum(), 9U);
        EXPECT_EQ(m_storage.RevisionMark(), 2);
        m_storage.Reopen();
    }
}

// A commit block with a lower clear revision would end the next load.
TEST_P(ClearOfEverything, KeepsTheOldestRevisionFromFalling) {
    for (int round = 0; round < 2; ++round) {
        m_storage.Put(7);
        m_storage.ClearTo(m_storage.NextRev(), m_mode);
    }
    ExpectFileStartedOver(m_storage, 14);
    m_storage.Put(4);
    for (const i64 rev : {1, 13, 14, 16}) {
        m_storage.ClearTo(rev, kLogical);
        m_storage.ExpectContent();
    }
    const Revs clearRevs = ClearRevs(m_storage);
    EXPECT_TRUE(std::is_sorted(clearRevs.begin(), clearRevs.end()));
    m_storage.Reopen();
    m_storage.ExpectContent();
    m_storage.ClearTo(19, m_mode);
    EXPECT_EQ(m_storage.OldestRev(), 18);
    m_storage.Reopen();
    m_storage.ExpectContentForLife();
}

// --- Details that do not depend on the way -----------------------------------------------------

// Old items may lie behind the new data: they must not come back when it reaches up to them.
TEST(FileStartedOver, NeverShowsOldRecordsAgain) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(9);
    storage.ClearTo(10, kLogical);
    for (int i = 0; i < 9; ++i) {
        storage.Put();
        storage.ReopenWithoutIndex();
        storage.ExpectContent();
    }
}

TEST(FileStartedOver, IsNotFlushedBeforeAndTakesTheInitialSize) {
    Notified flushed;
    ClearableStorage storage(AllKeepings()[3], "file_initial_size=1;");
    flushed.SetAsOnFlush(storage);
    storage.Put(5);
    storage.ClearTo(6, kLogical);
    EXPECT_EQ(flushed.Calls(), Revs());
    EXPECT_EQ(FileSize(storage.Path()), 1024 * 1024);
    storage.ExpectContentForLife();
}

TEST(FileStartedOver, HasNoIndexEntriesAlsoWhenItsBeginningCannotBeWritten) {
    const ScopedSystemCalls systemCalls;
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    storage.Reopen();
    FailWrite(2);  // the first one empties the index file
    const LogCapture log;
    EXPECT_EQ(storage.Clear(6, kLogical), RC_SYSTEM_ERROR);
    EXPECT_EQ(log.CodeOf("Failed to truncate solid storage while clear old revs;clear rev 6"),
              RC_SYSTEM_ERROR)
        << log;
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    EXPECT_EQ(ReadBytes(IndexPath(storage)), IndexBytes({}));
    storage.Reopen();
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 5));
}

TEST(FileStartedOver, OnlyAfterItsIndexFileWasEmptied) {
    const ScopedSystemCalls systemCalls;
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    const std::vector<u8> before = FileBytes(storage);
    FailWrite(1);
    const LogCapture log;
    EXPECT_EQ(storage.Clear(6, kLogical), RC_SYSTEM_ERROR);
    EXPECT_EQ(log.CodeOf("Failed to empty index file '" + IndexPath(storage) + "'"),
              RC_SYSTEM_ERROR)
        << log;
    EXPECT_EQ(FileBytes(storage), before);
    storage.Reopen();
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 5));
}

// --- Truncation ----------------------------------------------------------------------------------

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
            EXPECT_EQ(ReadBytes(IndexPath(storage)), IndexBytes({}));
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
    ASSERT_EQ(m_storage.Clear(4, kLogical), RC_OK);
    EXPECT_EQ(m_storage.Truncate(), RC_OK);
    ExpectNew(m_storage);
    EXPECT_EQ(m_storage.Clear(0, kSqueeze), RC_OK);
    EXPECT_EQ(m_storage.Truncate(), RC_OK);
    ExpectNew(m_storage);
    ExpectUsable(m_storage);
    EXPECT_EQ(m_storage.Lifenum(), 0U);
    EXPECT_EQ(m_storage.RevisionMark(), 0);
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

TEST(TruncationOfAFile, StartsTheIndexThreadWithoutAMessageOrBreaksTheStorage) {
    const ScopedSystemCalls systemCalls;
    ClearableStorage storage(KeepInMemory());
    storage.Put(3);
    StorageAccess::Index(storage.Object())->Stop();
    FailCreateThread(1);
    EXPECT_EQ(storage.Truncate(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    storage.Reopen();
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 3));
    StorageAccess::Index(storage.Object())->Stop();
    const LogCapture log;
    EXPECT_EQ(storage.Truncate(), RC_OK);
    EXPECT_EQ(log.Count("Index thread is finished; trying to restart"), 0U) << log;
    EXPECT_FALSE(StorageAccess::Index(storage.Object())->IsFinished());
    EXPECT_EQ(log.CountContaining("WriteData1: "), 1U) << "the times: " << log;
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
        storage.Object().SolidStorage().Close();
        EXPECT_EQ(storage.Truncate(), RC_NO_WRITER) << "the way back is a new handle";
        EXPECT_EQ(storage.State(), StorageState::kBroken);
    }
}

TEST(TruncationOfAFile, WaitsForASaveOfTheIndexThreadAndShrinksItToTheInitialSize) {
    const ScopedSystemCalls systemCalls;
    WriteGate gate(WriteGate::File::kIndex);
    ClearableStorage storage(KeepInMemory(), "file_initial_size=1;file_size_delta=1;");
    storage.Put(7);
    gate.Shut();
    storage.ClearTo(2, kLogical);
    std::thread opener([&] { gate.Open(); });
    EXPECT_EQ(storage.Truncate(), RC_OK);
    opener.join();
    EXPECT_EQ(ReadBytes(IndexPath(storage)), IndexBytes({}));
    EXPECT_EQ(FileSize(storage.Path()), 1024 * 1024);
    storage.InsertCommitted({"one"});
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
}

}  // namespace k9erepl::test
