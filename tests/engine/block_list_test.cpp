// The list of blocks: adding, erasing after a revision, shrinking.
#include "engine/block_list.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <vector>

#include "solid/file_format.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

using Keys = std::vector<i64>;

struct List {
    List() { pool.SetBlockSize(256 + kBlockOverhead); }
    ~List() { list.EraseAll(); }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    // Blocks with keys 1, 2, ... `count`, each with one record in the file.
    void AddFlushed(i64 count) {
        for (i64 rev = 1; rev <= count; ++rev) {
            ASSERT_EQ(list.AddBlock(rev), RC_OK);
            list.Newest().used = 24;
            list.Newest().lastRev = rev;
            list.Index().at(rev).fileOffset = 1000 + rev;
        }
    }
    K9eReplBlock& At(i64 key) { return *list.Blocks().at(key); }
    Keys InMemory() const {
        Keys keys;
        for (const auto& [key, block] : list.Blocks()) {
            keys.push_back(key);
        }
        return keys;
    }
    Keys InIndex() const {
        Keys keys;
        for (const auto& [key, entry] : list.Index()) {
            keys.push_back(key);
        }
        return keys;
    }

    CBlocksPoolManager pool;
    BlockList list{pool};
};

}  // namespace

TEST(BlockList, TheFirstBlockOfANewStorageIsNumberZero) {
    List blocks;
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(blocks.list.AddBlock(1), RC_OK);
    EXPECT_STREQ(blocks.At(1).name, "eRepl#0");
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Add block 0,rev 1")) << log;
}

TEST(BlockList, ABlockIsNumberedByTheIndexNotByMemory) {
    List blocks;
    blocks.AddFlushed(3);
    ASSERT_EQ(blocks.list.Shrink(1, 3), RC_OK);
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(blocks.list.AddBlock(9), RC_OK);
    EXPECT_STREQ(blocks.At(9).name, "eRepl#3");
    EXPECT_TRUE(log.Has("Add block 3,rev 9")) << log;
}

TEST(BlockList, ANewBlockIsInBothMapsWithAnUnknownOffset) {
    List blocks;
    ASSERT_EQ(blocks.list.AddBlock(5), RC_OK);
    EXPECT_EQ(blocks.list.Index().at(5).fileOffset, kUnknownOffset);
    EXPECT_EQ(blocks.list.Index().at(5).block, &blocks.At(5));
}

TEST(BlockList, ABlockFromThePoolShowsNothingOfItsFormerLife) {
    List blocks;
    blocks.pool.SetMaxBlocks(4);
    ASSERT_EQ(blocks.list.AddBlock(1), RC_OK);
    K9eReplBlock& used = blocks.At(1);
    used.used = 100;
    used.lastRev = 77;
    used.reserved = 1;
    used.pendingWrites = 3;
    used.flushedEnd = 99;
    ASSERT_EQ(blocks.list.EraseBlocksAfter(0), RC_OK);
    blocks.list.EraseIndexAfter(0);

    ASSERT_EQ(blocks.list.AddBlock(2), RC_OK);
    const K9eReplBlock& fresh = blocks.At(2);
    ASSERT_EQ(&fresh, &used) << "the pool keeps the block";
    EXPECT_EQ(fresh.used, 0U);
    EXPECT_EQ(fresh.lastRev, 0);
    EXPECT_EQ(fresh.reserved, 0U);
    EXPECT_EQ(fresh.pendingWrites, 0);
    EXPECT_EQ(fresh.flushedEnd, 0U);
}

TEST(BlockList, FindsTheEntryThatHoldsARevision) {
    List blocks;
    ASSERT_EQ(blocks.list.AddBlock(10), RC_OK);
    ASSERT_EQ(blocks.list.AddBlock(20), RC_OK);
    EXPECT_EQ(blocks.list.FindHolding(5)->first, 10) << "the first one for what lies before";
    EXPECT_EQ(blocks.list.FindHolding(10)->first, 10);
    EXPECT_EQ(blocks.list.FindHolding(19)->first, 10);
    EXPECT_EQ(blocks.list.FindHolding(21)->first, 20);
}

// --- Erasing -----------------------------------------------------------------------------------

TEST(EraseBlocksAfter, DoesNothingWithoutBlocks) {
    List blocks;
    EXPECT_EQ(blocks.list.EraseBlocksAfter(0), RC_OK);
}

