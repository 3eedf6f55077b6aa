// Loading a storage file without an index: what comes into memory, which revision follows, what
// was never committed.
#include <gtest/gtest.h>

#include <limits>

#include "engine/load_fixture.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// A storage whose file a test makes item by item.
class Load : public ::testing::Test {
  protected:
    u32 TryLoad() {
        m_file.Save(m_storage.Path());
        return m_storage.TryOpenAndLoad();
    }
    void MustLoad() { ASSERT_EQ(TryLoad(), RC_OK) << m_log; }
    // What was loaded must go on living: insert, commit, reopen.
    void ExpectItGoesOn() {
        SeenRecords expected = m_storage.Records();
        const i64 rev = m_storage.NextRev();
        ASSERT_EQ(m_storage.Insert("next"), RC_OK);
        expected.push_back({rev, 0, "next"});
        EXPECT_EQ(m_storage.Records(), expected);
        m_storage.Reopen();
        EXPECT_EQ(m_storage.Records(), expected);
        EXPECT_EQ(m_storage.NextRev(), rev + 1);
    }
    BlockStore& Blocks() { return StorageAccess::Blocks(m_storage.Object()); }

    TestStorage m_storage{SmallCache(100), Start::kNothing};
    FileBuilder m_file;
    LogCapture m_log;
};

TEST_F(Load, WithoutIndexFileReadsTheWholeFile) {
    m_file.NewFile().Record(1, "one", 7).Record(2, "two").Commit(0, 2).Record(3, "three");
    m_file.Commit(0, 3).Zeros(100);
    MustLoad();
    EXPECT_EQ(m_storage.Records(), SeenRecords({{1, 7, "one"}, {2, 0, "two"}, {3, 0, "three"}}));
    EXPECT_TRUE(m_log.Has("Loaded rec;rev 3; size 5")) << m_log;
    EXPECT_EQ(ReadIndexEntries(m_storage), IndexEntries({{1, 1056}}));
    ExpectItGoesOn();
}

TEST_F(Load, OfAnEmptyFileStartsEmpty) {
    m_file.NewFile().Zeros(8);
    MustLoad();
    EXPECT_TRUE(m_storage.Records().empty());
    EXPECT_EQ(m_storage.NextRev(), 1);
    EXPECT_TRUE(ReadIndexEntries(m_storage).empty());
    ExpectItGoesOn();
}

TEST_F(Load, OfAFileThatEndsWithItsFirstCommitBlockStartsEmpty) {
    for (const i64 size : {1056, 1059, 1060, 1063}) {
        FileBuilder().NewFile().Zeros(8).CutTo(size).Save(m_storage.Path());
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
        EXPECT_TRUE(m_storage.Records().empty());
        ExpectItGoesOn();
        m_storage.Close();
    }
}

TEST_F(Load, OpensTheStorage) {
    m_file.NewFile().Zeros(8).Save(m_storage.Path());
    ASSERT_EQ(m_storage.TryOpen(), RC_OK);
    EXPECT_EQ(m_storage.State(), StorageState::kClosed);
    EXPECT_EQ(m_storage.Insert("too early"), RC_WRONG_STATE);
    ASSERT_EQ(m_storage.TryLoad(), RC_OK);
    EXPECT_EQ(m_storage.State(), StorageState::kOpen);
}

TEST_F(Load, ASecondTimeIsRefused) {
    m_file.NewFile().Record(1, "one").Commit(0, 1);
    MustLoad();
    m_log.Clear();
    EXPECT_EQ(m_storage.TryLoad(), RC_ALREADY);
    EXPECT_TRUE(m_log.Texts().empty()) << m_log;
    EXPECT_EQ(m_storage.Texts(), Strings({"one"}));
}

TEST_F(Load, ASecondTimeIsRefusedWhenAFlushHasFailed) {
    m_file.NewFile().Zeros(8);
    MustLoad();
    StorageAccess::SetState(m_storage.Object(), StorageState::kFlushFailed);
    EXPECT_EQ(m_storage.TryLoad(), RC_ALREADY);
    StorageAccess::SetState(m_storage.Object(), StorageState::kOpen);
}

TEST_F(Load, OfABrokenStorageIsRefused) {
    m_file.NewFile().Zeros(8).Save(m_storage.Path());
    ASSERT_EQ(m_storage.TryOpen(), RC_OK);
    StorageAccess::SetState(m_storage.Object(), StorageState::kBroken);
    m_log.Clear();
    EXPECT_EQ(m_storage.TryLoad(), RC_WRONG_STATE);
    EXPECT_TRUE(m_log.Texts().empty()) << m_log;
    EXPECT_EQ(m_storage.State(), StorageState::kBroken);
}

TEST_F(Load, KnowsThatEverythingInMemoryIsInTheFile) {
    m_file.NewFile().Record(1, "one").Record(2, "two").Commit(0, 2);
    MustLoad();
    EXPECT_EQ(Blocks().Newest().flushedEnd, Blocks().Newest().used);
    ASSERT_EQ(m_storage.Insert("three"), RC_OK);
    EXPECT_TRUE(m_log.Has("Flushed block;rev 1,last rev 3,offset 1056")) << m_log;
    EXPECT_EQ(FileBytes(m_storage).size(), static_cast<std::size_t>(m_file.Size() + 24 + 5 + 32));
}

