// A squeeze: the file is replaced by what is kept of it, the offsets of the kept blocks move, a
// pending logical clear leaves the file, and the index is emptied before and saved after.
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

// The parameter is the mode.
class Squeeze : public ::testing::TestWithParam<u32> {
  protected:
    static bool KeepsBackup() { return GetParam() == kSqueezeBackup; }
};

INSTANTIATE_TEST_SUITE_P(Mode, Squeeze, ::testing::Values(kSqueeze, kSqueezeBackup));

}  // namespace

TEST_P(Squeeze, LeavesTheKeptItemsAndMovesTheOffsets) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    const LogCapture log;
    storage.ClearTo(4, GetParam());
    EXPECT_EQ(FileItems(storage), Strings({"c4", "r4", "c4", "r5", "c5", "c5"}));
    EXPECT_EQ(ClearRevs(storage), Revs({0, 0, 0, 4}));
    EXPECT_EQ(EntriesInMemory(storage), IndexEntries({{4, 1056}, {5, 1056 + 64 + 32}}));
    EXPECT_FALSE(StorageAccess::BeginMoved(storage.Object()));
    EXPECT_EQ(log.CountContaining("Squeeze enum; minRev: 4, newFirstRecOffset: 1344"), 1U) << log;
    EXPECT_EQ(log.CountContaining("File squeeze finished; it took "), 1U) << log;
    EXPECT_FALSE(Exists(TemporaryPath(storage)));
    storage.ExpectContentForLife();
}

TEST_P(Squeeze, KeepsTheOldFileOnlyInModeTwo) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    const std::vector<u8> before = FileBytes(storage);
    storage.ClearTo(4, GetParam());
    EXPECT_EQ(Exists(BackupPath(storage)), KeepsBackup());
    if (KeepsBackup()) {
        EXPECT_EQ(ReadBytes(BackupPath(storage)), before);
        TestStorage backup("file=" + BackupPath(storage) + ";" + KeepInMemory().settings,
                           Start::kNothing);
        ASSERT_EQ(backup.TryOpenAndLoad(), RC_OK);
        EXPECT_EQ(RevsOf(backup.Records()), RevRange(1, 5));
    }
}

TEST_P(Squeeze, MovesTheOffsetsOfBlocksThatAreOnlyInTheFile) {
    ClearableStorage storage(KeepOnDisk());
    storage.Put(9);
    storage.ClearTo(4, GetParam());
    EXPECT_EQ(EntriesInMemory(storage), IndexEntries({{4, 1056}, {5, 1152}, {7, 1344}, {9, 1536}}));
    ExpectEveryRange(storage, storage.Content(), 9);
    storage.ExpectContentForLife();
}

TEST_P(Squeeze, FlushesFirstAndKeepsTheLifeNumberAndTheRevisionMark) {
    Notified flushed;
    ClearableStorage storage(AllKeepings()[3]);
    flushed.SetAsOnFlush(storage);
    storage.Put(5);
    ASSERT_EQ(K9eReplStorageSetLifenum(storage.Handle(), 7), RC_OK);
    ASSERT_EQ(storage.Clear(3, kMark), RC_OK);
    storage.ClearTo(2, GetParam());
    EXPECT_EQ(flushed.Calls(), Revs({5}));
    EXPECT_EQ(FileItems(storage), Strings({"c2", "r2", "r3", "r4", "r5", "c5", "c5"}));
    storage.ExpectContentForLife();
    EXPECT_EQ(storage.Lifenum(), 7U);
    EXPECT_EQ(storage.RevisionMark(), 3);
}

TEST_P(Squeeze, OfAGapEntersTheNextRecordUnderTheClearRevision) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(2);
    storage.PutAt(10);
    storage.Put(2);
    storage.ClearTo(7, GetParam());
    EXPECT_EQ(EntriesInMemory(storage), IndexEntries({{10, 1056}, {12, 1056 + 2 * 96}}));
    EXPECT_EQ(storage.FirstRev(), 7);
    storage.ExpectContentForLife();
}

TEST_P(Squeeze, LeavesTheOffsetOfAnEmptyBlockUnknown) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(3);
    storage.UseUpLeavingABlock();
    storage.ClearTo(3, GetParam());
    EXPECT_EQ(EntriesInMemory(storage), IndexEntries({{3, 1056}, {4, kUnknownOffset}}));
    storage.Put();
    EXPECT_EQ(EntriesInMemory(storage).back().second, 1056 + 64 + 32 + 32);
    storage.ExpectContentForLife();
}

// --- A pending logical clear -------------------------------------------------------------------

TEST_P(Squeeze, TakesWhatWasClearedLogicallyOutOfTheFile) {
    for (const i64 rev : {-1, 0, 1, 3, 4}) {
        ClearableStorage storage(KeepInMemory());
        storage.Put(5);
        storage.ClearTo(4, kLogical);
        storage.ClearTo(rev, GetParam());
        EXPECT_EQ(FileItems(storage), Strings({"c4", "r4", "c4", "r5", "c5", "c5", "c5"}));
        EXPECT_EQ(Exists(BackupPath(storage)), KeepsBackup());
        EXPECT_FALSE(StorageAccess::BeginMoved(storage.Object()));
        EXPECT_EQ(storage.FirstRev(), 4);
        storage.ExpectContentForLife();
    }
}

TEST_P(Squeeze, TakesMoreThanThatWhenAskedToAndHappensOnce) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    storage.ClearTo(2, kLogical);
    storage.ClearTo(5, GetParam());
    EXPECT_EQ(FileItems(storage), Strings({"c5", "r5", "c5", "c5", "c5"}));
    const std::vector<u8> squeezed = FileBytes(storage);
    const LogCapture log;
    storage.ClearTo(4, GetParam());
    EXPECT_TRUE(log.Messages().empty()) << log;
    EXPECT_EQ(FileBytes(storage), squeezed);
    storage.ExpectContentForLife();
}

