// Transactions: nesting, insertion with and without them, rolling back, what each state allows.
#include <gtest/gtest.h>

#include <limits>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {

// --- Without a transaction ---------------------------------------------------------------------

TEST(ImplicitTransaction, InsertAndInsertPCommitAtOnce) {
    TestStorage storage(kFlushAlways);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
    ASSERT_EQ(storage.InsertP(5, "five"), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1", "r5", "c5"}));
    EXPECT_EQ(storage.Commit(), RC_NO_TRANSACTION);
}

TEST(ImplicitTransaction, ARecordThatFitsNoBlockIsRolledBackWithItsRevision) {
    TestStorage storage(With(kFlushAlways, "block_size=138;"));
    EXPECT_EQ(storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    EXPECT_EQ(storage.NextRev(), 1);
    EXPECT_EQ(storage.Rollback(), RC_NO_TRANSACTION_TO_ROLLBACK);
    EXPECT_EQ(storage.Insert("one"), RC_OK);
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "one"}}));
}

TEST(ImplicitTransaction, AFailedCommitIsRolledBackAndItsCodeReturned) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    TestStorage storage(kFlushAlways);
    FailWrite(1);
    EXPECT_EQ(storage.Insert("lost"), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    EXPECT_EQ(storage.NextRev(), 1);
    EXPECT_EQ(storage.Insert("kept"), RC_OK);
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "kept"}}));
}

TEST(NestedTransaction, OnlyTheOutermostCommitFlushes) {
    TestStorage storage(kFlushAlways);
    LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Begin(), RC_OK);
    EXPECT_EQ(log.Texts(), Strings({"TR_B"}));
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "TR_B"));
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    log.Clear();
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(log.Texts(), Strings({"TR_C"})) << "and nothing else";
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(log.Count("TR_C"), 2U);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
    EXPECT_EQ(storage.Commit(), 0x8011U) << "there is none";
}

TEST(NestedTransaction, OneRollbackEndsAllLevels) {
    TestStorage storage(kFlushAlways);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Begin(), RC_OK);
    EXPECT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.Rollback(), 0x8013U) << "there is none";
    EXPECT_EQ(storage.Commit(), RC_NO_TRANSACTION);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
}

// No sequence of calls leads here; the answers are part of the contract all the same.
TEST(NestedTransaction, ALevelThatIsRolledBackTakesNoBeginAndNoCommit) {
    TestStorage storage;
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Begin(), RC_OK);
    StorageAccess::RolledBack(storage.Object()) = true;
    EXPECT_EQ(storage.Begin(), RC_BEGIN_AFTER_ROLLBACK);
    EXPECT_EQ(storage.Commit(), RC_TRANS_ROLLED_BACK);
    EXPECT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.Rollback(), RC_NO_TRANSACTION_TO_ROLLBACK);
}

TEST(Insert, WritesTheRevisionIntoTheRecord) {
    TestStorage storage;
    Record record("text", 42, -7);
    ASSERT_EQ(K9eReplStorageInsert(storage.Handle(), record.Get()), RC_OK);
    EXPECT_EQ(record->rev, 1);
    ASSERT_EQ(K9eReplStorageInsert(storage.Handle(), record.Get()), RC_OK);
    EXPECT_EQ(record->rev, 2);
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 42, "text"}, {2, 42, "text"}}));
}

TEST(Insert, AFailedOneInATransactionConsumesItsRevisionUntilARollback) {
    TestStorage storage(
        "block_size=138;flush_mode=PerData;flush_data_size=999;flush_timeout=99999999");
    ASSERT_EQ(storage.Begin(), RC_OK);
    EXPECT_EQ(storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    EXPECT_EQ(storage.NextRev(), 2);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(StorageAccess::Policy(storage.Object()).Now().dataSize, 27U) << "what was placed";
    EXPECT_EQ(storage.Records(), SeenRecords({{2, 0, "two"}}));
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{2, 0, "two"}}));
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.NextRev(), 3);
}

