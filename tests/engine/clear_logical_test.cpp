// A logical clear: one commit block in the file, the first kept block cut and entered anew, the
// index saved by the thread. And clears of every kind that fail: code, state and message of each
// step, and that after reopening everything is there as it was before.
#include <gtest/gtest.h>

#include <algorithm>

#include "engine/clear_fixture.h"
#include "engine/write_gate.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Two records of 64 bytes and two commit blocks a block.
constexpr i64 kRecord = 64;
constexpr i64 kCommit = 32;
constexpr i64 OffsetOf(i64 rev) {
    return kFirstItemOffset + (rev - 1) * (kRecord + kCommit);
}

K9eReplBlock& BlockAt(TestStorage& storage, i64 key) {
    return *StorageAccess::Blocks(storage.Object()).Blocks().at(key);
}

}  // namespace

TEST(LogicalClear, AppendsOneCommitBlockAndLeavesTheRecordsInTheFile) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    const std::vector<u8> before = FileBytes(storage);
    const LogCapture log;
    storage.ClearTo(4, kLogical);
    EXPECT_EQ(FileItems(storage),
              Strings({"c0", "r1", "c1", "r2", "c2", "r3", "c3", "r4", "c4", "r5", "c5", "c5"}));
    EXPECT_EQ(ClearRevs(storage), Revs({0, 0, 0, 0, 0, 0, 4}));
    std::vector<u8> after = FileBytes(storage);
    const auto written = static_cast<std::size_t>(OffsetOf(6));
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + OffsetOf(6), after.begin()));
    EXPECT_EQ(after.size(), std::max<std::size_t>(before.size(), written + kCommit));
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Set clear rev 4")) << log;
}

TEST(LogicalClear, CutsTheFirstKeptBlockAndEntersItUnderTheClearRevision) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    const LogCapture log;
    storage.ClearTo(4, kLogical);
    EXPECT_EQ(EntriesInMemory(storage), IndexEntries({{4, OffsetOf(4)}, {5, OffsetOf(5)}}));
    EXPECT_EQ(BlockAt(storage, 4).used, 64U);
    EXPECT_EQ(BlockAt(storage, 4).flushedEnd, 64U);
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Blocks().size(), 2U);
    EXPECT_EQ(storage.FirstRev(), 4);
    EXPECT_TRUE(StorageAccess::BeginMoved(storage.Object()));
    const std::string text =
        "Squeeze enum; minRev: 4, newFirstRecOffset: " + std::to_string(OffsetOf(4)) +
        ", commitOffset: -1, recSz: 64";
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, text)) << log;
}

TEST(LogicalClear, LeavesABlockThatBeginsWithTheClearRevisionWhole) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    storage.ClearTo(3, kLogical);
    EXPECT_EQ(EntriesInMemory(storage), IndexEntries({{3, OffsetOf(3)}, {5, OffsetOf(5)}}));
    EXPECT_EQ(BlockAt(storage, 3).used, 128U);
}

TEST(LogicalClear, SaysWhenABlockIsOnlyInTheFile) {
    ClearableStorage storage(KeepOnDisk());
    storage.Put(6);
    storage.Settle();
    const LogCapture log;
    storage.ClearTo(2, kLogical);
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Cannot find memblock with rev 1")) << log;
    EXPECT_EQ(EntriesInMemory(storage),
              IndexEntries({{2, OffsetOf(2)}, {3, OffsetOf(3)}, {5, OffsetOf(5)}}));
    storage.ClearTo(6, kLogical);
    EXPECT_EQ(log.CountContaining("Cannot find memblock"), 1U) << log;
    EXPECT_EQ(BlockAt(storage, 6).used, 64U);
    storage.ExpectContentForLife();
}

// The next record still finds room behind what was moved to the front.
TEST(LogicalClear, MakesRoomInTheBlockThatIsBeingFilled) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(2);
    storage.ClearTo(2, kLogical);
    storage.Put();
    EXPECT_EQ(BlockAt(storage, 2).used, 128U);
    EXPECT_EQ(BlockAt(storage, 2).flushedEnd, 128U);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1", "r2", "c2", "c2", "r3", "c3"}));
    storage.ExpectContentForLife();
}

TEST(LogicalClear, FlushesFirstAndTellsTheClient) {
    Notified flushed;
    ClearableStorage storage(AllKeepings()[3]);
    flushed.SetAsOnFlush(storage);
    storage.Put(3);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    storage.ClearTo(2, kLogical);
    EXPECT_EQ(flushed.Calls(), Revs({3}));
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "r3", "c3", "c3"}));
    EXPECT_EQ(ClearRevs(storage), Revs({0, 0, 2}));
    EXPECT_EQ(StorageAccess::Policy(storage.Object()).Now().transactions, 0U);
    storage.ExpectContentForLife();
}

