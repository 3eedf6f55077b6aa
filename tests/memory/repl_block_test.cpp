// The head of a memory block: its layout is one on every target, and clients' bytes begin behind
// it.
#include "memory/repl_block.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

namespace k9erepl::test {
namespace {

using Bytes = std::array<u8, kBlockHeadSize + 4>;

struct alignas(K9eReplBlock) Memory {
    Bytes bytes;
};

// A block as the engine makes one: what is not zeroed by name keeps what the memory held.
K9eReplBlock* MakeBlock(Memory& memory) {
    memory.bytes.fill(0xEE);
    std::memset(memory.bytes.data(), 0, kZeroedHeadSize);
    return std::launder(reinterpret_cast<K9eReplBlock*>(memory.bytes.data()));
}

TEST(ReplBlock, HeadIs64BytesWithEveryFieldInItsPlace) {
    EXPECT_EQ(sizeof(K9eReplBlock), 64U);
    EXPECT_EQ(offsetof(K9eReplBlock, name), 0U);
    EXPECT_EQ(offsetof(K9eReplBlock, used), 16U);
    EXPECT_EQ(offsetof(K9eReplBlock, lastRev), 24U);
    EXPECT_EQ(offsetof(K9eReplBlock, reserved), 32U);
    EXPECT_EQ(offsetof(K9eReplBlock, pendingWrites), 36U);
    EXPECT_EQ(offsetof(K9eReplBlock, flushedEnd), 40U);
    EXPECT_EQ(kBlockHeadSize, 64U);
    EXPECT_EQ(kBlockTailSize, 32U);
    EXPECT_EQ(kBlockOverhead, 96U);
}

TEST(ReplBlock, ZeroedPartEndsBeforeTheFlushedEndAndDataBeginsBehindTheHead) {
    Memory memory;
    K9eReplBlock* const block = MakeBlock(memory);
    EXPECT_EQ(block->used, 0U);
    EXPECT_EQ(block->lastRev, 0);
    EXPECT_EQ(block->pendingWrites.load(), 0);
    EXPECT_EQ(block->flushedEnd, 0xEEEEEEEEEEEEEEEEU);
    EXPECT_EQ(block->Data(), memory.bytes.data() + 64);
    EXPECT_EQ(static_cast<const K9eReplBlock*>(block)->Data(), memory.bytes.data() + 64);
    block->used = 0x0102030405060708;
    block->pendingWrites = 3;
    EXPECT_EQ(memory.bytes[16], 0x08);
    EXPECT_EQ(memory.bytes[23], 0x01);
    EXPECT_EQ(memory.bytes[36], 3);
}

}  // namespace
}  // namespace k9erepl::test
