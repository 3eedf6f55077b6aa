// Clears after which nothing is left: the file starts over with a commit block that keeps the next
// revision, and the oldest revision never falls again.
#include <gtest/gtest.h>

#include <algorithm>

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
        EXPECT_EQ(ReadBytes(IndexPath(storage)), EmptyIndexBytes());
        EXPECT_FALSE(Exists(BackupPath(storage)));
    }

    ClearableStorage m_storage{GetParam().keeping};
    const u32 m_mode = GetParam().mode;
};

INSTANTIATE_TEST_SUITE_P(Way, ClearOfEverything, ::testing::ValuesIn(EveryWay()));

}  // namespace

TEST_P(ClearOfEverything, AtTheNextRevisionKeepsThat) {
    m_storage.Put(7);
    const LogCapture log;
    m_storage.ClearTo(8, m_mode);
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "File was truncated;clear rev 7")) << log;
    ExpectFileStartedOver(m_storage, 7);
    EXPECT_EQ(m_storage.OldestRev(), 7);
    EXPECT_EQ(m_storage.FirstRev(), 1);
    EXPECT_TRUE(StorageAccess::Blocks(m_storage.Object()).Blocks().empty());
    EXPECT_FALSE(StorageAccess::BeginMoved(m_storage.Object()));
    m_storage.ExpectContentForLife();
}

TEST_P(ClearOfEverything, BeyondTheNextRevisionKeepsThatToo) {
    m_storage.Put(7);
    m_storage.ClearTo(kEndOfRevs, m_mode);
    ExpectFileStartedOver(m_storage, 7);
    m_storage.Reopen();
    m_storage.ExpectContentForLife();
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

TEST_P(ClearOfEverything, HappensWhenTheRevisionWasUsedUpWithoutARecord) {
    m_storage.Put(4);
    m_storage.UseUp();
    m_storage.UseUp();
    m_storage.ClearTo(5, m_mode);
    ExpectFileStartedOver(m_storage, 6);
    m_storage.ExpectContentForLife();
}

TEST_P(ClearOfEverything, HappensWhenOnlyAnEmptyBlockIsLeft) {
    for (const i64 rev : {4, 5}) {
        ClearableStorage storage(GetParam().keeping);
        storage.Put(3);
        storage.UseUpLeavingABlock();
        storage.UseUp();
        storage.ClearTo(rev, m_mode);
        ExpectFileStartedOver(storage, 5);
        storage.ExpectContentForLife();
    }
}

TEST_P(ClearOfEverything, HappensWhenNoRecordWasEverPlaced) {
    m_storage.UseUpLeavingABlock();
    m_storage.UseUp();
    m_storage.ClearTo(2, m_mode);
    ExpectFileStartedOver(m_storage, 2);
    m_storage.ExpectContentForLife();
}

TEST_P(ClearOfEverything, FollowsALogicalClear) {
    m_storage.Put(7);
    m_storage.ClearTo(4, kLogical);
    WaitUntilIdle(m_storage);
    m_storage.ClearTo(8, m_mode);
    ExpectFileStartedOver(m_storage, 7);
    m_storage.ExpectContentForLife();
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
    m_storage.Put(7);
    m_storage.ClearTo(8, m_mode);
    m_storage.Put(4);
    for (const i64 rev : {1, 6, 7}) {
        m_storage.ClearTo(rev, kLogical);
    }
    m_storage.ExpectContent();
    m_storage.ClearTo(9, kLogical);
    m_storage.ExpectContent();
    const Revs clearRevs = ClearRevs(m_storage);
    EXPECT_TRUE(std::is_sorted(clearRevs.begin(), clearRevs.end()));
    m_storage.Reopen();
    m_storage.ExpectContent();
    m_storage.ClearTo(12, m_mode);
    EXPECT_EQ(m_storage.OldestRev(), 11);
    m_storage.Reopen();
    m_storage.ExpectContentForLife();
}

TEST_P(ClearOfEverything, MayFollowItself) {
    for (int round = 0; round < 3; ++round) {
        m_storage.Put(3);
        m_storage.ClearTo(m_storage.NextRev(), m_mode);
        m_storage.ExpectContent();
    }
    ExpectFileStartedOver(m_storage, 9);
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

TEST(FileStartedOver, IsNotFlushedBefore) {
    Notified flushed;
    ClearableStorage storage(AllKeepings()[3]);
    flushed.SetAsOnFlush(storage);
    storage.Put(5);
    storage.ClearTo(6, kLogical);
    EXPECT_EQ(flushed.Calls(), Revs());
    storage.ExpectContentForLife();
}

TEST(FileStartedOver, TakesTheInitialSize) {
    ClearableStorage storage(KeepInMemory(), "file_initial_size=1;");
    storage.Put(5);
    storage.ClearTo(6, kLogical);
    EXPECT_EQ(FileSize(storage.Path()), 1024 * 1024);
    storage.ExpectContentForLife();
}

TEST(FileStartedOver, RestartsAnIndexThreadThatHasFinished) {
    for (const u32 mode : {kLogical, kSqueeze}) {
        ClearableStorage storage(KeepInMemory());
        storage.Put(5);
        StorageAccess::Index(storage.Object())->Stop();
        const LogCapture log;
        storage.ClearTo(6, mode);
        EXPECT_EQ(log.Count("Index thread is finished; trying to restart"), 1U) << log;
        EXPECT_FALSE(StorageAccess::Index(storage.Object())->IsFinished());
        storage.ExpectContentForLife();
    }
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
    EXPECT_EQ(ReadBytes(IndexPath(storage)), EmptyIndexBytes());
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

}  // namespace k9erepl::test