TEST_F(Load, ContinuesTheRevisionsBehindTheLastCommit) {
    m_file.NewFile().Record(1, "one").Commit(0, 5);
    MustLoad();
    EXPECT_EQ(m_storage.NextRev(), 6);
    ExpectItGoesOn();
}

// What is left when everything was cleared, or when a squeeze kept nothing.
TEST_F(Load, ContinuesTheRevisionsBehindTheFirstCommitBlock) {
    m_file.Header().Commit(9, 9).Zeros(8);
    MustLoad();
    EXPECT_EQ(m_storage.NextRev(), 10);
    EXPECT_EQ(StorageAccess::OldestRev(m_storage.Object()), 9);
    ExpectItGoesOn();
}

TEST_F(Load, TakesTheRevisionsOfASqueezedFile) {
    m_file.Header().Commit(0, 5).Record(5, "five").Record(6, "six").Commit(5, 6);
    MustLoad();
    EXPECT_EQ(m_storage.Texts(), Strings({"five", "six"}));
    EXPECT_EQ(m_storage.NextRev(), 7);
    EXPECT_FALSE(StorageAccess::BeginMoved(m_storage.Object()));
    ExpectItGoesOn();
}

TEST_F(Load, NeverGivesARevisionBelowOne) {
    for (const i64 rev : {i64{-1}, i64{-1000}, std::numeric_limits<i64>::min()}) {
        m_file = FileBuilder();
        m_file.Header().Commit(rev, rev).Zeros(8);
        MustLoad();
        EXPECT_EQ(m_storage.NextRev(), 1) << rev;
        ASSERT_EQ(m_storage.Insert("one"), RC_OK);
        m_storage.Reopen();
        EXPECT_EQ(m_storage.Texts(), Strings({"one"})) << rev;
        m_storage.Close();
    }
}

TEST_F(Load, NeverGivesARevisionThatIsClearedAlready) {
    m_file.NewFile().Record(1, "one").Commit(0, 1).Commit(8, 3);
    MustLoad();
    EXPECT_TRUE(m_storage.Records().empty());
    EXPECT_EQ(m_storage.NextRev(), 8);
    ExpectItGoesOn();
}

