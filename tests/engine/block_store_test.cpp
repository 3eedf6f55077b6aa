// The store of blocks: adding, erasing after a revision, shrinking.
#include "engine/block_store.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <vector>

#include "engine/storage_fixture.h"
#include "format/storage_file_format.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

using Keys = std::vector<i64>;

struct Store {
    Store() { store.SetUp(256, 4); }
    ~Store() { store.Reset(); }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    // Blocks with keys 1, 2, ... `count`, each with one record in the file.
    void AddFlushed(i64 count) {
        for (i64 rev = 1; rev <= count; ++rev) {
            ASSERT_EQ(store.AddBlock(rev), RC_OK);
            store.Newest().used = 24;
            store.Newest().lastRev = rev;
            *store.FileOffsetOf(rev) = 1000 + rev;
        }
    }
    K9eReplBlock& At(i64 key) { return *store.Blocks().at(key); }
    MemoryBlocks& Map() { return StorageAccess::InMemory(store); }
    Keys InMemory() const {
        Keys keys;
        for (const auto& [key, block] : store.Blocks()) {
            keys.push_back(key);
        }
        return keys;
    }
    Keys InIndex() const {
        Keys keys;
        for (const auto& [key, entry] : store.Index()) {
            keys.push_back(key);
        }
        return keys;
    }

    BlockStore store;
};

}  // namespace

TEST(BlockStore, TheFirstBlockOfANewStorageIsNumberZero) {
    Store blocks;
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(blocks.store.AddBlock(1), RC_OK);
    EXPECT_STREQ(blocks.At(1).name, "eRepl#0");
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Add block 0,rev 1")) << log;
}

TEST(BlockStore, ABlockIsNumberedByTheIndexNotByMemory) {
    Store blocks;
    blocks.AddFlushed(3);
    ASSERT_EQ(blocks.store.Shrink(1, 3), RC_OK);
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(blocks.store.AddBlock(9), RC_OK);
    EXPECT_STREQ(blocks.At(9).name, "eRepl#3");
    EXPECT_TRUE(log.Has("Add block 3,rev 9")) << log;
}

TEST(BlockStore, ANewBlockIsInBothMapsWithAnUnknownOffset) {
    Store blocks;
    ASSERT_EQ(blocks.store.AddBlock(5), RC_OK);
    EXPECT_EQ(blocks.store.Index().at(5).fileOffset, kUnknownOffset);
    EXPECT_EQ(blocks.store.Index().at(5).block, &blocks.At(5));
}

TEST(BlockStore, ABlockFromThePoolShowsNothingOfItsFormerLife) {
    Store blocks;
    ASSERT_EQ(blocks.store.AddBlock(1), RC_OK);
    K9eReplBlock& used = blocks.At(1);
    used.used = 100;
    used.lastRev = 77;
    used.reserved = 1;
    used.pendingWrites = 3;
    used.flushedEnd = 99;
    ASSERT_EQ(blocks.store.EraseBlocksAfter(0), RC_OK);
    blocks.store.EraseIndexAfter(0);

    ASSERT_EQ(blocks.store.AddBlock(2), RC_OK);
    const K9eReplBlock& fresh = blocks.At(2);
    ASSERT_EQ(&fresh, &used) << "the pool keeps the block";
    EXPECT_EQ(fresh.used, 0U);
    EXPECT_EQ(fresh.lastRev, 0);
    EXPECT_EQ(fresh.reserved, 0U);
    EXPECT_EQ(fresh.pendingWrites, 0);
    EXPECT_EQ(fresh.flushedEnd, 0U);
}

TEST(BlockStore, FindsTheEntryThatHoldsARevision) {
    Store blocks;
    ASSERT_EQ(blocks.store.AddBlock(10), RC_OK);
    ASSERT_EQ(blocks.store.AddBlock(20), RC_OK);
    EXPECT_EQ(blocks.store.FindHolding(5)->first, 10) << "the first one for what lies before";
    EXPECT_EQ(blocks.store.FindHolding(10)->first, 10);
    EXPECT_EQ(blocks.store.FindHolding(19)->first, 10);
    EXPECT_EQ(blocks.store.FindHolding(21)->first, 20);
}

// --- Erasing -----------------------------------------------------------------------------------

TEST(EraseBlocksAfter, DoesNothingWithoutBlocks) {
    Store blocks;
    EXPECT_EQ(blocks.store.EraseBlocksAfter(0), RC_OK);
}

