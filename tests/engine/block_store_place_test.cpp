// Placing records into blocks: layout, room, limits, failures.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "engine/storage_fixture.h"
#include "format/storage_file_format.h"
#include "support/fault_injection.h"
#include "support/fixed_log.h"
#include "support/log_capture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

constexpr u32 kSmallest = 138;

// A store with blocks of 138 bytes unless said otherwise.
struct Blocks {
    explicit Blocks(u32 blockSize = kSmallest, u64 maxRecordSize = BlockStore::kAnyRecordSize) {
        store.SetUp(blockSize, 0, maxRecordSize);
    }
    ~Blocks() { store.Reset(); }
    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;

    u32 Place(i64 rev, std::size_t dataSize, i64 fileOffset = kUnknownOffset) {
        Record record(std::string(dataSize, 'x'), 0, rev);
        return store.Place(*record.Get(), fileOffset);
    }
    std::vector<i64> Keys() const {
        std::vector<i64> keys;
        for (const auto& [key, block] : store.Blocks()) {
            keys.push_back(key);
        }
        return keys;
    }

    BlockStore store;
};

}  // namespace

TEST(Placing, LaysARecordOutBehindItsSignatureAndSize) {
    Blocks blocks;
    Record record("abc", 0x11223344, 7);
    ASSERT_EQ(blocks.store.Place(*record.Get(), kUnknownOffset), RC_OK);
    const std::vector<u8> expected{0x2A, 0x2D, 0x3A, 0x7B, 27,   0,    0, 0, 7, 0, 0,   0,   0,  0,
                                   0,    0,    0x44, 0x33, 0x22, 0x11, 3, 0, 0, 0, 'a', 'b', 'c'};
    const K9eReplBlock& block = blocks.store.Newest();
    EXPECT_EQ(block.used, expected.size());
    EXPECT_EQ(block.lastRev, 7);
    EXPECT_EQ(std::memcmp(block.Data(), expected.data(), expected.size()), 0);
}

TEST(Placing, PlacesRecordsBehindEachOtherWithoutPadding) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 1), RC_OK);
    ASSERT_EQ(blocks.Place(2, 0), RC_OK);
    const K9eReplBlock& block = blocks.store.Newest();
    EXPECT_EQ(block.used, 25U + 24U);
    EXPECT_EQ(block.lastRev, 2);
    EXPECT_EQ(LoadUnaligned<u32>(block.Data() + 25), kRecordSignature);
}

TEST(Placing, A114ByteRecordFitsTheSmallestBlockExactly) {
    Blocks blocks;
    EXPECT_EQ(blocks.Place(1, 114), RC_OK);
    EXPECT_EQ(blocks.store.Newest().used, kSmallest);
}

TEST(Placing, A115ByteRecordIsRefusedByTheSmallestBlock) {
    Blocks blocks;
    LogCapture log;
    EXPECT_EQ(blocks.Place(1, 115), RC_INVALID_ARG);
    EXPECT_EQ(log.CodeOf("Rec size with header 139 exceeds free block size 138"), RC_INVALID_ARG);
}

TEST(Placing, ARefusedRecordLeavesAnEmptyBlockBehind) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 10), RC_OK);
    ASSERT_EQ(blocks.Place(2, 115), RC_INVALID_ARG);
    EXPECT_EQ(blocks.Keys(), std::vector<i64>({1, 2}));
    EXPECT_EQ(blocks.store.Newest().used, 0U);
    EXPECT_TRUE(blocks.store.Index().at(2).IsEmptyBlock());
}

TEST(Placing, TheNextRecordFillsAnEmptyBlockUnderItsOldKey) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 115), RC_INVALID_ARG);
    ASSERT_EQ(blocks.Place(2, 10), RC_OK);
    EXPECT_EQ(blocks.Keys(), std::vector<i64>({1}));
    EXPECT_EQ(blocks.store.Newest().lastRev, 2);
}

