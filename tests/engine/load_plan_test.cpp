// The choices of a load: which entries of an index are tested, and where reading begins.
#include "engine/load_plan.h"

#include <gtest/gtest.h>

#include <limits>

namespace k9erepl::test {
namespace {

constexpr u32 kMaxU32 = std::numeric_limits<u32>::max();

// `count` entries, revisions 1, 11, 21 ..., offsets 1056, 2056, ...
IndexFileContent IndexOf(std::size_t count, u32 blockSize = 1000) {
    IndexFileContent index;
    index.blockSize = blockSize;
    for (std::size_t i = 0; i < count; ++i) {
        const auto n = static_cast<i64>(i);
        index.entries.push_back({.rev = 1 + 10 * n, .offset = 1056 + 1000 * n});
    }
    return index;
}

OpenSettings LastN(u32 blocks, u32 blockSize = 1000) {
    OpenSettings settings;
    settings.cacheBlocks = blocks;
    settings.blockSize = blockSize;
    return settings;
}

OpenSettings AllInMem() {
    OpenSettings settings;
    settings.cacheType = CacheType::kAllInMem;
    settings.cacheBlocks = 0;
    return settings;
}

TEST(IndexChoice, BeginsSoManyBlocksFromTheEndAsTheCacheKeepsAndOneMore) {
    const IndexChoice choice = ChooseIndexUse(IndexOf(10), LastN(2));
    EXPECT_EQ(choice.startEntry, 7U);
    EXPECT_EQ(choice.testCount, 8U);
}

TEST(IndexChoice, BeginsAtTheFirstEntryWhenTheCacheKeepsAll) {
    for (const u32 blocks : {9U, 10U, 100U, kMaxU32}) {
        const IndexChoice choice = ChooseIndexUse(IndexOf(10), LastN(blocks));
        EXPECT_EQ(choice.startEntry, 0U) << blocks;
        EXPECT_EQ(choice.testCount, 1U) << blocks;
    }
    EXPECT_EQ(ChooseIndexUse(IndexOf(10), LastN(8)).startEntry, 1U);
}

TEST(IndexChoice, CountsBytesWhenTheBlockSizeHasChanged) {
    EXPECT_EQ(ChooseIndexUse(IndexOf(20, 500), LastN(2)).startEntry, 15U);
    EXPECT_EQ(ChooseIndexUse(IndexOf(20, 400), LastN(2)).startEntry, 14U);
    EXPECT_EQ(ChooseIndexUse(IndexOf(20, 2000), LastN(2)).startEntry, 18U);
    EXPECT_EQ(ChooseIndexUse(IndexOf(20, 2001), LastN(2)).startEntry, 19U);
    EXPECT_EQ(ChooseIndexUse(IndexOf(20, kMaxU32), LastN(2)).startEntry, 19U);
}

TEST(IndexChoice, SurvivesTheLargestSizes) {
    EXPECT_EQ(ChooseIndexUse(IndexOf(20, 1), LastN(kMaxU32, kMaxU32)).startEntry, 0U);
    EXPECT_EQ(ChooseIndexUse(IndexOf(20, kMaxU32), LastN(1, kMaxU32)).startEntry, 18U);
}

TEST(IndexChoice, OfAnIndexWithoutEntriesOrWithoutBlockSizeTestsNothing) {
    EXPECT_EQ(ChooseIndexUse(IndexOf(0), LastN(2)).testCount, 0U);
    EXPECT_EQ(ChooseIndexUse(IndexOf(10, 0), LastN(2)).testCount, 0U);
    EXPECT_EQ(ChooseIndexUse(IndexOf(10, 0), AllInMem()).testCount, 0U);
}

TEST(IndexChoice, WithEverythingInMemoryTakesTheFirstEntryAlone) {
    const IndexChoice choice = ChooseIndexUse(IndexOf(10), AllInMem());
    EXPECT_EQ(choice.startEntry, 0U);
    EXPECT_EQ(choice.testCount, 1U);
}

TEST(IndexFits, AFileThatReachesToTheEndOfTheLastHead) {
    const IndexFileContent index = IndexOf(3);
    EXPECT_TRUE(IndexFitsFile(index, 3056 + 24));
    EXPECT_FALSE(IndexFitsFile(index, 3056 + 23));
    EXPECT_FALSE(IndexFitsFile(index, 0));
}

TEST(IndexFits, NoFileWithoutABlockSizeOrEntries) {
    EXPECT_FALSE(IndexFitsFile(IndexOf(3, 0), 1'000'000));
    EXPECT_FALSE(IndexFitsFile(IndexOf(0), 1'000'000));
}

TEST(IndexFits, NoFileWithItsFirstOffsetBeforeTheFirstItem) {
    IndexFileContent index = IndexOf(3);
    for (const i64 offset : {0, 1024, 1055}) {
        index.entries.front().offset = offset;
        EXPECT_FALSE(IndexFitsFile(index, 1'000'000)) << offset;
    }
}

TEST(IndexFits, NoFileWithOffsetsAtTheEndOfAllNumbers) {
    IndexFileContent index = IndexOf(3);
    index.entries.back().offset = std::numeric_limits<i64>::max();
    EXPECT_FALSE(IndexFitsFile(index, 1'000'000));
}

TEST(LoadPlan, KeepsTheEntriesBeforeTheStartOnDisk) {
    const IndexFileContent index = IndexOf(10);
    const LoadPlan plan = MakeLoadPlan(index, {.startEntry = 3, .testCount = 4});
    EXPECT_TRUE(plan.UsesIndex());
    EXPECT_EQ(plan.startOffset, 4056);
    ASSERT_EQ(plan.keptOnDisk.size(), 3U);
    EXPECT_EQ(i64{plan.keptOnDisk.back().rev}, 21);
    EXPECT_EQ(i64{plan.first.rev}, 1);
    EXPECT_EQ(i64{plan.first.offset}, 1056);
}

TEST(LoadPlan, WithoutIndexReadsTheFileFromItsFirstRecord) {
    const LoadPlan plan;
    EXPECT_FALSE(plan.UsesIndex());
    EXPECT_EQ(plan.startOffset, 0);
    EXPECT_TRUE(plan.keptOnDisk.empty());
}

}  // namespace
}  // namespace k9erepl::test
