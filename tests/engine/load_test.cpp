// Loading a storage file without an index: what comes into memory, which revision follows, what
// was never committed.
#include <gtest/gtest.h>

#include <limits>

#include "engine/load_fixture.h"
#include "engine/write_gate.h"
#include "platform/file_names.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr i64 kMinI64 = std::numeric_limits<i64>::min();

// A storage whose file a test makes item by item.
class Load : public ::testing::Test {
  protected:
    u32 TryLoad() {
        m_file.Save(m_storage.Path());
        return m_storage.TryOpenAndLoad();
    }
    void MustLoad() { ASSERT_EQ(TryLoad(), RC_OK) << m_log; }
    BlockStore& Blocks() { return StorageAccess::Blocks(m_storage.Object()); }

    TestStorage m_storage{SmallCache(100), Start::kNothing};
    FileBuilder m_file;
    LogCapture m_log;
};

struct FileToLoad {
    const char* name;
    FileBuilder file;
    Revs revs;
    i64 nextRev;
    IndexEntries blocks = {};  // checked unless empty
    std::string message = "";  // besides others
};

FileBuilder New() {
    return FileBuilder().NewFile();
}
FileBuilder Squeezed(i64 clearRev, i64 commitRev) {
    return FileBuilder().Header().Commit(clearRev, commitRev);
}
// Two committed records, behind which a test writes what was not committed.
FileBuilder OneAndTwo() {
    return New().Record(1, "one").Record(2, "two").Commit(0, 2);
}
FileBuilder WithABrokenChain() {
    TCommitBlock stranger = NewCommitBlock(77, 2);
    stranger.prevSequence = 76;
    return New()
        .Record(1, "one")
        .Commit(0, 1)
        .Record(2, "two")
        .RawCommit(stranger)
        .Record(3, "three")
        .Commit(0, 3);
}

const std::vector<FileToLoad>& FilesToLoad() {
    static const std::string kLost = OneBlock("lost");
    static const std::vector<FileToLoad> files = {
        {"whole",
         OneAndTwo().Record(3, "three").Commit(0, 3).Zeros(100),
         {1, 2, 3},
         4,
         {{1, 1056}},
         "Loaded rec;rev 3; size 5"},
        {"ends with its data",
         New().Record(1, "one").Commit(0, 1),
         {1},
         2,
         {},
         "Couldn't read 4 bytes at once"},
        {"empty", New().Zeros(8), {}, 1},
        {"ends with its first commit block", New(), {}, 1},
        {"ends in a word", New().Zeros(3), {}, 1},
        {"ends with a word", New().Zeros(4), {}, 1},
        {"ends behind a word", New().Zeros(7), {}, 1},
        {"commit revision above the records", New().Record(1, "one").Commit(0, 5), {1}, 6},
        {"everything was cleared", Squeezed(9, 9).Zeros(8), {}, 10},
        {"squeezed", Squeezed(0, 5).Record(5, "five").Record(6, "six").Commit(5, 6), {5, 6}, 7},
        {"next revision is cleared", New().Record(1, "one").Commit(0, 1).Commit(8, 3), {}, 8},
        {"-1", Squeezed(-1, -1).Zeros(8), {}, 1},
        {"-1000", Squeezed(-1000, -1000).Zeros(8), {}, 1},
        {"lowest number", Squeezed(kMinI64, kMinI64).Zeros(8), {}, 1},
        {"last revision but one",
         New().Record(kMaxRev - 1, "x").Commit(0, kMaxRev - 1),
         {kMaxRev - 1},
         kMaxRev},
        {"last revision", New().Record(kMaxRev, "x").Commit(0, kMaxRev), {kMaxRev}, kMaxI64},
        {"commit revision at the end", Squeezed(0, kMaxI64).Zeros(8), {}, kMaxI64},
        {"uncommitted",
         OneAndTwo().Record(3, "lost").Record(4, "lost too").Zeros(8),
         {1, 2},
         3,
         {{1, 1056}},
         "Trailing uncommitted data to rev 2"},
        {"uncommitted blocks",
         OneAndTwo().Record(3, "lost").Record(4, kLost).Record(5, kLost),
         {1, 2},
         3,
         {{1, 1056}}},
        {"uncommitted record begins a block",
         New().Record(1, OneBlock("1")).Commit(0, 1).Record(2, kLost),
         {1},
         2,
         {{1, 1056}}},
        {"nothing committed",
         New().Record(1, "lost").Record(2, kLost),
         {},
         1,
         {},
         "Trailing uncommitted data to rev 0"},
        // The first commit block of a squeezed file names the revision of the first kept record.
        {"uncommitted with the revision of the commit block",
         Squeezed(0, 5).Record(5, "lost").Zeros(8),
         {},
         6,
         {},
         "Trailing uncommitted data to rev 5"},
        {"uncommitted behind a lone commit block",
         New().Record(1, "one").Commit(0, 1).Commit(0, 4).Record(4, "lost"),
         {1},
         5},
        {"broken chain", WithABrokenChain(), {1}, 2}};
    return files;
}