TEST(LogicalClear, WhereNoRecordLiesBeginsWithTheNextOne) {
    struct Gap {
        std::string_view made;  // p: a record, @: record 10, x: a block without records
        i64 rev;
        IndexEntries entries;
        i64 key;  // of the first block
        u64 used;
    };
    const Gap gaps[] = {{"pp@pp", 7, {{10, OffsetOf(3)}, {12, OffsetOf(5)}}, 7, 128},
                        {"p@pp", 5, {{10, OffsetOf(2)}, {11, OffsetOf(3)}}, 5, 64},
                        {"@pp", 5, {{10, OffsetOf(1)}, {12, OffsetOf(3)}}, 10, 128},
                        {"ppxpp", 3, {{4, OffsetOf(3)}}, 3, 128}};
    for (const Gap& gap : gaps) {
        SCOPED_TRACE(gap.made);
        ClearableStorage storage(KeepInMemory());
        for (const char step : gap.made) {
            step == 'p'   ? storage.Put()
            : step == '@' ? storage.PutAt(10)
                          : storage.UseUpLeavingABlock();
        }
        storage.ClearTo(gap.rev, kLogical);
        EXPECT_EQ(EntriesInMemory(storage), gap.entries);
        EXPECT_EQ(BlockAt(storage, gap.key).used, gap.used);
        EXPECT_EQ(storage.FirstRev(), gap.key);
        storage.ExpectContentForLife();
    }
}

TEST(LogicalClear, RightBeforeAnEmptyLastBlockLeavesThatToTheNextRecord) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(3);
    storage.UseUpLeavingABlock();
    storage.ClearTo(3, kLogical);
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Index().size(), 2U);
    storage.Put();
    EXPECT_EQ(BlockAt(storage, 4).used, 64U);
    storage.ExpectContentForLife();
}

// --- The index save ----------------------------------------------------------------------------

TEST(LogicalClear, LetsTheThreadSaveTheWholeIndex) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(7);
    const LogCapture log({"k9eRepl-storage-idx"});
    storage.ClearTo(4, kLogical);
    WaitUntilIdle(storage);
    EXPECT_EQ(log.Count("Async idx save requested"), 1U) << log;
    EXPECT_EQ(log.Count("File rewritten (80 bytes)"), 1U) << log;
    EXPECT_EQ(ReadIndexEntries(storage), EntriesInMemory(storage));
}

TEST(LogicalClear, SkipsTheSaveWhenTheThreadIsBusy) {
    const ScopedSystemCalls systemCalls;
    WriteGate gate(WriteGate::File::kIndex);
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    gate.Shut();
    storage.ClearTo(2, kLogical);
    const LogCapture log;
    storage.ClearTo(4, kLogical);
    EXPECT_TRUE(log.Has(K9SYS_LOG_WARNING, "Index thread is busy")) << log;
    EXPECT_EQ(log.CountContaining("idx save requested"), 0U) << log;
    storage.ExpectContent();
    gate.Open();
    WaitUntilIdle(storage);
    storage.ExpectContentForLife();
}

// Until a clear saves it anew the index lists blocks that are cleared, but still in the file.
TEST(LogicalClear, AfterASkippedSaveTheIndexLeadsToTheSameContent) {
    const ScopedSystemCalls systemCalls;
    WriteGate gate(WriteGate::File::kIndex);
    ClearableStorage storage(KeepInMemory(), "index_hint=2;");
    storage.Put(5);
    WaitUntilIdle(storage);
    gate.Shut();
    storage.ClearTo(2, kLogical);
    storage.ClearTo(5, kLogical);
    gate.Open();
    WaitUntilIdle(storage);
    storage.Put(4);
    WaitUntilIdle(storage);
    if (!RunsAsynchronously()) {  // or else the last block may come too late for the last save
        EXPECT_EQ(ReadIndexEntries(storage).back(), EntriesInMemory(storage).back());
    }
    storage.ExpectContentForLife();
}

TEST(LogicalClear, RestartsAnIndexThreadThatHasFinishedAndSucceedsWithout) {
    const ScopedSystemCalls systemCalls;
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    StorageAccess::Index(storage.Object())->Stop();
    FailCreateThread(1);
    storage.ClearTo(3, kLogical);
    EXPECT_TRUE(StorageAccess::Index(storage.Object())->IsFinished());
    const LogCapture log;
    storage.ClearTo(4, kLogical);
    EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, "Index thread is finished; trying to restart")) << log;
    EXPECT_EQ(log.Count("Index thread is finished; trying to restart"), 1U);
    EXPECT_FALSE(StorageAccess::Index(storage.Object())->IsFinished());
    WaitUntilIdle(storage);
    EXPECT_EQ(ReadIndexEntries(storage), EntriesInMemory(storage));
    storage.ExpectContentForLife();
}

// --- Failures -----------------------------------------------------------------------------------