TEST(EraseBlocksAfter, ErasesBlocksThatBeginAboveTheRevision) {
    List blocks;
    blocks.AddFlushed(4);
    ASSERT_EQ(blocks.list.EraseBlocksAfter(2), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys({1, 2}));
    EXPECT_EQ(blocks.InIndex(), Keys({1, 2, 3, 4})) << "they are still in the file";
    EXPECT_EQ(blocks.list.Index().at(3).block, nullptr);
}

TEST(EraseBlocksAfter, Revision0EmptiesTheCache) {
    List blocks;
    blocks.AddFlushed(3);
    ASSERT_EQ(blocks.list.EraseBlocksAfter(0), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys());
}

TEST(EraseBlocksAfter, AnEntryWithoutABlockIsBadData) {
    List blocks;
    blocks.AddFlushed(3);
    K9eReplBlock* const lost = &blocks.At(3);
    blocks.list.Blocks().at(3) = nullptr;
    const LogCapture log;
    EXPECT_EQ(blocks.list.EraseBlocksAfter(1), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Failed to erase block - NULL;block rev 3"), RC_BAD_DATA) << log;
    EXPECT_EQ(blocks.InMemory(), Keys({1, 2, 3})) << "the entries stay";
    blocks.list.Blocks().erase(2);  // given back before the fault was met
    blocks.list.Blocks().at(3) = lost;
}

// --- Shrinking ---------------------------------------------------------------------------------

TEST(Shrink, FreesTheFiftyOldestOf150Blocks) {
    List blocks;
    blocks.AddFlushed(150);
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(blocks.list.Shrink(100, 150), RC_OK);
    EXPECT_EQ(blocks.InMemory().size(), 100U);
    EXPECT_EQ(blocks.InMemory().front(), 51);
    EXPECT_EQ(blocks.InIndex().size(), 150U);
    EXPECT_EQ(log.Texts(),
              std::vector<std::string>({"Before shrink: 150 blocks; to del: 50; lastFlushed: 150",
                                        "Shrank to 100 blocks"}));
}

TEST(Shrink, DoesNothingWhenThereAreNoMoreThanItKeeps) {
    List blocks;
    blocks.AddFlushed(3);
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(blocks.list.Shrink(3, 3), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys({1, 2, 3}));
    EXPECT_TRUE(log.Messages().empty()) << log;
}

TEST(Shrink, StopsAtABlockThatBeginsAboveTheFlushedRevision) {
    List blocks;
    blocks.AddFlushed(6);
    ASSERT_EQ(blocks.list.Shrink(1, 2), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys({3, 4, 5, 6}));
}

TEST(Shrink, StopsAtABlockThatHoldsAnUnflushedRecord) {
    List blocks;
    blocks.AddFlushed(6);
    blocks.At(3).lastRev = 9;
    ASSERT_EQ(blocks.list.Shrink(1, 6), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys({3, 4, 5, 6}));
}

TEST(Shrink, StopsAtABlockWithQueuedWrites) {
    List blocks;
    blocks.AddFlushed(6);
    blocks.At(2).pendingWrites = 1;
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(blocks.list.Shrink(1, 6), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys({2, 3, 4, 5, 6}));
    EXPECT_TRUE(log.Has("Shrank to 5 blocks")) << log;
    blocks.At(2).pendingWrites = 0;
}

TEST(Shrink, AnEmptyBlockTakesItsIndexEntryWithIt) {
    List blocks;
    blocks.AddFlushed(3);
    blocks.At(2).used = 0;
    blocks.At(2).lastRev = 0;
    blocks.list.Index().at(2).fileOffset = kUnknownOffset;
    ASSERT_EQ(blocks.list.Shrink(1, 3), RC_OK);
    EXPECT_EQ(blocks.InIndex(), Keys({1, 3}));
}

TEST(Shrink, AnEntryWithoutABlockStopsEverything) {
    List blocks;
    blocks.AddFlushed(4);
    K9eReplBlock* const lost = &blocks.At(2);
    blocks.list.Blocks().at(2) = nullptr;
    const LogCapture log;
    EXPECT_EQ(blocks.list.Shrink(1, 4), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("NULL block header;block rev 2"), RC_BAD_DATA) << log;
    EXPECT_EQ(blocks.InMemory(), Keys({2, 3, 4}));
    blocks.list.Blocks().at(2) = lost;
}

}  // namespace k9erepl::test
