// Flushing: when it happens, what it writes, what it reports, and that with commit_barrier no
// commit block is ever written while what it commits may not be on the disk.
#include <gtest/gtest.h>

#include <mutex>
#include <set>

#include "engine/flush_fixture.h"
#include "format/storage_file_format.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {

// --- When --------------------------------------------------------------------------------------

TEST(PerTrans, CollectsTransactionsUpToItsThreshold) {
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=3;flush_timeout=2147483647;");
    storage.InsertMany(2);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    storage.InsertMany(1);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "r3", "c3"}));
    storage.InsertMany(2);
    EXPECT_EQ(FileItems(storage).size(), 5U);
    storage.Reopen(kFlushAlways);
    storage.InsertCommitted({"six", "seven"});
    EXPECT_EQ(FileItems(storage),
              Strings({"c0", "r1", "r2", "r3", "c3", "r4", "r5", "c5", "r6", "r7", "c7"}));
}

TEST(PerTrans, WithoutACommitNothingIsFlushedByTimeAlone) {
    const ScopedSystemCalls systemCalls;
    SetTickCount(1000);
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=1000;");
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

TEST(PerData, FlushesWhenTheTimeHasPassedAtTheNextCommitOrIdleCall) {
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
    storage.InsertCommitted({"four"});
    AdvanceTickCount(500);
    EXPECT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "r3", "c3", "r4", "c4"}));
}

TEST(Flush, OfNothingNewWritesNothingAndResetsCounterAndTime) {
    const ScopedSystemCalls systemCalls;
    SetTickCount(1000);
    Notified flushed;
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=2;flush_timeout=500;");
    flushed.SetAsOnFlush(storage);
    storage.InsertCommitted({});
    AdvanceTickCount(500);
    const u32 writes = CallCount(SystemCall::kWrite);
    ASSERT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kWrite), writes);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    EXPECT_EQ(flushed.Calls(), Revs());

    storage.InsertCommitted({"one"});  // the counter begins at 1 again, the time at 0
    AdvanceTickCount(499);
    ASSERT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
}

// --- What --------------------------------------------------------------------------------------

TEST(Flush, WritesTheCommitBlockTogetherWithTheLastRun) {
    SKIP_WHEN_ASYNC("the number of system writes");
    const ScopedSystemCalls systemCalls;
    TestStorage storage(With(kFlushAlways, "block_size=138;"));
    u32 writes = CallCount(SystemCall::kWrite);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(CallCount(SystemCall::kWrite), ++writes);
    storage.InsertCommitted({BlockFull("three")});
    EXPECT_EQ(CallCount(SystemCall::kWrite), ++writes);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "c2", "r3", "c3"}));
}

TEST(Flush, WhileATransactionIsOpenWritesNothingOfItAndACommitBlockOfItsOwn) {
    const ScopedSystemCalls systemCalls;
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one", "two"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("three"), RC_OK);
    const u32 writes = CallCount(SystemCall::kWrite);
    ASSERT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
    EXPECT_TRUE(CallCount(SystemCall::kWrite) == writes + 2 || RunsAsynchronously());
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "c2"}));
    ASSERT_EQ(storage.Commit(), RC_OK);
    ASSERT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "c2", "r3", "c3"}));
}

TEST(Flush, WritesOneRunForEachBlockAndFillsInWhereItBegins) {
    SKIP_WHEN_ASYNC("offsets are known when the flush returns");
    TestStorage storage(With(kFlushAlways, "block_size=138;"));
    const LogCapture log({"k9eRepl-storage"});
    storage.InsertCommitted({BlockFull("one"), BlockFull("two"), "three"});
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "r3", "c3"}));
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Flushed block;rev 1,last rev 1,offset 1056")) << log;
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Flushed block;rev 2,last rev 2,offset 1194")) << log;
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Flushed block;rev 3,last rev 3,offset 1332")) << log;
    storage.InsertCommitted({"four"});
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Index().at(2).fileOffset, 1194);
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Index().at(3).fileOffset, 1332);
}

TEST(Flush, PassesOverAnEmptyBlock) {
    TestStorage storage(With(kFlushAlways, "block_size=138;"));
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    ASSERT_EQ(storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    ASSERT_EQ(storage.Insert("three"), RC_OK);
    ASSERT_EQ(storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r3", "c3"}));
    EXPECT_EQ(storage.NextRev(), 5);
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{3, 0, "three"}}));
}

TEST(Flush, LetsTheCacheShrinkToItsLimitOfWhatIsFlushed) {
    for (const auto& [settings, blocks] : {std::pair{With(kFlushAlways, "cache_type=Last2;"), 2U},
                                           {With(kFlushAlways, "cache_type=AllInMem;"), 5U},
                                           {With(kFlushNever, "cache_type=Last1;"), 5U}}) {
        TestStorage storage(With(settings, "block_size=138;"));
        for (int i = 0; i < 5; ++i) {
            storage.InsertCommitted({BlockFull("full")});
        }
        storage.Settle();
        EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Blocks().size(), blocks);
        EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Index().size(), 5U);
        EXPECT_EQ(storage.Records().size(), 5U);
    }
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