TEST(Insert, ARecordAboveTenMebibytesIsTakenInMemoryOnly) {
    TestStorage storage("block_size=12000000");
    const LogCapture log;
    EXPECT_EQ(storage.Insert(std::string(10485737, 'x')), RC_INVALID_ARG);
    EXPECT_EQ(log.CodeOf("Rec size with header 10485761 exceeds free block size 10485760"),
              RC_INVALID_ARG)
        << log;
    EXPECT_EQ(storage.Insert(std::string(10485736, 'x')), RC_OK);
    storage.Reopen();
    EXPECT_EQ(storage.Records().size(), 1U);
    TestStorage inMemory(With(kInMemory, "block_size=12000000;"), Start::kNothing);
    ASSERT_EQ(inMemory.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(inMemory.Insert(std::string(10485737, 'x')), RC_OK);
}

TEST(InsertP, TakesTheNextOrALaterRevisionWhichTheNextInsertFollows) {
    TestStorage storage(kFlushAlways);
    ASSERT_EQ(storage.InsertP(1, "one"), RC_OK);
    ASSERT_EQ(storage.InsertP(11, "eleven"), RC_OK);
    ASSERT_EQ(storage.Insert("twelve"), RC_OK);
    EXPECT_EQ(storage.NextRev(), 13);
    storage.Reopen();
    EXPECT_EQ(storage.Records(),
              SeenRecords({{1, 0, "one"}, {11, 0, "eleven"}, {12, 0, "twelve"}}));
}

TEST(InsertP, RefusesARevisionBelowTheNextOne) {
    TestStorage storage;
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    const LogCapture log({"k9eRepl-storage"});
    EXPECT_EQ(storage.InsertP(1, "again"), RC_INVALID_ARG);
    EXPECT_EQ(log.Messages(),
              std::vector<LoggedMessage>({{K9SYS_LOG_ERROR, "k9eRepl-storage",
                                           "Wrong rec rev 1, expected 2", RC_INVALID_ARG}}))
        << "not even a transaction was begun";
    EXPECT_EQ(storage.InsertP(std::numeric_limits<i64>::min(), "x"), RC_INVALID_ARG);
    EXPECT_EQ(storage.InsertP(0, "x"), RC_INVALID_ARG);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    EXPECT_EQ(storage.NextRev(), 2);
}

TEST(LastRevision, CanBeUsedAndNothingComesAfterIt) {
    TestStorage storage(kFlushAlways);
    EXPECT_EQ(storage.InsertP(kMaxRev + 1, "beyond"), RC_INVALID_ARG);
    ASSERT_EQ(storage.InsertP(kMaxRev, "last"), RC_OK);
    for (int life = 0; life < 2; ++life) {
        EXPECT_EQ(storage.Insert("beyond"), RC_INVALID_ARG);
        EXPECT_EQ(storage.InsertP(kMaxRev + 1, "beyond"), RC_INVALID_ARG);
        EXPECT_EQ(storage.NextRev(), kMaxRev + 1);
        EXPECT_EQ(storage.Records(), SeenRecords({{kMaxRev, 0, "last"}}));
        storage.Reopen();
    }
}

namespace {

std::vector<i64> MemoryKeys(TestStorage& storage) {
    std::vector<i64> keys;
    for (const auto& [key, block] : StorageAccess::Blocks(storage.Object()).Blocks()) {
        keys.push_back(key);
    }
    return keys;
}

}  // namespace

TEST(Rollback, TakesRecordsAndRevisionsBack) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"})) << "served before they are committed";
    ASSERT_EQ(storage.InsertP(100, "hundred"), RC_OK);
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(log.Texts(K9SYS_LOG_INFO), Strings({"TR_ROLL"}));
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
    EXPECT_EQ(storage.NextRev(), 2);
    storage.InsertCommitted({"other"});
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "one"}, {2, 0, "other"}}));
}

TEST(Rollback, ErasesBlocksBegunInTheTransaction) {
    TestStorage storage(With(kFlushNever, "block_size=138;"));
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("gone"), RC_OK);
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_TRUE(MemoryKeys(storage).empty());
    EXPECT_TRUE(StorageAccess::Blocks(storage.Object()).Index().empty());
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

