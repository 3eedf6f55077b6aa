// Storages without a file: what a commit tells, truncation, and callbacks that call back in.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// A loaded storage in memory.
struct InMemory : TestStorage {
    InMemory() : TestStorage(kInMemory, Start::kNothing) { EXPECT_EQ(TryOpenAndLoad(), RC_OK); }
};

}  // namespace

TEST(NoFlushMode, ACommitCallsOnFlushThenOnWriteToFileWithTheLastRevision) {
    std::string order;
    Notified flushed([&](i64 rev) { order += "F" + std::to_string(rev); });
    Notified written([&](i64 rev) { order += "W" + std::to_string(rev); });
    InMemory storage;
    flushed.SetAsOnFlush(storage);
    written.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(order, "F2W2");
    EXPECT_FALSE(Exists(storage.Path()));
}

TEST(NoFlushMode, EveryCommitTellsEvenAnEmptyOne) {
    Notified flushed;
    InMemory storage;
    flushed.SetAsOnFlush(storage);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(flushed.Calls(), Revs({0}));
}

TEST(NoFlushMode, WorksWithoutCallbacks) {
    InMemory storage;
    storage.InsertCommitted({"one"});
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
}

TEST(NoFlushMode, MakesNoSystemCallOnFiles) {
    const ScopedSystemCalls systemCalls;
    {
        InMemory storage;
        storage.InsertMany(100);
    }
    EXPECT_EQ(CallCount(SystemCall::kOpen), 0U);
    EXPECT_EQ(CallCount(SystemCall::kWrite), 0U);
    EXPECT_EQ(CallCount(SystemCall::kCreateThread), 0U);
}

TEST(NoFlushMode, RollbackWorksAsWithAFile) {
    InMemory storage;
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("gone"), RC_OK);
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
    EXPECT_EQ(storage.NextRev(), 2);
}

TEST(NoFlushMode, NestedCommitsOfACallbackTellToo) {
    Notified flushed;
    InMemory storage;
    flushed.Does([&](i64 rev) {
        if (rev < 3) {
            EXPECT_EQ(storage.Insert("nested"), RC_OK);
        }
    });
    flushed.SetAsOnFlush(storage);
    storage.InsertCommitted({"one"});
    EXPECT_EQ(flushed.Calls(), Revs({1, 2, 3}));
    EXPECT_EQ(storage.Texts(), Strings({"one", "nested", "nested"}));
}

TEST(NoFlushMode, NestedCommitsAreTimedAsOne) {
    const ScopedSystemCalls systemCalls;
    SetPerformanceFrequency(1000000);
    SetPerformanceCounter(500);
    Notified flushed;
    InMemory storage;
    flushed.Does([&](i64 rev) {
        AdvancePerformanceCounter(10);
        if (rev == 1) {
            EXPECT_EQ(storage.Insert("nested"), RC_OK);
        }
    });
    flushed.SetAsOnFlush(storage);
    storage.InsertCommitted({"one"});
    const LogCapture log({"***TP***"});
    storage.Close();
    EXPECT_EQ(log.CountContaining("OnFlushCb: 20.00 mcs  "), 1U) << log;
    EXPECT_EQ(log.CountContaining("has already started"), 0U) << log;
}

TEST(NoFlushMode, ATransactionBegunByACallbackStaysOpen) {
    Notified written;
    InMemory storage;
    written.Does([&](i64) { EXPECT_EQ(storage.Begin(), RC_OK); });
    written.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    EXPECT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
}

// --- Truncation --------------------------------------------------------------------------------

TEST(TruncateInMemory, StartsOverEmpty) {
    InMemory storage;
    storage.InsertCommitted({"one", "two"});
    ASSERT_EQ(K9eReplStorageSetLifenum(storage.Handle(), 5), RC_OK);
    StorageAccess::ClearMark(storage.Object()) = 6;
    ASSERT_EQ(K9eReplStorageTruncate(storage.Handle()), RC_OK);
    EXPECT_EQ(storage.NextRev(), 1);
    EXPECT_EQ(storage.Texts(), Strings());
    u32 lifenum = 1;
    i64 mark = 1;
    EXPECT_EQ(K9eReplStorageGetLifenum(storage.Handle(), &lifenum), RC_OK);
    EXPECT_EQ(K9eReplStorageGetClearOldRev(storage.Handle(), &mark), RC_OK);
    EXPECT_EQ(lifenum, 0U);
    EXPECT_EQ(mark, 0);
    storage.InsertCommitted({"again"});
    EXPECT_EQ(storage.Records(), SeenRecords({{1, 0, "again"}}));
}

TEST(TruncateInMemory, IsRefusedInsideATransactionWithoutAMessage) {
    InMemory storage;
    ASSERT_EQ(storage.Begin(), RC_OK);
    const LogCapture log;
    EXPECT_EQ(K9eReplStorageTruncate(storage.Handle()), RC_IN_TRANSACTION);
    EXPECT_TRUE(log.Messages().empty()) << log;
}

TEST(TruncateInMemory, OpensAStorageThatIsNotLoaded) {
    TestStorage storage(kInMemory, Start::kNothing);
    ASSERT_EQ(storage.TryOpen(), RC_OK);
    ASSERT_EQ(K9eReplStorageTruncate(storage.Handle()), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    EXPECT_EQ(storage.TryLoad(), RC_ALREADY);
    storage.InsertCommitted({"one"});
}

}  // namespace k9erepl::test