// --- Callbacks and times -----------------------------------------------------------------------

TEST(FlushCallbacks, AreCalledOnceForEachFlushWithItsLastRevisionUntilTheyAreUnset) {
    std::string order;
    Notified flushed([&](i64) { order += "F"; });
    Notified written([&](i64) {
        if (!RunsAsynchronously()) {  // else on another thread, at any time
            order += "W";
        }
    });
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=2;flush_timeout=2147483647;");
    flushed.SetAsOnFlush(storage);
    written.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(flushed.Calls(), Revs());
    storage.InsertCommitted({"three"});
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    EXPECT_EQ(order, RunsAsynchronously() ? "F" : "WF");
    EXPECT_EQ(K9eReplStorageSetOnFlushCallback(storage.Handle(), nullptr, nullptr), RC_OK);
    EXPECT_EQ(K9eReplStorageSetOnWriteToFileCallback(storage.Handle(), nullptr, nullptr), RC_OK);
    storage.InsertMany(2);
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    EXPECT_EQ(flushed.Calls(), Revs({3}));
    EXPECT_EQ(written.Calls(), Revs({3}));
}

namespace {

// A storage whose OnFlush takes 50 microseconds and does what a test says, in its first call only.
class FlushTimes : public ::testing::Test {
  protected:
    // The times that the storage reports when it closes behind a commit of three records.
    void ExpectReport(const std::string& report, std::function<void()> action) {
        m_flushed.Does([action = std::move(action)](i64) mutable {
            AdvancePerformanceCounter(50);
            if (const auto once = std::exchange(action, nullptr)) {
                once();
            }
        });
        m_flushed.SetAsOnFlush(m_storage);
        m_storage.InsertCommitted({"one", "two", "three"});
        EXPECT_EQ(m_log.CountContaining("has already started"), 0U) << m_log;
        m_log.Clear();
        m_storage.Close();
        EXPECT_EQ(m_log.CountContaining(report), 1U) << m_log;
    }

    const ScopedSystemCalls m_systemCalls;
    const bool m_counterStands =
        (SetPerformanceFrequency(1'000'000), SetPerformanceCounter(1000), true);
    LogCapture m_log{{"***TP***"}};
    Notified m_flushed;
    TestStorage m_storage{kFlushAlways};
};

}  // namespace

TEST_F(FlushTimes, AreReportedWhenTheStorageCloses) {
    ExpectReport(
        "Flush: 50.00 mcs (2 x 25.00 mcs)  OnFlushCb: 50.00 mcs  ForcedFlush: 0.00 mcs  "
        "FlushOnIdle: 0.00 mcs  WriteData1: 0.00 mcs  WriteData2: 0.00 mcs  ",
        nullptr);
}

TEST_F(FlushTimes, OfAClearInOnFlushAreThoseOfTheOuterFlush) {
    ExpectReport("Flush: 50.00 mcs (2 x 25.00 mcs)  OnFlushCb: 50.00 mcs  ",
                 [this] { EXPECT_EQ(m_storage.Clear(2, K9EREPL_CLEAR_LOGICAL), RC_OK); });
}

TEST_F(FlushTimes, OfRecordsThatAClearInOnFlushWritesAreNotCountedTwice) {
    ExpectReport("Flush: 100.00 mcs (2 x 50.00 mcs)  OnFlushCb: 100.00 mcs  ", [this] {
        ASSERT_EQ(m_storage.Insert("four"), RC_OK);
        EXPECT_EQ(m_storage.Clear(2, K9EREPL_CLEAR_LOGICAL), RC_OK);
    });
}

TEST_F(FlushTimes, EndWithATruncationInOnFlush) {
    ExpectReport("Flush: 0.00 mcs  OnFlushCb: 0.00 mcs  ", [this] {
        EXPECT_EQ(m_storage.Truncate(), RC_OK);
        m_storage.InsertCommitted({"one", "two"});
        EXPECT_EQ(m_storage.Clear(2, K9EREPL_CLEAR_LOGICAL), RC_OK);
    });
}

// --- The commit barrier -------------------------------------------------------------------------

