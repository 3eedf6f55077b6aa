// A pool of raw memory blocks of one size. The engine takes its memory blocks from one, the
// asynchronous writer its copies of commit blocks from another.
#ifndef K9EREPL_MEMORY_BLOCKS_POOL_MANAGER_H
#define K9EREPL_MEMORY_BLOCKS_POOL_MANAGER_H

#include "platform/int_types.h"
#include "platform/lock.h"

namespace k9erepl {

// Keeps up to a limit of returned blocks on a free list (last in, first out) and nothing else: no
// block is allocated ahead of need, and blocks that are out are their owners' to return before
// the pool dies. The list runs through the free blocks themselves, so the limit costs nothing and
// ReleaseBlock never allocates. Thread-safe, but for SetBlockSize.
class CBlocksPoolManager {
  public:
    CBlocksPoolManager() : CBlocksPoolManager(0, 0) {}
    CBlocksPoolManager(u32 blockSize, u32 freeBlockLimit);
    virtual ~CBlocksPoolManager();
    CBlocksPoolManager(const CBlocksPoolManager&) = delete;
    CBlocksPoolManager& operator=(const CBlocksPoolManager&) = delete;

    // Bytes of every block allocated from now on. REQUIRES: no block was allocated yet; a block has
    // room for a pointer.
    void SetBlockSize(u32 size) { m_blockSize = size; }
    // The most free blocks to keep. Blocks that are free already stay, also above a lower limit.
    void SetMaxBlocks(u32 limit);

    // A block whose bytes are not set; null, after an error is logged, when there is no memory.
    void* AllocBlock();
    // Takes back a block from AllocBlock. REQUIRES: block is not null.
    void ReleaseBlock(void* block);
    // Gives every free block back to the heap.
    void FreeAll();

  private:
    // The beginning of a block while it is free.
    struct FreeBlock {
        FreeBlock* next;
    };

    void* TakeFree();

    u32 m_blockSize;  // bytes

    platform::RecursiveLock m_lock;
    u32 m_freeBlockLimit;         // guarded by m_lock
    u32 m_freeCount = 0;          // guarded by m_lock
    FreeBlock* m_free = nullptr;  // guarded by m_lock; the block that came back last
};

}  // namespace k9erepl

#endif  // K9EREPL_MEMORY_BLOCKS_POOL_MANAGER_H