TEST_F(Load, OfTheHighestRevisionLeavesNoneForInsertion) {
    m_file.NewFile().Record(kMaxRev, "last").Commit(0, kMaxRev);
    MustLoad();
    EXPECT_EQ(RevsOf(m_storage.Records()), Revs({kMaxRev}));
    EXPECT_EQ(m_storage.NextRev(), kMaxI64);
    EXPECT_EQ(m_storage.Insert("more"), RC_INVALID_ARG);
    EXPECT_EQ(m_storage.InsertP(kMaxI64, "more"), RC_INVALID_ARG);
    m_storage.Reopen();
    EXPECT_EQ(RevsOf(m_storage.Records(kMaxRev, kMaxRev)), Revs({kMaxRev}));
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

TEST_F(Load, OfOneRevisionBelowTheHighestLeavesOne) {
    m_file.NewFile().Record(kMaxRev - 1, "last but one").Commit(0, kMaxRev - 1);
    MustLoad();
    EXPECT_EQ(m_storage.NextRev(), kMaxRev);
    ExpectItGoesOn();
}

TEST_F(Load, OfACommitRevisionAtTheEndOfAllNumbersLeavesNoRevision) {
    m_file.Header().Commit(0, kMaxI64).Zeros(8);
    MustLoad();
    EXPECT_EQ(m_storage.NextRev(), kMaxI64);
    EXPECT_EQ(m_storage.Insert("more"), RC_INVALID_ARG);
    EXPECT_TRUE(m_storage.Records().empty());
}

TEST_F(Load, DropsRecordsWithoutACommitBlock) {
    m_file.NewFile().Record(1, "one").Record(2, "two").Commit(0, 2);
    m_file.Record(3, "lost").Record(4, "lost too").Zeros(8);
    MustLoad();
    EXPECT_TRUE(m_log.Has("Trailing uncommitted data to rev 2")) << m_log;
    EXPECT_EQ(m_storage.Texts(), Strings({"one", "two"}));
    EXPECT_EQ(m_storage.NextRev(), 3);
    EXPECT_EQ(Blocks().Newest().lastRev, 2);
    EXPECT_EQ(Blocks().Newest().used, 2U * 27U);
    ExpectItGoesOn();
}

TEST_F(Load, DropsUncommittedRecordsOfSeveralBlocks) {
    m_file.NewFile().Record(1, OneBlock("1")).Record(2, "two").Commit(0, 2).Record(3, "lost");
    for (i64 rev = 4; rev < 10; ++rev) {
        m_file.Record(rev, OneBlock("lost"));
    }
    MustLoad();
    EXPECT_EQ(m_storage.Texts(), Strings({OneBlock("1"), "two"}));
    EXPECT_EQ(Blocks().Blocks().size(), 2U);
    EXPECT_EQ(EntriesInMemory(m_storage), IndexEntries({{1, 1056}, {2, 1056 + 138}}));
    EXPECT_EQ(ReadIndexEntries(m_storage), EntriesInMemory(m_storage));
    ExpectItGoesOn();
}

TEST_F(Load, DropsUncommittedRecordsThatBeginABlock) {
    m_file.NewFile().Record(1, OneBlock("1")).Commit(0, 1).Record(2, OneBlock("lost"));
    MustLoad();
    EXPECT_EQ(EntriesInMemory(m_storage), IndexEntries({{1, 1056}}));
    ExpectItGoesOn();
}

TEST_F(Load, DropsEverythingWhenNothingWasCommitted) {
    m_file.NewFile().Record(1, "lost").Record(2, OneBlock("lost"));
    MustLoad();
    EXPECT_TRUE(m_log.Has("Trailing uncommitted data to rev 0")) << m_log;
    EXPECT_TRUE(m_storage.Records().empty());
    EXPECT_EQ(m_storage.NextRev(), 1);
    EXPECT_TRUE(EntriesInMemory(m_storage).empty());
    ExpectItGoesOn();
}

// The first commit block of a squeezed file names the revision of the first kept record.
TEST_F(Load, DropsAnUncommittedRecordWithTheRevisionOfTheLastCommitBlock) {
    m_file.Header().Commit(0, 5).Record(5, "lost").Zeros(8);
    MustLoad();
    EXPECT_TRUE(m_log.Has("Trailing uncommitted data to rev 5")) << m_log;
    EXPECT_TRUE(m_storage.Records().empty());
    EXPECT_EQ(m_storage.NextRev(), 6);
    ExpectItGoesOn();
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
    ExpectItGoesOn();
}

TEST_F(Load, TakesNoUncommittedDataForItsOwnAfterACommitBlockAlone) {
    m_file.NewFile().Record(1, "one").Commit(0, 1).Commit(0, 4).Record(4, "lost");
    MustLoad();
    EXPECT_EQ(m_storage.Texts(), Strings({"one"}));
    EXPECT_EQ(m_storage.NextRev(), 5);
    ExpectItGoesOn();
}

TEST_F(Load, StopsBeforeACommitBlockThatBreaksTheChain) {
    m_file.NewFile().Record(1, "one").Commit(0, 1).Record(2, "two");
    TCommitBlock stranger = NewCommitBlock(77, 2);
    stranger.prevSequence = 76;
    m_file.RawCommit(stranger).Record(3, "three").Commit(0, 3);
    MustLoad();
    EXPECT_EQ(m_storage.Texts(), Strings({"one"}));
    ExpectItGoesOn();
}

TEST_F(Load, OfAFileWhoseDataEndsWithItGoesOn) {
    m_file.NewFile().Record(1, "one").Commit(0, 1);
    MustLoad();
    EXPECT_TRUE(m_log.Has("Couldn't read 4 bytes at once")) << m_log;
    ExpectItGoesOn();
}

TEST_F(Load, WithALargerBlockSizeTakesMoreRecordsIntoABlock) {
    m_storage.Use(SmallCache(3));
    m_file.NewFile().Zeros(8);
    MustLoad();
    m_storage.InsertMany(40);
    m_storage.Reopen("cache_type=Last3;block_size=400;flush_mode=PerTrans;flush_trans_num=1");
    EXPECT_EQ(m_storage.Texts(), Numbered(40));
    m_storage.InsertMany(40, "more");
    m_storage.Reopen(SmallCache(2));
    EXPECT_EQ(m_storage.Records().size(), 80U);
    ExpectItGoesOn();
}

// The scan reads through a buffer of 10 MiB: a record may fill it, head included.
TEST_F(Load, TakesARecordAsLargeAsTheScanCanRead) {
    constexpr u32 kLargest = 10 * 1024 * 1024 - 24;
    m_storage.Use("block_size=11000000;cache_type=Last1;memory_reserve=1;read_buffers_count=1");
    m_file.NewFile().Record(1, "one").LargeRecord(2, kLargest).Commit(0, 2);
    m_file.LargeRecord(3, kLargest).Commit(0, 3).LargeRecord(4, kLargest + 1).Commit(0, 4);
    MustLoad();
    const SeenRecords records = m_storage.Records();
    ASSERT_EQ(RevsOf(records), Revs({1, 2, 3}));
    for (u32 i = 0; i < kLargest; i += 4099) {
        ASSERT_EQ(static_cast<u8>(records[1].data[i]), FileBuilder::PatternByte(2, i));
        ASSERT_EQ(static_cast<u8>(records[2].data[i]), FileBuilder::PatternByte(3, i));
    }
    EXPECT_TRUE(m_log.Has("Couldn't read 10485761 bytes at once"));
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

}  // namespace
}  // namespace k9erepl::test