TEST(EraseBlocksAfter, ErasesBlocksThatBeginAboveTheRevision) {
    Store blocks;
    blocks.AddFlushed(4);
    ASSERT_EQ(blocks.store.EraseBlocksAfter(2), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys({1, 2}));
    EXPECT_EQ(blocks.InIndex(), Keys({1, 2, 3, 4})) << "they are still in the file";
    EXPECT_EQ(blocks.store.Index().at(3).block, nullptr);
}

TEST(EraseBlocksAfter, Revision0EmptiesTheCache) {
    Store blocks;
    blocks.AddFlushed(3);
    ASSERT_EQ(blocks.store.EraseBlocksAfter(0), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys());
}

TEST(EraseBlocksAfter, AnEntryWithoutABlockIsBadData) {
    Store blocks;
    blocks.AddFlushed(3);
    K9eReplBlock* const lost = &blocks.At(3);
    blocks.Map().at(3) = nullptr;
    const LogCapture log;
    EXPECT_EQ(blocks.store.EraseBlocksAfter(1), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Failed to erase block - NULL;block rev 3"), RC_BAD_DATA) << log;
    EXPECT_EQ(blocks.InMemory(), Keys({1, 2, 3})) << "the entries stay";
    blocks.Map().erase(2);  // given back before the fault was met
    blocks.Map().at(3) = lost;
}

// --- Shrinking ---------------------------------------------------------------------------------

TEST(Shrink, FreesTheFiftyOldestOf150Blocks) {
    Store blocks;
    blocks.AddFlushed(150);
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(blocks.store.Shrink(100, 150), RC_OK);
    EXPECT_EQ(blocks.InMemory().size(), 100U);
    EXPECT_EQ(blocks.InMemory().front(), 51);
    EXPECT_EQ(blocks.InIndex().size(), 150U);
    EXPECT_EQ(log.Texts(),
              std::vector<std::string>({"Before shrink: 150 blocks; to del: 50; lastFlushed: 150",
                                        "Shrank to 100 blocks"}));
}

TEST(Shrink, DoesNothingWhenThereAreNoMoreThanItKeeps) {
    Store blocks;
    blocks.AddFlushed(3);
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(blocks.store.Shrink(3, 3), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys({1, 2, 3}));
    EXPECT_TRUE(log.Messages().empty()) << log;
}

TEST(Shrink, StopsAtABlockThatBeginsAboveTheFlushedRevision) {
    Store blocks;
    blocks.AddFlushed(6);
    ASSERT_EQ(blocks.store.Shrink(1, 2), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys({3, 4, 5, 6}));
}

TEST(Shrink, StopsAtABlockThatHoldsAnUnflushedRecord) {
    Store blocks;
    blocks.AddFlushed(6);
    blocks.At(3).lastRev = 9;
    ASSERT_EQ(blocks.store.Shrink(1, 6), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys({3, 4, 5, 6}));
}

TEST(Shrink, StopsAtABlockWithQueuedWrites) {
    Store blocks;
    blocks.AddFlushed(6);
    blocks.At(2).pendingWrites = 1;
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(blocks.store.Shrink(1, 6), RC_OK);
    EXPECT_EQ(blocks.InMemory(), Keys({2, 3, 4, 5, 6}));
    EXPECT_TRUE(log.Has("Shrank to 5 blocks")) << log;
    blocks.At(2).pendingWrites = 0;
}

TEST(Shrink, AnEmptyBlockTakesItsIndexEntryWithIt) {
    Store blocks;
    blocks.AddFlushed(3);
    blocks.At(2).used = 0;
    blocks.At(2).lastRev = 0;
    *blocks.store.FileOffsetOf(2) = kUnknownOffset;
    ASSERT_EQ(blocks.store.Shrink(1, 3), RC_OK);
    EXPECT_EQ(blocks.InIndex(), Keys({1, 3}));
}

TEST(Shrink, AnEntryWithoutABlockStopsEverything) {
    Store blocks;
    blocks.AddFlushed(4);
    K9eReplBlock* const lost = &blocks.At(2);
    blocks.Map().at(2) = nullptr;
    const LogCapture log;
    EXPECT_EQ(blocks.store.Shrink(1, 4), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("NULL block header;block rev 2"), RC_BAD_DATA) << log;
    EXPECT_EQ(blocks.InMemory(), Keys({2, 3, 4}));
    blocks.Map().at(2) = lost;
}

}  // namespace k9erepl::test
