// The image of the index file: what a save takes in, and which bytes it must write.
#include "index/index_image.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include "index/index_fixture.h"
#include "support/new_fault.h"
#include "support/storage_exception.h"

namespace k9erepl::test {
namespace {

class IndexImageTest : public ::testing::Test {
  protected:
    IndexUpdate Update() { return m_image.Update(m_blocks.Index()); }

    void Write(IndexImage& image) {
        WriteImage(image, &m_file);
        image.MarkSaved();
    }
    void Save() {
        ASSERT_EQ(Update(), IndexUpdate::kChanged);
        Write(m_image);
    }

    ScopedSystemCalls m_systemCalls;
    Blocks m_blocks;
    IndexImage m_image{kBlockSize};
    std::vector<u8> m_file = IndexFileBytes({});
};

TEST_F(IndexImageTest, BeginsAsAHeaderWithoutEntries) {
    EXPECT_TRUE(m_image.IsWhole());
    EXPECT_EQ(std::vector<u8>(m_image.Whole(), m_image.Whole() + m_image.WholeSize()),
              IndexFileBytes({}));
}

TEST_F(IndexImageTest, FailsToBeMadeWithoutMemory) {
    FailAlloc(1);
    try {
        const IndexImage image(kBlockSize);
        FAIL() << "made without memory";
    } catch (const K9eStorageException& failure) {
        EXPECT_EQ(failure.Code(), RC_NO_MEMORY);
    }
}

TEST_F(IndexImageTest, WritesTheWholeFileAtTheFirstSave) {
    m_blocks.Add(1, 1056).Add(40, 66000);
    ASSERT_EQ(Update(), IndexUpdate::kChanged);
    EXPECT_TRUE(m_image.IsWhole());
    Write(m_image);
    EXPECT_EQ(m_file, IndexFileBytes({{1, 1056}, {40, 66000}}));
}

TEST_F(IndexImageTest, WritesFromTheLastSavedEntryOnAtLaterSaves) {
    m_blocks.Add(1, 1056).Add(40, 66000);
    Save();
    m_blocks.Add(95, 131000);
    ASSERT_EQ(Update(), IndexUpdate::kChanged);
    EXPECT_FALSE(m_image.IsWhole());
    EXPECT_EQ(m_image.TailOffset(), 48U);
    EXPECT_EQ(m_image.TailSize(), 32U);
    Write(m_image);
    EXPECT_EQ(m_file, IndexFileBytes({{1, 1056}, {40, 66000}, {95, 131000}}));
}

TEST_F(IndexImageTest, CountsARewrittenEntryOnce) {
    for (i64 rev = 1; rev < 10; ++rev) {
        m_blocks.Add(rev, 1000 * rev);
        Save();
        EXPECT_EQ(EntriesOf(m_file), m_blocks.All());
    }
}

TEST_F(IndexImageTest, SaysUnchangedWhenNothingIsNew) {
    EXPECT_EQ(Update(), IndexUpdate::kUnchanged);
    m_blocks.Add(1, 1056).Add(40, 66000);
    Save();
    EXPECT_EQ(Update(), IndexUpdate::kUnchanged);
    m_blocks.AddInMemory(95, -1).AddEmpty(96);
    EXPECT_EQ(Update(), IndexUpdate::kUnchanged);
    m_blocks.SetOffset(95, 131000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {40, 66000}, {95, 131000}}));
}

TEST_F(IndexImageTest, StopsAtTheFirstBlockThatIsNotInTheFile) {
    m_blocks.AddInMemory(1, 1056).AddInMemory(40, -1).AddInMemory(95, 131000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}}));
    m_blocks.SetOffset(40, 66000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {40, 66000}, {95, 131000}}));
}

TEST_F(IndexImageTest, PassesOverBlocksWithoutRecords) {
    m_blocks.AddEmpty(1).AddInMemory(2, 1056).AddEmpty(40).AddInMemory(41, 66000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{2, 1056}, {41, 66000}}));
}

TEST_F(IndexImageTest, KeepsTheLaterOfTwoEntriesWithOneOffset) {
    m_blocks.Add(1, 1056).Add(30, 66000).Add(40, 66000).Add(41, 66000).Add(95, 131000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {41, 66000}, {95, 131000}}));
}

TEST_F(IndexImageTest, ReplacesTheLastSavedEntryByALaterOneWithItsOffset) {
    m_blocks.Add(1, 1056).Add(30, 66000);
    Save();
    m_blocks.Add(40, 66000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {40, 66000}}));
    EXPECT_EQ(Update(), IndexUpdate::kUnchanged);
}

TEST_F(IndexImageTest, PassesOverEntriesWhoseOffsetFalls) {
    m_blocks.Add(1, 66000).Add(2, 1056).Add(3, 70000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 66000}, {3, 70000}}));
    m_blocks.Add(4, 69999).Add(5, 80000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 66000}, {3, 70000}, {5, 80000}}));
}

TEST_F(IndexImageTest, LeavesOutRevisionsThatNoRecordCanHave) {
    m_blocks.Add(-5, 10).Add(0, 20).Add(1, 1056);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}}));
}

TEST_F(IndexImageTest, WritesEverythingWhenTheLastSavedBlockIsGone) {
    m_blocks.Add(1, 1056).Add(40, 66000).Add(95, 131000);
    Save();
    m_blocks.Remove(95);
    m_blocks.Add(96, 140000);
    ASSERT_EQ(Update(), IndexUpdate::kChanged);
    EXPECT_TRUE(m_image.IsWhole());
    Write(m_image);
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {40, 66000}, {96, 140000}}));
}