// The block's last revision then stands above its last record; the commit block names it too.
TEST(Rollback, BehindAConsumedRevisionLeavesALoadableFile) {
    TestStorage storage(With(kFlushNever, "block_size=138;"));
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

TEST(Rollback, WithABlockMissingAnswersBadDataAndKeepsTheState) {
    TestStorage storage(With(kFlushNever, "block_size=138;"));
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert(BlockFull("two")), RC_OK);
    auto& blocks = StorageAccess::InMemory(StorageAccess::Blocks(storage.Object()));
    K9eReplBlock* const lost = std::exchange(blocks.at(2), nullptr);
    StorageAccess::SetState(storage.Object(), StorageState::kFlushFailed);
    const LogCapture log;
    EXPECT_EQ(storage.Rollback(), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Failed to erase block - NULL;block rev 2"), RC_BAD_DATA) << log;
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(storage.NextRev(), 3);
    blocks.at(2) = lost;
}

namespace {

// Every operation of a transaction is refused in `state` with its message.
void ExpectRefused(TestStorage& storage, const std::string& state, bool commitAndRollbackToo) {
    const LogCapture log({"k9eRepl-storage"});
    std::vector<LoggedMessage> expected;
    const auto refused = [&](u32 rc, const std::string& text) {
        EXPECT_EQ(rc, RC_WRONG_STATE);
        expected.push_back(
            {K9SYS_LOG_ERROR, "k9eRepl-storage", text + ";state " + state, RC_WRONG_STATE});
    };
    refused(storage.Begin(), "Failed to begin trans");
    refused(storage.Insert("x"), "Failed to insert");
    refused(storage.InsertP(100, "x"), "Failed to insert prepared");
    if (commitAndRollbackToo) {
        refused(storage.Commit(), "Failed to commit");
        refused(storage.Rollback(), "Failed to rollback");
    }
    EXPECT_EQ(log.Messages(), expected);
}

}  // namespace

TEST(StorageState, BeforeLoadAndBrokenEveryTransactionalOperationIsRefused) {
    TestStorage storage("", Start::kOpened);
    ExpectRefused(storage, "1", true);
    EXPECT_EQ(storage.State(), StorageState::kClosed);
    EXPECT_EQ(storage.NextRev(), 1);
    StorageAccess::SetState(storage.Object(), StorageState::kBroken);
    ExpectRefused(storage, "3", true);
    EXPECT_EQ(storage.State(), StorageState::kBroken);
}

TEST(StorageState, AFailedFlushLeavesCommitAndRollbackOnly) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    TestStorage storage(kFlushAlways);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    FailWrite(1);
    ASSERT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    ExpectRefused(storage, "4", false);
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
}

TEST(StorageState, AFileThatTakesNoTransactionBreaksTheStorage) {
    for (const bool implicit : {false, true}) {
        TestStorage storage;
        storage.Object().SolidStorage().Close();
        const LogCapture log;
        EXPECT_EQ(implicit ? storage.Insert("x") : storage.Begin(), RC_NO_WRITER);
        EXPECT_EQ(log.CodeOf("Failed to begin trans in solid storage"), RC_NO_WRITER) << log;
        EXPECT_EQ(storage.State(), StorageState::kBroken);
        EXPECT_EQ(StorageAccess::TransDepth(storage.Object()), 1U);
        EXPECT_EQ(storage.NextRev(), 1);
    }
}

// --- Numbers of the storage --------------------------------------------------------------------

TEST(LifeNumber, IsKeptInTheFileAndCanBeSetInAnyState) {
    TestStorage storage("", Start::kOpened);
    EXPECT_EQ(storage.Lifenum(), 0U);
    ASSERT_EQ(K9eReplStorageSetLifenum(storage.Handle(), 5), RC_OK);
    StorageAccess::SetState(storage.Object(), StorageState::kBroken);
    ASSERT_EQ(K9eReplStorageSetLifenum(storage.Handle(), 4000000000), RC_OK);
    storage.Reopen();
    EXPECT_EQ(storage.Lifenum(), 4000000000U);
    TestStorage inMemory(kInMemory, Start::kNothing);
    ASSERT_EQ(inMemory.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(K9eReplStorageSetLifenum(inMemory.Handle(), 6), RC_OK);
    EXPECT_EQ(inMemory.Lifenum(), 6U);
}

TEST(LifeNumber, StaysWhenTheFileCannotBeWritten) {
    const ScopedSystemCalls systemCalls;
    TestStorage storage;
    ASSERT_EQ(K9eReplStorageSetLifenum(storage.Handle(), 5), RC_OK);
    const LogCapture log;
    FailWrite(1);
    EXPECT_EQ(K9eReplStorageSetLifenum(storage.Handle(), 6), RC_SYSTEM_ERROR);
    EXPECT_EQ(log.CodeOf("Failed to set lifenum 6 to solid storage"), RC_SYSTEM_ERROR) << log;
    EXPECT_EQ(storage.Lifenum(), 5U);
}

TEST(RevisionMark, IsHandedOutUnderEachName) {
    TestStorage storage;
    StorageAccess::ClearMark(storage.Object()) = 77;
    i64 rev = 0;
    EXPECT_EQ(storage.RevisionMark(), 77);
    EXPECT_EQ(storage.DataSource().GetClearRev(&rev), RC_OK);
    EXPECT_EQ(rev, 77);
}

}  // namespace k9erepl::test
