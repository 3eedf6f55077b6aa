// Rolling back: what goes, what stays, and that the storage goes on from there.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Blocks of 138 bytes; one record of BlockFull fills one.
constexpr std::string_view kSmallBlocks = "block_size=138;";

std::vector<i64> MemoryKeys(TestStorage& storage) {
    std::vector<i64> keys;
    for (const auto& [key, block] : StorageAccess::Blocks(storage.Object()).Blocks()) {
        keys.push_back(key);
    }
    return keys;
}

}  // namespace

TEST(Rollback, TakesRecordsAndRevisionsBack) {
    TestStorage storage(kFlushAlways);
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    ASSERT_EQ(storage.Insert("three"), RC_OK);
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(log.Texts(K9SYS_LOG_INFO), Strings({"TR_ROLL"}));
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
    EXPECT_EQ(storage.NextRev(), 2);
}

TEST(Rollback, ErasesBlocksBegunInTheTransaction) {
    TestStorage storage(With(kFlushNever, kSmallBlocks));
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("shares the first block"), RC_OK);
    ASSERT_EQ(storage.Insert(BlockFull("two")), RC_OK);
    ASSERT_EQ(storage.Insert(BlockFull("three")), RC_OK);
    EXPECT_EQ(MemoryKeys(storage), std::vector<i64>({1, 3, 4}));
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(MemoryKeys(storage), std::vector<i64>({1}));
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Index().size(), 1U);
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Newest().lastRev, 1);
}

TEST(Rollback, OfTheFirstTransactionLeavesNoBlock) {
    TestStorage storage(kFlushAlways);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_TRUE(MemoryKeys(storage).empty());
    EXPECT_TRUE(StorageAccess::Blocks(storage.Object()).Index().empty());
    EXPECT_EQ(storage.NextRev(), 1);
}

TEST(Rollback, KeepsEarlierTransactionsThatAreNotFlushed) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("gone"), RC_OK);
    ASSERT_EQ(storage.Rollback(), RC_OK);
    storage.InsertCommitted({"two"});
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "one"}, {2, 0, "two"}}));
}

TEST(Rollback, TakesGapsOfPreparedRecordsBack) {
    TestStorage storage(kFlushAlways);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.InsertP(100, "hundred"), RC_OK);
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.NextRev(), 1);
    EXPECT_EQ(storage.InsertP(2, "two"), RC_OK);
}

// The block's last revision then stands above its last record; the commit block names it too.
TEST(Rollback, BehindAConsumedRevisionLeavesALoadableFile) {
    TestStorage storage(With(kFlushNever, kSmallBlocks));
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    ASSERT_EQ(storage.Commit(), RC_OK);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("gone"), RC_OK);
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.NextRev(), 3);
    storage.InsertCommitted({"three"});
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "one"}, {3, 0, "three"}}));
    EXPECT_EQ(storage.NextRev(), 4);
}

TEST(Rollback, AfterAFailedFlushOpensTheStorageAgain) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    TestStorage storage(kFlushAlways);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("lost"), RC_OK);
    FailWrite(1);
    ASSERT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    ASSERT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    EXPECT_EQ(storage.NextRev(), 1);
    storage.InsertCommitted({"kept"});
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "kept"}}));
}

TEST(Rollback, WithABlockMissingAnswersBadDataAndKeepsTheState) {
    TestStorage storage(With(kFlushNever, kSmallBlocks));
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert(BlockFull("two")), RC_OK);
    auto& blocks = StorageAccess::InMemory(StorageAccess::Blocks(storage.Object()));
    K9eReplBlock* const lost = blocks.at(2);
    blocks.at(2) = nullptr;
    StorageAccess::SetState(storage.Object(), StorageState::kFlushFailed);
    const LogCapture log;
    EXPECT_EQ(storage.Rollback(), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Failed to erase block - NULL;block rev 2"), RC_BAD_DATA) << log;
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(storage.NextRev(), 3);
    blocks.at(2) = lost;
}

}  // namespace k9erepl::test
