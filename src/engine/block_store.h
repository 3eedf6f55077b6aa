// The memory of a storage: its blocks, those held in memory and those that are only in the file,
// and how far the revisions in them go. Transactions and loads place records here, flushes take
// them, walks read them, clears cut them. The storage object owns one.
#ifndef K9EREPL_ENGINE_BLOCK_STORE_H
#define K9EREPL_ENGINE_BLOCK_STORE_H

#include <k9erepl/storage.h>

#include <atomic>
#include <cassert>
#include <limits>
#include <map>

#include "index/block_index.h"
#include "memory/blocks_pool_manager.h"
#include "memory/repl_block.h"
#include "platform/int_types.h"

namespace k9erepl {

// The lowest revision that the block may hold to block.
using MemoryBlocks = std::map<i64, K9eReplBlock*>;

// A block held in memory has an entry in both maps under the same revision; its index entry points
// at it. Blocks in memory are the newest ones. Guarded by the storage's lock, except NextRev().
class BlockStore {
  public:
    static constexpr u64 kAnyRecordSize = std::numeric_limits<u64>::max();

    BlockStore() = default;
    BlockStore(const BlockStore&) = delete;
    BlockStore& operator=(const BlockStore&) = delete;

    // Blocks take `blockSize` bytes of records; up to `freeBlocks` blocks that are not needed any
    // more stay allocated. `maxRecordSize` is the largest record, its head included, that can be
    // read back; it may be smaller than a block. REQUIRES: no block was added yet.
    void SetUp(u32 blockSize, u32 freeBlocks, u64 maxRecordSize = kAnyRecordSize);
    // Forgets all records: nothing is held, served or in the file. The next revision stays.
    void Clear();
    // The same, and the revisions begin again with 1.
    void Reset();
    // Forgets all blocks but leaves them allocated, for a thread that may still use them.
    void Abandon();

    // --- Looking

    const MemoryBlocks& Blocks() const { return m_blocks; }
    const BlockIndex& Index() const { return m_index; }
    // The block with the highest key. REQUIRES: a block is held in memory.
    K9eReplBlock& Newest() {
        assert(!m_blocks.empty());
        return *m_blocks.rbegin()->second;
    }
    // The index entry of the block that holds `rev`: the last one whose key is not above it, or
    // the first one. REQUIRES: the index is not empty.
    BlockIndex::const_iterator FindHolding(i64 rev) const;
    // Where the block under `key` says where it lies in the file, for a writer to fill in. Null
    // when the index has no such block.
    std::atomic<i64>* FileOffsetOf(i64 key);
    // Changes whenever records or blocks moved or went, so that a walk which gave control away
    // knows that its place is gone. Appending to a block does not count.
    u64 Generation() const { return m_generation; }

    // --- How far the revisions go

    // The revision that the next record receives, 1 in a new storage. Needs no lock.
    i64 NextRev() const { return m_nextRev.load(std::memory_order_acquire); }
    void SetNextRev(i64 rev) { m_nextRev.store(rev, std::memory_order_release); }
    // The lowest revision that is still served; 0: all.
    i64 OldestRev() const { return m_oldestRev; }
    // A walk that is under way passes over what lies below.
    void SetOldestRev(i64 rev);
    // The highest revision in the file; 0: none.
    i64 FlushedRev() const { return m_flushedRev; }
    void SetFlushedRev(i64 rev) { m_flushedRev = rev; }
    // The file's first record is not the storage's first one.
    bool BeginMoved() const { return m_beginMoved; }
    void SetBeginMoved(bool moved) { m_beginMoved = moved; }

    // --- Adding

    // Copies `rec` behind its head into the newest block, or into a new one when it does not fit.
    // `fileOffset` is where the record lies in the file, kUnknownOffset for a new record.
    // Errors: RC_NO_MEMORY; RC_INVALID_ARG for a record that fits no block, which leaves an empty
    // block behind. REQUIRES: SetUp was called; the revision is above that of every record.
    [[nodiscard]] u32 Place(const K9eReplRec& rec, i64 fileOffset);
    // Adds an empty block from the pool under `firstRev`. Errors: RC_NO_MEMORY, nothing changed.
    // REQUIRES: `firstRev` is above every key.
    [[nodiscard]] u32 AddBlock(i64 firstRev);
    // Adds a block that is only in the file. Throws std::bad_alloc. REQUIRES: as AddBlock, and no
    // block is held in memory.
    void AddBlockInFile(i64 firstRev, i64 fileOffset);

    // --- Removing the newest

    // Returns every memory block whose key is above `rev` to the pool; the index keeps their
    // entries. Errors: RC_BAD_DATA when the map holds no block under a key.
    [[nodiscard]] u32 EraseBlocksAfter(i64 rev);
    // Removes every index entry whose key is above `rev`.
    void EraseIndexAfter(i64 rev);
    // Forgets the records above `rev`: later blocks go, the block that holds `rev` is cut.
    // Errors: RC_BAD_DATA for a block that does not hold whole records.
    [[nodiscard]] u32 CutAfter(i64 rev);
    // The same for a rollback, which knows that the block that holds `rev` ended at `used` bytes.
    // Errors: as EraseBlocksAfter. REQUIRES: the newest block that stays has as many bytes.
    [[nodiscard]] u32 CutBackTo(i64 rev, u64 used);

    // --- Removing the oldest

    // Releases memory blocks, oldest first, until `keep` are left, but none that holds a record
    // above `flushedRev` or has queued writes. An empty block's index entry goes with it, for it
    // has no bytes in the file. Errors: as EraseBlocksAfter.
    [[nodiscard]] u32 Shrink(std::size_t keep, i64 flushedRev);
    // Forgets the blocks that lie wholly below `rev`, in memory and in the index.
    void DropBelow(i64 rev);
    // Forgets the first block of the index, in memory too. REQUIRES: the index is not empty.
    void DropFirst();
    // Forgets every block before the one under `key`, and that one, too, if the next one begins at
    // or below `firstRev`. REQUIRES: the index has an entry under `key`.
    void DropBefore(i64 key, i64 firstRev);
    // Takes the first index entry out and enters it again under `key`, with the record `firstRev`
    // at `fileOffset`. A block in memory whose key was below `key` loses its first `cutBytes`
    // bytes. REQUIRES: the index is not empty; cutBytes is a sum of record sizes of that block.
    void RekeyFirst(i64 key, i64 firstRev, i64 fileOffset, u64 cutBytes);
    // Everything in the file lies `shift` bytes further behind.
    void MoveOffsets(i64 shift);
    // Forgets all blocks of a storage whose revisions go on: the oldest revision becomes the one
    // that a load of the emptied file would give.
    void ForgetEverything();

  private:
    friend struct StorageAccess;  // the tests' eyes

    [[nodiscard]] u32 FindRoom(i64 rev, u64 need, K9eReplBlock** room);
    void DetachFromIndex(i64 key);
    void EraseAll();
    void Touch() { ++m_generation; }

    // --- Constant after SetUp
    u32 m_capacity = 0;       // bytes of a block's data area; 0 before SetUp
    u64 m_maxRecordSize = 0;  // bytes

    // --- Read by anyone
    std::atomic<i64> m_nextRev{1};

    // --- Guarded by the storage's lock
    CBlocksPoolManager m_pool;  // where blocks come from and return to
    MemoryBlocks m_blocks;
    BlockIndex m_index;
    u64 m_generation = 0;
    i64 m_oldestRev = 0;
    i64 m_flushedRev = 0;
    bool m_beginMoved = false;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_BLOCK_STORE_H