// The search and the squeeze say so themselves, and a clear of everything names its step.
TEST(LogicalClear, WhoseCommitBlockCannotBeWrittenSaysSoAndBreaksTheStorage) {
    const ScopedSystemCalls systemCalls;
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    ASSERT_EQ(storage.WaitForWriter(), RC_OK);
    FailWrite(1);
    const LogCapture log;
    EXPECT_EQ(storage.Clear(3, kLogical), RC_SYSTEM_ERROR);
    if (!RunsAsynchronously()) {
        EXPECT_EQ(log.CodeOf("Failed to set clear rev to solid storage;rev 3"), RC_SYSTEM_ERROR)
            << log;
    }
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    storage.Reopen();
    storage.ExpectContentForLife();
}

TEST(FlushBeforeAClear, ThatFailsLeavesTheStorageWithAFailedFlush) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    for (const u32 mode : {kLogical, kSqueeze, kSqueezeBackup}) {
        ClearableStorage storage(AllKeepings()[3]);
        storage.Put(5);
        FailWrite(1);
        const LogCapture log;
        EXPECT_EQ(storage.Clear(3, mode), RC_SYSTEM_ERROR);
        const char* const text = "Cannot flush data before clear old revs;clear rev 3";
        EXPECT_EQ(log.CodeOf(text), RC_SYSTEM_ERROR) << log;
        EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, text));
        EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
        EXPECT_EQ(storage.Clear(3, mode), RC_WRONG_STATE);
        EXPECT_EQ(storage.Rollback(), RC_NO_TRANSACTION_TO_ROLLBACK);
        storage.ClearTo(3, mode);
        storage.ExpectContentForLife();
    }
}

TEST(SearchOfAClear, ThatFailsSaysSoAndBreaksTheStorage) {
    const ScopedSystemCalls systemCalls;
    for (const u32 mode : {kLogical, kSqueeze}) {
        ClearableStorage storage(KeepOnDisk());
        storage.Put(9);
        storage.Settle();
        FailRead(1);
        const LogCapture log;
        EXPECT_EQ(storage.Clear(4, mode), RC_SYSTEM_ERROR);
        EXPECT_EQ(log.CodeOf("Enum from disk failed"), RC_SYSTEM_ERROR) << log;
        EXPECT_EQ(log.CountContaining("Squeeze enum"), 0U);
        EXPECT_EQ(storage.State(), StorageState::kBroken);
        storage.Reopen();
        storage.ExpectContentForLife();
    }
}

TEST(SearchOfAClear, ThatMeetsDamagedBytesBreaksTheStorage) {
    for (const u32 mode : {kLogical, kSqueeze}) {
        ClearableStorage storage(KeepOnDisk());
        storage.Put(9);
        storage.Settle();
        const u8 noSignature[] = {1, 2, 3, 4};
        PatchBytes(storage.Path(), kFirstItemOffset, noSignature);
        const LogCapture log;
        EXPECT_EQ(storage.Clear(2, mode), RC_BAD_DATA);
        EXPECT_EQ(log.CodeOf("Enum from disk failed"), RC_BAD_DATA) << log;
        EXPECT_EQ(storage.State(), StorageState::kBroken);
    }
}

TEST(SearchOfAClear, ThatKnowsNoOffsetBreaksTheStorage) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    ASSERT_EQ(storage.WaitForWriter(), RC_OK);
    *StorageAccess::Blocks(storage.Object()).FileOffsetOf(3) = kUnknownOffset;
    const LogCapture log;
    EXPECT_EQ(storage.Clear(3, kLogical), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Enum from disk failed"), RC_BAD_DATA) << log;
    EXPECT_EQ(storage.State(), StorageState::kBroken);
}

TEST(ClearOfAClosedFile, BreaksTheStorage) {
    for (const auto& [mode, rev] : {std::pair{kLogical, 3}, {kSqueeze, 3}, {kLogical, 9}}) {
        ClearableStorage storage(KeepInMemory());
        storage.Put(5);
        storage.Object().SolidStorage().Close();
        EXPECT_EQ(storage.Clear(rev, mode), RC_NO_WRITER);
        EXPECT_NE(storage.State(), StorageState::kOpen);
    }
}

TEST(RevisionMark, ThatCannotBeWrittenLeavesTheStateAndTheMark) {
    const ScopedSystemCalls systemCalls;
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    ASSERT_EQ(storage.Clear(2, kMark), RC_OK);
    FailWrite(1);
    const LogCapture log;
    EXPECT_EQ(storage.Clear(3, kMark), RC_SYSTEM_ERROR);
    EXPECT_EQ(log.CodeOf("Failed to set revision mark 3 to solid storage"), RC_SYSTEM_ERROR) << log;
    EXPECT_EQ(storage.RevisionMark(), 2);
    storage.ExpectContentForLife();
    EXPECT_EQ(storage.RevisionMark(), 2);
}

}  // namespace k9erepl::test
