// The blocks of the storage: the ordered map of those held in memory, and the block index, which
// also lists those that are only in the file. The storage object owns one; block_inserter.h fills
// it.
#ifndef K9EREPL_ENGINE_BLOCK_LIST_H
#define K9EREPL_ENGINE_BLOCK_LIST_H

#include <map>

#include "index/block_index.h"
#include "memory/blocks_pool_manager.h"
#include "memory/repl_block.h"
#include "platform/int_types.h"

namespace k9erepl {

// The lowest revision that the block may hold to block.
using MemoryBlocks = std::map<i64, K9eReplBlock*>;

// Blocks come from and return to the pool. A block held in memory has an entry in both maps under
// the same revision; its index entry points at it. Guarded by the storage's lock.
class BlockList {
  public:
    explicit BlockList(CBlocksPoolManager& pool) : m_pool(pool) {}
    BlockList(const BlockList&) = delete;
    BlockList& operator=(const BlockList&) = delete;

    MemoryBlocks& Blocks() { return m_blocks; }
    const MemoryBlocks& Blocks() const { return m_blocks; }
    BlockIndex& Index() { return m_index; }
    const BlockIndex& Index() const { return m_index; }
    CBlocksPoolManager& Pool() { return m_pool; }

    // The block with the highest key. REQUIRES: a block is held in memory.
    K9eReplBlock& Newest() { return *m_blocks.rbegin()->second; }

    // The index entry of the block that holds `rev`: the last one whose key is not above it, or
    // the first one. REQUIRES: the index is not empty.
    BlockIndex::iterator FindHolding(i64 rev);

    // Adds an empty block from the pool under `firstRev`, which is above every key.
    // Errors: RC_NO_MEMORY, nothing changed.
    u32 AddBlock(i64 firstRev);

    // Returns every memory block whose key is above `rev` to the pool; the index keeps their
    // entries. Errors: RC_BAD_DATA when the map holds no block under a key.
    u32 EraseBlocksAfter(i64 rev);
    // Removes every index entry whose key is above `rev`.
    void EraseIndexAfter(i64 rev);
    // Both, for everything.
    u32 EraseAll();
    // Forgets everything but leaves all of it allocated, for a thread that may still use it.
    void Abandon();

    // Releases memory blocks, oldest first, until `keep` are left, but none that holds a record
    // above `flushedRev` or has queued writes. An empty block's index entry goes with it, for it
    // has no bytes in the file. Errors: as EraseBlocksAfter.
    u32 Shrink(std::size_t keep, i64 flushedRev);

    // Forgets the blocks that lie wholly below `rev`, in memory and in the index.
    void DropBelow(i64 rev);

    // Forgets the records above `rev`: later blocks go, the block that holds `rev` is cut.
    // Errors: RC_BAD_DATA for a block that does not hold whole records.
    u32 CutAfter(i64 rev);

    // Forgets the first block of the index, in memory too. REQUIRES: the index is not empty.
    void DropFirst();

    // Takes the first index entry out and enters it again under `key`, with the record `firstRev`
    // at `fileOffset`. A block in memory whose key was below `key` loses its first `cutBytes`
    // bytes. REQUIRES: the index is not empty; cutBytes is a sum of record sizes of that block.
    void RekeyFirst(i64 key, i64 firstRev, i64 fileOffset, u64 cutBytes);

    // Changes whenever records or blocks moved or went, so that a walk which gave control away
    // knows that its place is gone. Appending to a block does not count.
    u64 Generation() const { return m_generation; }
    void Touch() { ++m_generation; }

  private:
    void DetachFromIndex(i64 key);

    CBlocksPoolManager& m_pool;
    MemoryBlocks m_blocks;
    BlockIndex m_index;
    u64 m_generation = 0;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_BLOCK_LIST_H
