// Placing records into blocks: layout, room, limits, failures.
#include "engine/block_inserter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "engine/storage_fixture.h"
#include "solid/file_format.h"
#include "support/fault_injection.h"
#include "support/fixed_log.h"
#include "support/log_capture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

constexpr u32 kSmallest = 138;

// A block list with its pool and an inserter over it; blocks of 138 bytes unless said otherwise.
struct Blocks {
    explicit Blocks(u32 blockSize = kSmallest) {
        pool.SetBlockSize(blockSize + kBlockOverhead);
        inserter.blocks = &list;
        inserter.capacity = blockSize;
    }
    ~Blocks() { EXPECT_EQ(list.EraseAll(), RC_OK); }
    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;

    u32 Place(i64 rev, std::size_t dataSize, i64 fileOffset = kUnknownOffset) {
        Record record(std::string(dataSize, 'x'), 0, rev);
        return inserter.Place(*record.Get(), fileOffset);
    }
    std::vector<i64> Keys() const {
        std::vector<i64> keys;
        for (const auto& [key, block] : list.Blocks()) {
            keys.push_back(key);
        }
        return keys;
    }

    CBlocksPoolManager pool;
    BlockList list{pool};
    BlockInserter inserter;
};

}  // namespace

TEST(BlockInserter, LaysARecordOutBehindItsSignatureAndSize) {
    Blocks blocks;
    Record record("abc", 0x11223344, 7);
    ASSERT_EQ(blocks.inserter.Place(*record.Get(), kUnknownOffset), RC_OK);
    const std::vector<u8> expected{0x2A, 0x2D, 0x3A, 0x7B, 27,   0,    0, 0, 7, 0, 0,   0,   0,  0,
                                   0,    0,    0x44, 0x33, 0x22, 0x11, 3, 0, 0, 0, 'a', 'b', 'c'};
    const K9eReplBlock& block = blocks.list.Newest();
    EXPECT_EQ(block.used, expected.size());
    EXPECT_EQ(block.lastRev, 7);
    EXPECT_EQ(std::memcmp(block.Data(), expected.data(), expected.size()), 0);
}

TEST(BlockInserter, PlacesRecordsBehindEachOtherWithoutPadding) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 1), RC_OK);
    ASSERT_EQ(blocks.Place(2, 0), RC_OK);
    const K9eReplBlock& block = blocks.list.Newest();
    EXPECT_EQ(block.used, 25U + 24U);
    EXPECT_EQ(block.lastRev, 2);
    EXPECT_EQ(LoadUnaligned<u32>(block.Data() + 25), kRecordSignature);
}

TEST(BlockInserter, A114ByteRecordFitsTheSmallestBlockExactly) {
    Blocks blocks;
    EXPECT_EQ(blocks.Place(1, 114), RC_OK);
    EXPECT_EQ(blocks.list.Newest().used, kSmallest);
}

TEST(BlockInserter, A115ByteRecordIsRefusedByTheSmallestBlock) {
    Blocks blocks;
    LogCapture log;
    EXPECT_EQ(blocks.Place(1, 115), RC_INVALID_ARG);
    EXPECT_EQ(log.CodeOf("Rec size with header 139 exceeds free block size 138"), RC_INVALID_ARG);
}

TEST(BlockInserter, ARefusedRecordLeavesAnEmptyBlockBehind) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 10), RC_OK);
    ASSERT_EQ(blocks.Place(2, 115), RC_INVALID_ARG);
    EXPECT_EQ(blocks.Keys(), std::vector<i64>({1, 2}));
    EXPECT_EQ(blocks.list.Newest().used, 0U);
    EXPECT_TRUE(blocks.list.Index().at(2).IsEmptyBlock());
}

TEST(BlockInserter, TheNextRecordFillsAnEmptyBlockUnderItsOldKey) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 115), RC_INVALID_ARG);
    ASSERT_EQ(blocks.Place(2, 10), RC_OK);
    EXPECT_EQ(blocks.Keys(), std::vector<i64>({1}));
    EXPECT_EQ(blocks.list.Newest().lastRev, 2);
}

TEST(BlockInserter, ARecordThatDoesNotFitTheRestOpensABlockUnderItsRevision) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 60), RC_OK);
    ASSERT_EQ(blocks.Place(2, 60), RC_OK);
    ASSERT_EQ(blocks.Place(3, 1), RC_OK);  // would fit the first block, but comes later
    EXPECT_EQ(blocks.Keys(), std::vector<i64>({1, 2}));
    EXPECT_EQ(blocks.list.Blocks().at(1)->used, 84U);
    EXPECT_EQ(blocks.list.Blocks().at(2)->used, 84U + 25U);
}