namespace {

constexpr std::string_view kForcedEach =
    "flush_mode=PerTrans;flush_trans_num=1;flush_timeout=2147483647;read_buffers_count=1;"
    "block_size=138;cache_type=Last3;force_flush=yes;file_size_delta=1;";

// Which files have bytes that no flush has covered, and how many commit blocks were written while
// their file had some.
struct Watch {
    platform::SystemCalls next;
    std::set<platform::NativeFile> unforced;
    std::set<platform::NativeFile> copies;  // of a squeeze: nobody loads them before their flush
    u32 commitBlocks = 0;
    u32 unsafe = 0;
} g_watch;
std::mutex g_watchGuard;  // the index thread writes its own file meanwhile

bool EndsWithCommitBlock(const void* data, u32 size) {
    return size >= kCommitBlockSize && LoadUnaligned<u32>(static_cast<const u8*>(data) + size -
                                                          kCommitBlockSize) == kCommitSignature;
}

platform::NativeFile WatchOpen(const char* path, const platform::FileOpenRequest& request) {
    const platform::NativeFile file = g_watch.next.openFile(path, request);
    const std::lock_guard guard(g_watchGuard);
    if (std::string_view(path).ends_with(".temporary")) {
        g_watch.copies.insert(file);
    } else {
        g_watch.copies.erase(file);
    }
    return file;
}

i64 WatchWrite(platform::NativeFile file, const void* data, u32 size) {
    {
        const std::lock_guard guard(g_watchGuard);
        if (EndsWithCommitBlock(data, size) && !g_watch.copies.contains(file)) {
            ++g_watch.commitBlocks;
            g_watch.unsafe += size > kCommitBlockSize || g_watch.unforced.contains(file) ? 1 : 0;
        }
        g_watch.unforced.insert(file);
    }
    return g_watch.next.writeFile(file, data, size);
}

bool WatchFlush(platform::NativeFile file) {
    {
        const std::lock_guard guard(g_watchGuard);
        g_watch.unforced.erase(file);
    }
    return g_watch.next.flushFile(file);
}

class BarrierOfAStorage : public ::testing::Test {
  protected:
    // Everything that writes commit blocks: flushes of one block, of several, and of a part of one;
    // a flush that failed; clears in every mode; a reopening.
    static std::vector<u8> Live(std::string_view more) {
        SetTimeStampCounter(1000, 1);
        TestStorage storage(With(kForcedEach, more));
        storage.InsertMany(5);
        EXPECT_EQ(storage.Begin(), RC_OK);
        for (const char* text : {"six", "seven", "eight"}) {
            EXPECT_EQ(storage.Insert(BlockFull(text)), RC_OK);
        }
        EXPECT_EQ(storage.Commit(), RC_OK);
        EXPECT_EQ(storage.Clear(3, 0), RC_OK);
        storage.InsertMany(2);
        EXPECT_EQ(storage.Clear(4, 1), RC_OK);
        storage.InsertMany(2);
        EXPECT_EQ(storage.Clear(6, 2), RC_OK);
        storage.Reopen();
        EXPECT_EQ(storage.Clear(7, 0), RC_OK);
        storage.InsertMany(2);
        EXPECT_EQ(storage.ClearAll(0), RC_OK);
        storage.InsertMany(3);
        return FileBytes(storage);
    }

    void StartWatching() {
        g_watch = Watch{.next = platform::NativeSystemCalls(), .unforced = {}, .copies = {}};
        platform::TheSystemCalls().openFile = WatchOpen;
        platform::TheSystemCalls().writeFile = WatchWrite;
        platform::TheSystemCalls().flushFile = WatchFlush;
    }

    const ScopedSystemCalls m_systemCalls;
};

TEST_F(BarrierOfAStorage, NoCommitBlockIsWrittenBeforeWhatItCommitsIsOnTheDisk) {
    SKIP_WHEN_ASYNC("the asynchronous writer forces only when it stops");
    StartWatching();
    Live("commit_barrier=yes;");
    EXPECT_EQ(g_watch.unsafe, 0U);
    EXPECT_GT(g_watch.commitBlocks, 15U);
    StartWatching();
    Live("");
    EXPECT_GT(g_watch.unsafe, 10U) << "the test sees what it is about";
}

TEST_F(BarrierOfAStorage, TheFileIsTheSameAsWithoutIt) {
    const std::vector<u8> with = Live("commit_barrier=yes;");
    EXPECT_EQ(with, Live("commit_barrier=no;"));
    EXPECT_EQ(with, Live(""));
}

TEST_F(BarrierOfAStorage, NothingIsReportedWhenItsFlushFails) {
    SKIP_WHEN_ASYNC("the asynchronous writer forces only when it stops");
    Notified flushed;
    Notified written;
    TestStorage storage(With(kForcedEach, "commit_barrier=yes;"));
    storage.InsertCommitted({"one"});
    flushed.SetAsOnFlush(storage);
    written.SetAsOnWriteToFile(storage);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    FailFlush(1);
    EXPECT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(flushed.Calls(), Revs());
    EXPECT_EQ(written.Calls(), Revs());
    EXPECT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    EXPECT_EQ(flushed.Calls(), Revs({2}));
    EXPECT_EQ(written.Calls(), Revs({2}));
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1", "r2", "c2"}));
}

}  // namespace

}  // namespace k9erepl::test