TEST(LoadOfAFile, TakesWhatWasCommittedAndGoesOnBehindIt) {
    for (const FileToLoad& wanted : FilesToLoad()) {
        SCOPED_TRACE(wanted.name);
        TestStorage storage(SmallCache(100), Start::kNothing);
        FileBuilder(wanted.file).Save(storage.Path());
        const LogCapture log;
        ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK) << log;
        EXPECT_EQ(RevsOf(storage.Records(kMinI64, kMaxI64)), wanted.revs);
        EXPECT_EQ(storage.NextRev(), wanted.nextRev);
        EXPECT_FALSE(StorageAccess::BeginMoved(storage.Object()));
        EXPECT_TRUE(wanted.message.empty() || log.Has(wanted.message)) << log;
        EXPECT_EQ(EntriesInMemory(storage).empty(), wanted.revs.empty());
        if (!wanted.blocks.empty()) {
            EXPECT_EQ(EntriesInMemory(storage), wanted.blocks);
        }
        EXPECT_EQ(ReadIndexEntries(storage), EntriesInMemory(storage));
        Revs expected = wanted.revs;
        if (wanted.nextRev <= kMaxRev) {
            ASSERT_EQ(storage.Insert("next"), RC_OK);
            expected.push_back(wanted.nextRev);
        } else {
            EXPECT_EQ(storage.Insert("more"), RC_INVALID_ARG);
            EXPECT_EQ(storage.InsertP(kMaxI64, "more"), RC_INVALID_ARG);
        }
        storage.Reopen();
        EXPECT_EQ(RevsOf(storage.Records(kMinI64, kMaxI64)), expected);
    }
}

TEST_F(Load, OpensTheStorageAndIsRefusedASecondTime) {
    m_file.NewFile().Record(1, "one").Commit(0, 1).Save(m_storage.Path());
    ASSERT_EQ(m_storage.TryOpen(), RC_OK);
    EXPECT_EQ(m_storage.State(), StorageState::kClosed);
    EXPECT_EQ(m_storage.Insert("too early"), RC_WRONG_STATE);
    ASSERT_EQ(m_storage.TryLoad(), RC_OK);
    for (const auto& [state, rc] : {std::pair<StorageState, u32>{StorageState::kOpen, RC_ALREADY},
                                    {StorageState::kFlushFailed, RC_ALREADY},
                                    {StorageState::kBroken, RC_WRONG_STATE}}) {
        StorageAccess::SetState(m_storage.Object(), state);
        m_log.Clear();
        EXPECT_EQ(m_storage.TryLoad(), rc);
        EXPECT_TRUE(m_log.Texts().empty()) << m_log;
        EXPECT_EQ(m_storage.State(), state);
    }
    StorageAccess::SetState(m_storage.Object(), StorageState::kOpen);
    EXPECT_EQ(m_storage.Texts(), Strings({"one"}));
}

TEST_F(Load, KnowsThatEverythingInMemoryIsInTheFile) {
    m_file.NewFile().Record(1, "one").Record(2, "two").Commit(0, 2);
    MustLoad();
    EXPECT_EQ(Blocks().Newest().flushedEnd, Blocks().Newest().used);
    ASSERT_EQ(m_storage.Insert("three"), RC_OK);
    EXPECT_TRUE(m_log.Has("Flushed block;rev 1,last rev 3,offset 1056")) << m_log;
    EXPECT_EQ(FileBytes(m_storage).size(), static_cast<std::size_t>(m_file.Size() + 24 + 5 + 32));
}

TEST_F(Load, OfARevisionThatNobodyCanAssignOverflowsNothing) {
    m_file.NewFile().Record(5, "five").Record(kMaxI64, "beyond").Commit(kMaxI64, kMaxI64);
    MustLoad();
    EXPECT_EQ(RevsOf(m_storage.Records()), Revs({kMaxI64}));
    EXPECT_EQ(m_storage.NextRev(), kMaxI64);
    EXPECT_EQ(m_storage.Insert("more"), RC_INVALID_ARG);
    m_storage.Reopen();
    EXPECT_EQ(RevsOf(m_storage.Records(-1, kMaxI64)), Revs({kMaxI64}));
}