TEST_P(Squeeze, OfAPendingClearWithoutAnyRecordLeftStartsTheFileOver) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(3);
    storage.ClearTo(2, kLogical);
    storage.UseUp();
    storage.ClearTo(4, GetParam());
    EXPECT_EQ(FileItems(storage), Strings({"c4"}));
    EXPECT_FALSE(StorageAccess::BeginMoved(storage.Object()));
    storage.ExpectContentForLife();
}

// --- The index ---------------------------------------------------------------------------------

TEST_P(Squeeze, SavesTheWholeIndexBeforeItReturns) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(7);
    const LogCapture log({"k9eRepl-storage-idx"});
    storage.ClearTo(4, GetParam());
    EXPECT_FALSE(StorageAccess::Index(storage.Object())->IsBusy());
    EXPECT_EQ(log.Texts(),
              std::vector<std::string>({"File rewritten (32 bytes)", "Sync idx save requested",
                                        "File rewritten (80 bytes)"}));
    EXPECT_EQ(ReadIndexEntries(storage), EntriesInMemory(storage));
    EXPECT_EQ(FileSize(IndexPath(storage)), 80);
}

// Its offsets belong to the old file: a crash between the renames must not leave it.
TEST_P(Squeeze, EmptiesTheIndexFileBeforeTheRename) {
    const ScopedSystemCalls systemCalls;
    ClearableStorage storage(KeepInMemory());
    storage.Put(7);
    storage.Reopen();
    ASSERT_EQ(ReadIndexEntries(storage).size(), 4U);
    FailRename(1);
    const LogCapture log;
    EXPECT_EQ(storage.Clear(4, GetParam()), RC_SYSTEM_ERROR);
    EXPECT_EQ(log.CodeOf("Failed to squeeze solid storage;rev 4"), RC_SYSTEM_ERROR) << log;
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    EXPECT_EQ(ReadBytes(IndexPath(storage)), IndexBytes({}));
    storage.Reopen();
    // What was to become the backup is as it was before the clear.
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(KeepsBackup() ? 1 : 4, 7));
}

TEST_P(Squeeze, IsGivenUpWhenTheIndexFileCannotBeEmptied) {
    const ScopedSystemCalls systemCalls;
    ClearableStorage storage(KeepInMemory());
    storage.Put(7);
    ASSERT_EQ(storage.WaitForWriter(), RC_OK);
    // The commit block, then header and records of the copy, then the index file.
    FailWrite(4);
    const LogCapture log;
    EXPECT_EQ(storage.Clear(4, GetParam()), RC_SYSTEM_ERROR);
    EXPECT_EQ(log.CodeOf("Failed to empty index file '" + IndexPath(storage) + "'"),
              RC_SYSTEM_ERROR)
        << log;
    EXPECT_EQ(log.CodeOf("Failed to squeeze solid storage;rev 4"), RC_SYSTEM_ERROR);
    EXPECT_FALSE(Exists(TemporaryPath(storage)));
    EXPECT_FALSE(Exists(BackupPath(storage)));
    storage.Reopen();
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(4, 7));
}

TEST_P(Squeeze, WaitsForASaveOfTheIndexThreadAndRestartsOneThatHasFinished) {
    const ScopedSystemCalls systemCalls;
    WriteGate gate(WriteGate::File::kIndex);
    ClearableStorage storage(KeepInMemory());
    storage.Put(7);
    gate.Shut();
    storage.ClearTo(2, kLogical);
    std::thread opener([&] { gate.Open(); });
    storage.ClearTo(4, GetParam());
    opener.join();
    EXPECT_EQ(ReadIndexEntries(storage), EntriesInMemory(storage));
    StorageAccess::Index(storage.Object())->Stop();
    const LogCapture log;
    storage.ClearTo(5, GetParam());
    EXPECT_EQ(log.Count("Index thread is finished; trying to restart"), 1U) << log;
    EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, "Index thread is finished; trying to restart"));
    EXPECT_FALSE(StorageAccess::Index(storage.Object())->IsFinished());
    EXPECT_EQ(ReadIndexEntries(storage), EntriesInMemory(storage));
    storage.ExpectContentForLife();
}

// --- What stands in the way --------------------------------------------------------------------

TEST_P(Squeeze, OnAFullDiskLeavesTheOldFileWholeAndOpen) {
    const ScopedSystemCalls systemCalls;
    ClearableStorage storage(KeepInMemory());
    storage.Put(7);
    const std::vector<u8> before = FileBytes(storage);
    ShortWrite(3, 100);  // of the records; the commit block and the new header had room
    FailWrite(4, SystemErrorKind::kNoSpace, Repeat::kFromThenOn);
    const LogCapture log;
    EXPECT_EQ(storage.Clear(4, GetParam()), RC_SYSTEM_ERROR);
    EXPECT_EQ(log.CodeOf("Failed to squeeze solid storage;rev 4"), RC_SYSTEM_ERROR) << log;
    StopFailing(SystemCall::kWrite);
    EXPECT_TRUE(storage.Object().SolidStorage().IsOpen());
    EXPECT_FALSE(Exists(TemporaryPath(storage)));
    EXPECT_FALSE(Exists(BackupPath(storage)));
    const auto written = static_cast<std::size_t>(1056 + 7 * 96);
    std::vector<u8> after = FileBytes(storage);
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + written, after.begin()));
    storage.Reopen();
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(4, 7));
    EXPECT_EQ(storage.Clear(5, GetParam()), RC_OK);
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(5, 7));
}

}  // namespace k9erepl::test
