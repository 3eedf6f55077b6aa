// A pool of raw memory blocks of one size. The engine takes its memory blocks from one, the
// asynchronous writer its copies of commit blocks from another.
#ifndef K9EREPL_MEMORY_BLOCKS_POOL_MANAGER_H
#define K9EREPL_MEMORY_BLOCKS_POOL_MANAGER_H

#include <vector>

#include "platform/int_types.h"
#include "platform/lock.h"

namespace k9erepl {

// Keeps up to a limit of returned blocks on a free list (last in, first out) and nothing else: no
// block is allocated ahead of need, and blocks that are out are their owners' to return before
// the pool dies. Thread-safe, but for SetBlockSize.
class CBlocksPoolManager {
  public:
    CBlocksPoolManager() : CBlocksPoolManager(0, 0) {}
    // May throw std::bad_alloc.
    CBlocksPoolManager(u32 blockSize, u32 freeBlockLimit);
    virtual ~CBlocksPoolManager();
    CBlocksPoolManager(const CBlocksPoolManager&) = delete;
    CBlocksPoolManager& operator=(const CBlocksPoolManager&) = delete;

    // Bytes of every block allocated from now on. REQUIRES: no block was allocated yet.
    void SetBlockSize(u32 size) { m_blockSize = size; }
    // The most free blocks to keep. Reserves room for that many pointers, so that ReleaseBlock
    // never allocates; false when there is no memory for that (the limit is then unchanged).
    // Blocks that are free already stay, also above a lower limit.
    bool SetMaxBlocks(u32 limit);

    // A block whose bytes are not set; null, after an error is logged, when there is no memory.
    void* AllocBlock();
    // Takes back a block from AllocBlock. REQUIRES: block is not null.
    void ReleaseBlock(void* block);
    // Gives every free block back to the heap.
    void FreeAll();

  private:
    void* TakeFree();

    u32 m_blockSize;

    platform::RecursiveLock m_lock;
    u32 m_freeBlockLimit;       // guarded by m_lock
    std::vector<void*> m_free;  // guarded by m_lock; its capacity is at least the limit
};

}  // namespace k9erepl

#endif  // K9EREPL_MEMORY_BLOCKS_POOL_MANAGER_H