TEST_F(Load, DropsUncommittedRecordsInASmallCache) {
    m_storage.Use(SmallCache(1));
    m_file.NewFile();
    for (i64 rev = 1; rev <= 6; ++rev) {
        m_file.Record(rev, OneBlock(std::to_string(rev))).Commit(0, rev);
    }
    m_file.Record(7, OneBlock("lost")).Record(8, OneBlock("lost"));
    MustLoad();
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 6));
    EXPECT_EQ(Blocks().Blocks().size(), 1U);
}

// A file cut to any size holds what is committed by then.
TEST_F(Load, OfAFileThatWasCutAnywhereKeepsWhatWasCommitted) {
    std::vector<std::pair<i64, i64>> ends;  // file size, records committed by then
    m_file.NewFile();
    for (i64 rev = 1; rev <= 4; ++rev) {
        m_file.Record(rev, rev % 2 == 0 ? OneBlock("full") : "").Commit(0, rev);
        ends.emplace_back(m_file.Size(), rev);
    }
    for (i64 size = m_file.Size(); size >= 1020; --size) {
        SCOPED_TRACE(size);
        m_file.CutTo(size);
        const u32 rc = TryLoad();
        ASSERT_EQ(rc, size < 1024 ? RC_SYSTEM_ERROR : size < 1056 ? RC_FILE_CORRUPT : RC_OK);
        i64 last = 0;
        for (const auto& [end, rev] : ends) {
            last = size >= end ? rev : last;
        }
        if (rc == RC_OK) {
            ASSERT_EQ(RevsOf(m_storage.Records()), RevRange(1, last));
        }
        if (m_storage.IsOpen()) {
            m_storage.Close();
        }
    }
}

TEST_F(Load, WithABlockSizeBelowAStoredRecordFails) {
    m_file.NewFile().Record(1, "one").Record(2, std::string(115, 'x')).Commit(0, 2);
    EXPECT_EQ(TryLoad(), RC_INVALID_ARG);
    EXPECT_EQ(m_log.CodeOf("Rec size with header 139 exceeds free block size 138"), RC_INVALID_ARG);
    EXPECT_EQ(m_log.CodeOf("Failed to insert rec while load;rev 2"), RC_INVALID_ARG) << m_log;
    EXPECT_EQ(m_log.CodeOf("Failed to load solid storage rec"), RC_INVALID_ARG) << m_log;
    EXPECT_EQ(m_storage.State(), StorageState::kClosed);
    EXPECT_TRUE(Blocks().Blocks().empty());
    m_storage.Reopen("block_size=139");
    EXPECT_EQ(RevsOf(m_storage.Records()), Revs({1, 2}));
}

// --- Reopening -----------------------------------------------------------------------------------

TEST(Reopening, ContinuesTheRevisionsTheChainAndTheLastBlock) {
    TestStorage storage(SmallCache(1));
    for (u32 generation = 1; generation <= 10; ++generation) {
        storage.InsertMany(4);
        storage.Reopen();
        EXPECT_EQ(storage.NextRev(), 4 * generation + 1);
        EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 4 * generation));
        EXPECT_EQ(EntriesInMemory(storage).size(), (4 * generation + 4) / 5);
    }
    // The chain of the whole file: a load without the index reads all of it.
    storage.Close();
    ASSERT_TRUE(platform::RemoveFile(IndexPath(storage)));
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 40));
}

TEST(Reopening, WithoutChangesLeavesTheFileAlone) {
    TestStorage storage(SmallCache(2));
    storage.InsertMany(20);
    storage.Reopen();
    const std::vector<u8> file = FileBytes(storage);
    const std::vector<u8> index = ReadBytes(IndexPath(storage));
    storage.Reopen();
    EXPECT_EQ(FileBytes(storage), file);
    EXPECT_EQ(ReadBytes(IndexPath(storage)), index);
}

TEST(Reopening, UsesTheIndexThatTheIndexThreadSaved) {
    SKIP_WHEN_ASYNC("a block is in the file when its save is asked for");
    TestStorage storage(SmallCache(2, "index_hint=2;"));
    for (u32 n = 0; n < 60; ++n) {
        ASSERT_EQ(storage.Insert(OneBlock(std::to_string(n))), RC_OK);
        WaitUntilIdle(storage);
    }
    storage.Close();
    EXPECT_EQ(ReadIndexEntries(storage).size(), 60U);
    const LogCapture log;
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_TRUE(log.Has("Index test started; cnt 58")) << log;
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 60));
}

}  // namespace
}  // namespace k9erepl::test
