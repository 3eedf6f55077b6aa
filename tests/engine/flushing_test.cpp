// Flushing: when it happens, what it writes, what it reports.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "format/storage_file_format.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr std::string_view kSmallBlocks = "block_size=138;";
constexpr std::string_view kByTime = "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=1000;";

}  // namespace

// --- When --------------------------------------------------------------------------------------

TEST(PerTrans, WithThreshold1FlushesAtEveryCommit) {
    TestStorage storage(kFlushAlways);
    storage.InsertCommitted({"one", "two"});
    storage.InsertCommitted({"three"});
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "c2", "r3", "c3"}));
}

TEST(PerTrans, CollectsTransactionsUpToItsThreshold) {
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=3;flush_timeout=2147483647;");
    storage.InsertMany(2);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    storage.InsertMany(1);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "r3", "c3"}));
    storage.InsertMany(2);
    EXPECT_EQ(FileItems(storage).size(), 5U);
}

TEST(PerTrans, WithoutACommitNothingIsFlushedByTimeAlone) {
    const ScopedSystemCalls systemCalls;
    SetTickCount(1000);
    TestStorage storage(kByTime);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("open"), RC_OK);
    AdvanceTickCount(1000000);
    EXPECT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
}

TEST(PerData, FlushesWhenTheCommittedBytesReachTheThreshold) {
    TestStorage storage("flush_mode=PerData;flush_data_size=78;flush_timeout=2147483647;");
    storage.InsertCommitted({"a", "b"});  // 25 bytes each
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    storage.InsertCommitted({"1234"});
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "r3", "c3"}));
}

TEST(PerData, FlushesWhenTheTimeHasPassedAtTheNextCommit) {
    const ScopedSystemCalls systemCalls;
    SetTickCount(1000);
    TestStorage storage("flush_mode=PerData;flush_data_size=1000000;flush_timeout=500;");
    storage.InsertCommitted({"one"});
    AdvanceTickCount(499);
    storage.InsertCommitted({"two"});
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    AdvanceTickCount(1);
    storage.InsertCommitted({"three"});
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "r3", "c3"}));
}

TEST(PerData, FlushesWhenTheTimeHasPassedAtTheIdleCall) {
    const ScopedSystemCalls systemCalls;
    SetTickCount(1000);
    TestStorage storage("flush_mode=PerData;flush_data_size=1000000;flush_timeout=500;");
    storage.InsertCommitted({"one"});
    AdvanceTickCount(500);
    EXPECT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
}

TEST(Flush, OfNothingNewWritesNothingAndResetsCounterAndTime) {
    const ScopedSystemCalls systemCalls;
    SetTickCount(1000);
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=2;flush_timeout=500;");
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Commit(), RC_OK);
    AdvanceTickCount(500);
    const u32 writes = CallCount(SystemCall::kWrite);
    ASSERT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kWrite), writes);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));

    storage.InsertCommitted({"one"});  // the counter begins at 1 again, the time at 0
    AdvanceTickCount(499);
    ASSERT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
}

// --- What --------------------------------------------------------------------------------------

TEST(Flush, WhileATransactionIsOpenWritesNothingOfIt) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one", "two"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("three"), RC_OK);
    ASSERT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "c2"}));
    ASSERT_EQ(storage.Commit(), RC_OK);
    ASSERT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "c2", "r3", "c3"}));
}

TEST(Flush, WritesTheCommitBlockTogetherWithTheLastRun) {
    SKIP_WHEN_ASYNC("the number of system writes");
    const ScopedSystemCalls systemCalls;
    TestStorage storage(kFlushAlways);
    const u32 writes = CallCount(SystemCall::kWrite);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(CallCount(SystemCall::kWrite), writes + 1);
}

TEST(Flush, WritesTheCommitBlockBehindAFullBlockToo) {
    SKIP_WHEN_ASYNC("the number of system writes");
    const ScopedSystemCalls systemCalls;
    TestStorage storage(With(kFlushAlways, kSmallBlocks));
    const u32 writes = CallCount(SystemCall::kWrite);
    storage.InsertCommitted({BlockFull("one")});
    EXPECT_EQ(CallCount(SystemCall::kWrite), writes + 1);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
}

TEST(Flush, WritesACommitBlockOfItsOwnWhenTheBlockGoesOn) {
    SKIP_WHEN_ASYNC("the number of system writes");
    const ScopedSystemCalls systemCalls;
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("open"), RC_OK);
    const u32 writes = CallCount(SystemCall::kWrite);
    ASSERT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kWrite), writes + 2);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
}

TEST(Flush, WritesOneRunForEachBlockAndFillsInWhereItBegins) {
    SKIP_WHEN_ASYNC("offsets are known when the flush returns");
    TestStorage storage(With(kFlushAlways, kSmallBlocks));
    const LogCapture log({"k9eRepl-storage"});
    storage.InsertCommitted({BlockFull("one"), BlockFull("two"), "three"});
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "r3", "c3"}));
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Flushed block;rev 1,last rev 1,offset 1056")) << log;
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Flushed block;rev 2,last rev 2,offset 1194")) << log;
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Flushed block;rev 3,last rev 3,offset 1332")) << log;
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Index().at(2).fileOffset, 1194);
}

TEST(Flush, ContinuesABlockWhereTheLastOneEnded) {
    TestStorage storage(kFlushAlways);
    storage.InsertCommitted({"one"});
    storage.InsertCommitted({"two"});
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Index().at(1).fileOffset, 1056);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
}

