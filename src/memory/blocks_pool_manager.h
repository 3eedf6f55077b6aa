// A pool of raw memory blocks of one size. The engine takes its memory blocks from one, the
// asynchronous writer its copies of commit blocks from another.
#ifndef K9EREPL_MEMORY_BLOCKS_POOL_MANAGER_H
#define K9EREPL_MEMORY_BLOCKS_POOL_MANAGER_H

#include "platform/int_types.h"
#include "platform/lock.h"

namespace k9erepl {

// Keeps returned blocks, up to a limit, on a free list (last in, first out), and nothing else. No
// block is allocated ahead of need. A block that was given out belongs to its owner, who returns it
// before the pool is destroyed. The list runs through the free blocks themselves, so the limit
// costs no memory and ReleaseBlock never allocates. All functions but SetBlockSize may be called
// from any thread.
class CBlocksPoolManager {
  public:
    // A pool that needs SetBlockSize before its first block and keeps no free ones until
    // SetMaxBlocks.
    CBlocksPoolManager() : CBlocksPoolManager(0, 0) {}
    // `blockSize` is in bytes, `freeBlockLimit` in blocks (setting memory_reserve, for the
    // engine's).
    CBlocksPoolManager(u32 blockSize, u32 freeBlockLimit);
    virtual ~CBlocksPoolManager();
    CBlocksPoolManager(const CBlocksPoolManager&) = delete;
    CBlocksPoolManager& operator=(const CBlocksPoolManager&) = delete;

    // Sets the bytes of every block, and how many more are allocated behind them, which messages
    // leave out. REQUIRES: no block was allocated yet; a block has room for a pointer; both
    // together fit 32 bits.
    void SetBlockSize(u32 size, u32 more = 0) {
        m_blockSize = size;
        m_more = more;
    }
    // Sets how many free blocks are kept at most. Those that are free already stay, even when there
    // are more than a lower limit allows.
    void SetMaxBlocks(u32 limit);

    // Returns a block whose bytes are not set. When there is no memory, logs an error and returns
    // null.
    void* AllocBlock();
    // Takes back a block of AllocBlock: keeps it, or gives it to the heap when enough are free.
    // REQUIRES: block is not null.
    void ReleaseBlock(void* block);
    // Gives every free block back to the heap.
    void FreeAll();

  private:
    // Lies at the beginning of a block while it is free.
    struct FreeBlock {
        FreeBlock* next;  // null at the end of the list
    };

    // Returns null when no block is free.
    void* TakeFree();

    u32 m_blockSize;  // bytes; 0 until it is set
    u32 m_more = 0;   // bytes that are allocated behind each block

    platform::RecursiveLock m_lock;
    u32 m_freeBlockLimit;  // guarded by m_lock; blocks, 0 keeps none
    u32 m_freeCount = 0;   // guarded by m_lock; blocks on the list
    // Guarded by m_lock: the block that came back last; null when none is free.
    FreeBlock* m_free = nullptr;
};

}  // namespace k9erepl

#endif  // K9EREPL_MEMORY_BLOCKS_POOL_MANAGER_H