TEST_F(IndexImageTest, WritesEverythingWhenTheLastSavedBlockHasMoved) {
    m_blocks.Add(1, 66000).Add(40, 131000);
    Save();
    m_blocks.SetOffset(1, 1056);
    m_blocks.SetOffset(40, 66056);
    ASSERT_EQ(Update(), IndexUpdate::kChanged);
    EXPECT_TRUE(m_image.IsWhole());
    Write(m_image);
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {40, 66056}}));
}

TEST_F(IndexImageTest, LeavesOutASavedBlockThatIsNotInTheFileAnyMore) {
    m_blocks.Add(1, 1056).AddInMemory(40, 66000);
    Save();
    m_blocks.SetOffset(40, -1);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}}));
}

TEST_F(IndexImageTest, WritesAnEmptyFileWhenAllBlocksAreGone) {
    m_blocks.AddMany(5);
    Save();
    m_blocks.Clear();
    Save();
    EXPECT_EQ(m_file, IndexFileBytes({}));
    EXPECT_EQ(Update(), IndexUpdate::kUnchanged);
}

TEST_F(IndexImageTest, WritesEverythingAfterStartOver) {
    m_blocks.Add(1, 1056).Add(40, 66000).Add(95, 131000);
    Save();
    m_blocks.Remove(1);
    m_image.StartOver();
    ASSERT_EQ(Update(), IndexUpdate::kChanged);
    EXPECT_TRUE(m_image.IsWhole());
    Write(m_image);
    EXPECT_EQ(EntriesOf(m_file), (Entries{{40, 66000}, {95, 131000}}));
}

TEST_F(IndexImageTest, WritesAnUnchangedFileAfterStartOver) {
    m_image.StartOver();
    Save();
    EXPECT_EQ(m_file, IndexFileBytes({}));
    m_blocks.Add(1, 1056);
    Save();
    m_image.StartOver();
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}}));
    EXPECT_EQ(Update(), IndexUpdate::kUnchanged);
}

TEST_F(IndexImageTest, StandsForAnEmptyFileAfterReset) {
    m_blocks.AddMany(3);
    Save();
    m_image.Reset();
    m_file.assign(m_image.Whole(), m_image.Whole() + m_image.WholeSize());
    EXPECT_EQ(m_file, IndexFileBytes({}));
    Save();
    EXPECT_EQ(EntriesOf(m_file), m_blocks.All());
}

TEST_F(IndexImageTest, TakesInAtEachSaveOnlyWhatIsNew) {
    constexpr u32 kNewBlocks = 50;
    m_blocks.AddMany(200'000);
    Save();
    const u64 newCalls = NewCallsOfThisThread();
    const u32 allocations = CallCount(SystemCall::kAlloc);
    for (u32 i = 0; i < 20; ++i) {
        m_blocks.AddMany(kNewBlocks);
        const u64 beforeUpdate = NewCallsOfThisThread();
        ASSERT_EQ(Update(), IndexUpdate::kChanged);
        EXPECT_EQ(m_image.TailSize(), (kNewBlocks + 1) * sizeof(TIndexEntry));
        EXPECT_EQ(NewCallsOfThisThread(), beforeUpdate);
        Write(m_image);
    }
    EXPECT_GT(NewCallsOfThisThread(), newCalls);  // those of the block index: they are counted
    EXPECT_EQ(CallCount(SystemCall::kAlloc), allocations);
    EXPECT_EQ(EntriesOf(m_file), m_blocks.All());
}

TEST_F(IndexImageTest, GivesTheMemoryOfALargeSaveBack) {
    static u32 s_frees = 0;
    s_frees = 0;
    platform::TheSystemCalls().freeMemory = [](void* memory) {
        s_frees += memory != nullptr ? 1 : 0;
        platform::NativeSystemCalls().freeMemory(memory);
    };
    m_blocks.AddMany(100'000);
    const u32 allocations = CallCount(SystemCall::kAlloc);
    Save();
    EXPECT_GT(CallCount(SystemCall::kAlloc), allocations);
    EXPECT_EQ(s_frees, CallCount(SystemCall::kAlloc) - allocations);
    EXPECT_EQ(EntriesOf(m_file), m_blocks.All());
}

TEST_F(IndexImageTest, BeginsAnewAfterMemoryRanOut) {
    m_blocks.AddMany(10);
    Save();
    m_blocks.AddMany(1000);
    FailAlloc(1);
    EXPECT_EQ(Update(), IndexUpdate::kNoMemory);
    ASSERT_EQ(Update(), IndexUpdate::kChanged);
    EXPECT_TRUE(m_image.IsWhole());
    Write(m_image);
    EXPECT_EQ(EntriesOf(m_file), m_blocks.All());
}

TEST_F(IndexImageTest, TakesInNoMoreEntriesThanAFileMayHave) {
    IndexImage image(kBlockSize, 3);
    m_blocks.AddMany(2);
    ASSERT_EQ(image.Update(m_blocks.Index()), IndexUpdate::kChanged);
    Write(image);
    m_blocks.AddMany(3);
    ASSERT_EQ(image.Update(m_blocks.Index()), IndexUpdate::kChanged);
    Write(image);
    Entries firstThree = m_blocks.All();
    firstThree.resize(3);
    EXPECT_EQ(EntriesOf(m_file), firstThree);
    EXPECT_EQ(image.Update(m_blocks.Index()), IndexUpdate::kUnchanged);
}

TEST_F(IndexImageTest, ReplacesTheLastOfTheEntriesThatAFileMayHave) {
    IndexImage image(kBlockSize, 2);
    m_blocks.Add(1, 1056).Add(2, 2000).Add(3, 2000).Add(4, 3000);
    ASSERT_EQ(image.Update(m_blocks.Index()), IndexUpdate::kChanged);
    Write(image);
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {3, 2000}}));
}

}  // namespace
}  // namespace k9erepl::test