TEST(Placing, ARecordThatDoesNotFitTheRestOpensABlockUnderItsRevision) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 60), RC_OK);
    ASSERT_EQ(blocks.Place(2, 60), RC_OK);
    ASSERT_EQ(blocks.Place(3, 1), RC_OK);  // would fit the first block, but comes later
    EXPECT_EQ(blocks.Keys(), std::vector<i64>({1, 2}));
    EXPECT_EQ(blocks.store.Blocks().at(1)->used, 84U);
    EXPECT_EQ(blocks.store.Blocks().at(2)->used, 84U + 25U);
}

TEST(Placing, TheFirstRecordFixesTheFileOffsetOfItsBlock) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 10, 1056), RC_OK);
    ASSERT_EQ(blocks.Place(2, 10, 1090), RC_OK);
    EXPECT_EQ(blocks.store.Index().at(1).fileOffset, 1056);
}

TEST(Placing, ANewRecordLeavesTheFileOffsetUnknown) {
    Blocks blocks;
    ASSERT_EQ(blocks.Place(1, 10), RC_OK);
    EXPECT_EQ(blocks.store.Index().at(1).fileOffset, kUnknownOffset);
}

TEST(Placing, ASizeNear4GiBIsRefusedInsteadOfWrapped) {
    Blocks blocks;
    LogCapture log;
    Record record("", 0, 1);
    record->dataSize = 0xFFFFFFF0;
    EXPECT_EQ(blocks.store.Place(*record.Get(), kUnknownOffset), RC_INVALID_ARG);
    EXPECT_TRUE(log.Has("Rec size with header 4294967304 exceeds free block size 138")) << log;
}

TEST(Placing, ARecordThatCouldNotBeReadBackIsRefusedWithoutABlock) {
    Blocks blocks(kSmallest, 100);
    LogCapture log;
    EXPECT_EQ(blocks.Place(1, 76), RC_OK);
    EXPECT_EQ(blocks.Place(2, 77), RC_INVALID_ARG);
    EXPECT_EQ(log.CodeOf("Rec size with header 101 exceeds free block size 100"), RC_INVALID_ARG);
    EXPECT_EQ(blocks.Keys(), std::vector<i64>({1}));
}

TEST(Placing, AnExhaustedPoolAnswersNoMemoryAndChangesNothing) {
    const ScopedSystemCalls systemCalls;
    Blocks blocks;
    LogCapture log({"k9eRepl-storage"});
    FailAlloc(1);
    EXPECT_EQ(blocks.Place(1, 10), RC_NO_MEMORY);
    EXPECT_EQ(log.CodeOf("Failed to alloc next data block"), RC_NO_MEMORY);
    EXPECT_FALSE(log.Has("Failed to add a new block"));
    EXPECT_TRUE(blocks.Keys().empty());
    EXPECT_TRUE(blocks.store.Index().empty());
    EXPECT_EQ(blocks.Place(1, 10), RC_OK);
}

TEST(Placing, AMapWithoutMemoryTakesNothingAndGivesTheBlockBack) {
    for (u32 nth = 1; nth <= 2; ++nth) {  // the entry of the index, that of the memory map
        Blocks blocks;
        const FixedLog log;
        Record record("x", 0, 1);
        u32 rc = RC_OK;
        {
            const FailNthNew fault(nth);
            rc = blocks.store.Place(*record.Get(), kUnknownOffset);
        }
        EXPECT_EQ(rc, RC_NO_MEMORY);
        EXPECT_TRUE(log.HasError("Failed to add a new block", RC_NO_MEMORY));
        EXPECT_TRUE(log.HasError("Failed to alloc next data block", RC_NO_MEMORY));
        EXPECT_TRUE(blocks.Keys().empty());
        EXPECT_TRUE(blocks.store.Index().empty());
    }
}

TEST(Placing, PlacingIntoABlockWithRoomAllocatesNothing) {
    Blocks blocks(4096);
    ASSERT_EQ(blocks.Place(1, 10), RC_OK);
    Record record("text", 0, 2);
    const u64 before = NewCallsOfThisThread();
    ASSERT_EQ(blocks.store.Place(*record.Get(), kUnknownOffset), RC_OK);
    EXPECT_EQ(NewCallsOfThisThread(), before);
}

}  // namespace k9erepl::test