TEST(BlockInserter, TheFirstRecordFixesTheFileOffsetOfItsBlock) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 10, 1056), RC_OK);
    ASSERT_EQ(blocks.Place(2, 10, 1090), RC_OK);
    EXPECT_EQ(blocks.list.Index().at(1).fileOffset, 1056);
}

TEST(BlockInserter, ANewRecordLeavesTheFileOffsetUnknown) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 10), RC_OK);
    EXPECT_EQ(blocks.list.Index().at(1).fileOffset, kUnknownOffset);
}

TEST(BlockInserter, CountsTheBytesOfPlacedRecordsOnly) {
    Blocks blocks;
    u64 counter = 100;
    blocks.inserter.dataCounter = &counter;
    ASSERT_EQ(blocks.Place(1, 10), RC_OK);
    ASSERT_EQ(blocks.Place(2, 115), RC_INVALID_ARG);
    EXPECT_EQ(counter, 100U + 34U);
}

TEST(BlockInserter, ASizeNear4GiBIsRefusedInsteadOfWrapped) {
    Blocks blocks;
    LogCapture log;
    Record record("", 0, 1);
    record->dataSize = 0xFFFFFFF0;
    EXPECT_EQ(blocks.inserter.Place(*record.Get(), kUnknownOffset), RC_INVALID_ARG);
    EXPECT_TRUE(log.Has("Rec size with header 4294967304 exceeds free block size 138")) << log;
}

TEST(BlockInserter, ARecordThatCouldNotBeReadBackIsRefusedWithoutABlock) {
    Blocks blocks;
    blocks.inserter.maxRecordSize = 100;
    LogCapture log;
    EXPECT_EQ(blocks.Place(1, 76), RC_OK);
    EXPECT_EQ(blocks.Place(2, 77), RC_INVALID_ARG);
    EXPECT_EQ(log.CodeOf("Rec size with header 101 exceeds free block size 100"), RC_INVALID_ARG);
    EXPECT_EQ(blocks.Keys(), std::vector<i64>({1}));
}

TEST(BlockInserter, AnExhaustedPoolAnswersNoMemoryAndChangesNothing) {
    const ScopedSystemCalls systemCalls;
    Blocks blocks;
    LogCapture log({"k9eRepl-storage"});
    FailAlloc(1);
    EXPECT_EQ(blocks.Place(1, 10), RC_NO_MEMORY);
    EXPECT_EQ(log.CodeOf("Failed to alloc next data block"), RC_NO_MEMORY);
    EXPECT_FALSE(log.Has("Failed to add a new block"));
    EXPECT_TRUE(blocks.Keys().empty());
    EXPECT_TRUE(blocks.list.Index().empty());
    EXPECT_EQ(blocks.Place(1, 10), RC_OK);
}

TEST(BlockInserter, AMapWithoutMemoryTakesNothingAndGivesTheBlockBack) {
    for (u32 nth = 1; nth <= 2; ++nth) {  // the entry of the index, that of the memory map
        Blocks blocks;
        const FixedLog log;
        Record record("x", 0, 1);
        u32 rc = RC_OK;
        {
            const FailNthNew fault(nth);
            rc = blocks.inserter.Place(*record.Get(), kUnknownOffset);
        }
        EXPECT_EQ(rc, RC_NO_MEMORY);
        EXPECT_TRUE(log.HasError("Failed to add a new block", RC_NO_MEMORY));
        EXPECT_TRUE(log.HasError("Failed to alloc next data block", RC_NO_MEMORY));
        EXPECT_TRUE(blocks.Keys().empty());
        EXPECT_TRUE(blocks.list.Index().empty());
    }
}

TEST(BlockInserter, PlacingIntoABlockWithRoomAllocatesNothing) {
    Blocks blocks(4096);
    ASSERT_EQ(blocks.Place(1, 10), RC_OK);
    Record record("text", 0, 2);
    const u64 before = NewCallsOfThisThread();
    ASSERT_EQ(blocks.inserter.Place(*record.Get(), kUnknownOffset), RC_OK);
    EXPECT_EQ(NewCallsOfThisThread(), before);
}

}  // namespace k9erepl::test
