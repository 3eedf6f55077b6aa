// The block pool: what it keeps, what it gives back, and what it says. The head of a memory block:
// its layout is one on every target, and clients' bytes begin behind it.
#include "memory/blocks_pool_manager.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "memory/repl_block.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

constexpr u32 kBlockSize = 234;
const std::string kFromPool = "Memory block allocated from pool";
const std::string kFromHeap = "Memory block allocated from heap";

using Texts = std::vector<std::string>;

class BlocksPool : public ::testing::Test {
  protected:
    std::vector<void*> Take(CBlocksPoolManager& pool, u32 count) {
        std::vector<void*> blocks(count);
        for (void*& block : blocks) {
            block = pool.AllocBlock();
        }
        return blocks;
    }

    void Return(CBlocksPoolManager& pool, const std::vector<void*>& blocks) {
        for (void* const block : blocks) {
            pool.ReleaseBlock(block);
        }
    }

    // Fills the pool's free list with `count` blocks.
    void Stock(CBlocksPoolManager& pool, u32 count) { Return(pool, Take(pool, count)); }

    // The log of taking `count` blocks, which then go back.
    Texts LogOfTaking(CBlocksPoolManager& pool, u32 count) {
        log.Clear();
        const std::vector<void*> blocks = Take(pool, count);
        Texts texts = log.Texts();
        Return(pool, blocks);
        return texts;
    }

    ScopedSystemCalls systemCalls;
    LogCapture log;
};

std::atomic<u32> g_freed{0};

void CountingFree(void* memory) {
    ++g_freed;
    platform::NativeSystemCalls().freeMemory(memory);
}

TEST_F(BlocksPool, WithALimitOfZeroEveryBlockComesFromTheHeapAndGoesBackToIt) {
    CBlocksPoolManager pool(kBlockSize, 0);
    platform::TheSystemCalls().freeMemory = CountingFree;
    g_freed = 0;
    Stock(pool, 2);
    EXPECT_EQ(g_freed, 2U);
    EXPECT_EQ(LogOfTaking(pool, 2), Texts({kFromHeap, kFromHeap}));
}

TEST_F(BlocksPool, KeepsNoMoreBlocksThanItsLimitAndGivesThemBackWhenItEnds) {
    platform::TheSystemCalls().freeMemory = CountingFree;
    g_freed = 0;
    {
        CBlocksPoolManager pool(kBlockSize, 2);
        Stock(pool, 3);
        EXPECT_EQ(g_freed, 1U);
        EXPECT_EQ(LogOfTaking(pool, 3), Texts({kFromPool, kFromPool, kFromHeap}));
        EXPECT_EQ(log.Messages().front().module, "k9eRepl-storage");
        EXPECT_EQ(log.Texts(K9SYS_LOG_INFO).size(), 3U);
        FailAlloc(1, 0, Repeat::kFromThenOn);
        EXPECT_EQ(LogOfTaking(pool, 1), Texts({kFromPool}));
        StopFailing(SystemCall::kAlloc);
    }
    EXPECT_EQ(g_freed, 4U);
}

TEST_F(BlocksPool, HandsOutTheBlockThatCameBackLast) {
    CBlocksPoolManager pool(kBlockSize, 2);
    const std::vector<void*> blocks = Take(pool, 2);
    Return(pool, blocks);
    EXPECT_EQ(pool.AllocBlock(), blocks[1]);
    EXPECT_EQ(pool.AllocBlock(), blocks[0]);
    Return(pool, blocks);
}

TEST_F(BlocksPool, AllocatesFromTheHeapAfterFreeAll) {
    CBlocksPoolManager pool(kBlockSize, 2);
    Stock(pool, 2);
    pool.FreeAll();
    EXPECT_EQ(LogOfTaking(pool, 1), Texts({kFromHeap}));
}

TEST_F(BlocksPool, AllocatesBlocksOfExactlyTheBlockSize) {
    CBlocksPoolManager pool;
    pool.SetBlockSize(kBlockSize);
    FailAlloc(1, kBlockSize + 1);
    Stock(pool, 1);
    FailAlloc(1, kBlockSize);
    EXPECT_EQ(pool.AllocBlock(), nullptr);
}

TEST_F(BlocksPool, SaysWhenTheHeapIsExhaustedAndStaysUsable) {
    CBlocksPoolManager pool(kBlockSize, 1);
    FailAlloc(1);
    EXPECT_EQ(pool.AllocBlock(), nullptr);
    const LoggedMessage expected{K9SYS_LOG_ERROR, "k9eRepl-storage",
                                 "Couldn't allocate memory for next block;block_size 234", 0};
    EXPECT_EQ(log.Messages(), std::vector{expected}) << log;
    EXPECT_EQ(LogOfTaking(pool, 1), Texts({kFromHeap}));
}

TEST_F(BlocksPool, ALimitReservesNothingAndReleasingUpToItAllocatesNothing) {
    constexpr u32 kHighest = std::numeric_limits<u32>::max();
    u64 before = NewCallsOfThisThread();
    CBlocksPoolManager pool(kBlockSize, kHighest);
    pool.SetMaxBlocks(kHighest);
    EXPECT_EQ(NewCallsOfThisThread(), before);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), 0U);
    EXPECT_TRUE(log.Messages().empty()) << log;
    const std::vector<void*> blocks = Take(pool, 100);
    before = NewCallsOfThisThread();
    Return(pool, blocks);
    EXPECT_EQ(NewCallsOfThisThread(), before);
    EXPECT_EQ(LogOfTaking(pool, 101).back(), kFromHeap);
}

TEST_F(BlocksPool, ALowerLimitLetsTheFreeBlocksStay) {
    CBlocksPoolManager pool(kBlockSize, 3);
    Stock(pool, 3);
    pool.SetMaxBlocks(1);
    EXPECT_EQ(LogOfTaking(pool, 3), Texts({kFromPool, kFromPool, kFromPool}));
    EXPECT_EQ(LogOfTaking(pool, 2), Texts({kFromPool, kFromHeap}));
}

TEST_F(BlocksPool, ThreadsNeverShareABlock) {
    CBlocksPoolManager pool(kBlockSize, 3);
    std::atomic<u32> shared{0};
    const auto work = [&](u8 mark) {
        for (int i = 0; i < 2000; ++i) {
            std::array<u8*, 2> blocks{};
            for (u8*& block : blocks) {
                block = static_cast<u8*>(pool.AllocBlock());
                std::memset(block, mark, kBlockSize);
            }
            for (u8* const block : blocks) {
                shared += block[0] != mark || block[kBlockSize - 1] != mark ? 1 : 0;
                pool.ReleaseBlock(block);
            }
        }
    };
    std::thread first(work, u8{1});
    std::thread second(work, u8{2});
    first.join();
    second.join();
    EXPECT_EQ(shared, 0U);
}

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