TEST(Flush, PassesOverAnEmptyBlock) {
    TestStorage storage(With(kFlushAlways, kSmallBlocks));
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    ASSERT_EQ(storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    ASSERT_EQ(storage.Insert("three"), RC_OK);
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r3", "c3"}));
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{3, 0, "three"}}));
}

TEST(Flush, EndsWithACommitBlockWhenAnEmptyBlockComesLast) {
    TestStorage storage(With(kFlushAlways, kSmallBlocks));
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    ASSERT_EQ(storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
    EXPECT_EQ(storage.NextRev(), 3);
}

TEST(Flush, LetsTheCacheShrinkToItsLimit) {
    TestStorage storage(With(kFlushAlways, "block_size=138;cache_type=Last2;"));
    for (int i = 0; i < 5; ++i) {
        storage.InsertCommitted({BlockFull("full")});
    }
    storage.Settle();
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Blocks().size(), 2U);
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Index().size(), 5U);
    EXPECT_EQ(storage.Records().size(), 5U);
}

TEST(Flush, KeepsEverythingWithAllInMem) {
    TestStorage storage(With(kFlushAlways, "block_size=138;cache_type=AllInMem;"));
    for (int i = 0; i < 5; ++i) {
        storage.InsertCommitted({BlockFull("full")});
    }
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Blocks().size(), 5U);
}

TEST(Flush, KeepsUnflushedBlocksBeyondTheCacheLimit) {
    TestStorage storage(With(kFlushNever, "block_size=138;cache_type=Last1;"));
    for (int i = 0; i < 4; ++i) {
        storage.InsertCommitted({BlockFull("full")});
    }
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Blocks().size(), 4U);
    EXPECT_EQ(storage.Records().size(), 4U);
}

TEST(Flush, CommitsToTheDiskWithForceFlushOnly) {
    SKIP_WHEN_ASYNC("a flush to the disk at each commit");
    const ScopedSystemCalls systemCalls;
    TestStorage storage(kFlushAlways);
    u32 flushes = CallCount(SystemCall::kFlush);
    storage.InsertCommitted({"one"});
    EXPECT_EQ(CallCount(SystemCall::kFlush), flushes);
    storage.Reopen(With(kFlushAlways, "force_flush=yes;"));
    flushes = CallCount(SystemCall::kFlush);
    storage.InsertCommitted({"two"});
    EXPECT_EQ(CallCount(SystemCall::kFlush), flushes + 1);
}

// --- Callbacks ---------------------------------------------------------------------------------

TEST(FlushCallbacks, AreCalledOnceForEachFlushWithItsLastRevision) {
    Notified flushed;
    Notified written;
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=2;flush_timeout=2147483647;");
    flushed.SetAsOnFlush(storage);
    written.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(flushed.Calls(), Revs());
    storage.InsertCommitted({"three"});
    EXPECT_EQ(flushed.Calls(), Revs({3}));
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    EXPECT_EQ(written.Calls(), Revs({3}));
}

TEST(FlushCallbacks, OnWriteToFileComesBeforeOnFlush) {
    SKIP_WHEN_ASYNC("the order of the two callbacks");
    std::string order;
    Notified flushed([&](i64) { order += "F"; });
    Notified written([&](i64) { order += "W"; });
    TestStorage storage(kFlushAlways);
    flushed.SetAsOnFlush(storage);
    written.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({"one"});
    EXPECT_EQ(order, "WF");
}

TEST(FlushCallbacks, AreNotCalledForAFlushOfNothing) {
    Notified flushed;
    TestStorage storage(kFlushAlways);
    flushed.SetAsOnFlush(storage);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(flushed.Calls(), Revs());
}

TEST(FlushCallbacks, CanBeUnset) {
    Notified flushed;
    Notified written;
    TestStorage storage(kFlushAlways);
    flushed.SetAsOnFlush(storage);
    written.SetAsOnWriteToFile(storage);
    EXPECT_EQ(K9eReplStorageSetOnFlushCallback(storage.Handle(), nullptr, nullptr), RC_OK);
    EXPECT_EQ(K9eReplStorageSetOnWriteToFileCallback(storage.Handle(), nullptr, nullptr), RC_OK);
    storage.InsertCommitted({"one"});
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    EXPECT_EQ(flushed.Calls(), Revs());
    EXPECT_EQ(written.Calls(), Revs());
}

// --- Time keeping ------------------------------------------------------------------------------

TEST(FlushTimes, AreReportedWhenTheStorageCloses) {
    const ScopedSystemCalls systemCalls;
    SetPerformanceFrequency(1000000);
    SetPerformanceCounter(500);
    Notified flushed;
    TestStorage storage(kFlushNever);
    flushed.Does([](i64) { AdvancePerformanceCounter(7); });
    flushed.SetAsOnFlush(storage);
    storage.InsertCommitted({"one"});
    const LogCapture log({"***TP***"});
    storage.Close();
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO,
                        "Flush: 7.00 mcs  OnFlushCb: 7.00 mcs  ForcedFlush: 0.00 mcs  "
                        "FlushOnIdle: 0.00 mcs  WriteData1: 0.00 mcs  WriteData2: 0.00 mcs  "))
        << log;
}

}  // namespace k9erepl::test
