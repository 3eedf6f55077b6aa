// The memory of a storage: its blocks, whether they are held in memory or lie only in the file, and
// the revisions up to which they go. Transactions and loads place records here, flushes take them,
// walks read them, clears cut them. The storage object owns one. docs/architecture.md describes the
// two maps ("Blocks and the two maps").
#ifndef K9EREPL_ENGINE_BLOCK_STORE_H
#define K9EREPL_ENGINE_BLOCK_STORE_H

#include <k9erepl/storage.h>

#include <atomic>
#include <cassert>
#include <cstring>
#include <limits>
#include <map>

#include "format/storage_file_format.h"
#include "index/block_index.h"
#include "index/file_notes.h"
#include "memory/block_notes.h"
#include "memory/blocks_pool_manager.h"
#include "memory/repl_block.h"
#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// Blocks held in memory. The key is the lowest revision that the block may hold; the block's first
// record may have a higher one. The block belongs to the pool of the store and is never null,
// except after an EraseBlocksAfter that failed.
using MemoryBlocks = std::map<i64, K9eReplBlock*>;

// A block held in memory has an entry in both maps under the same key, and its index entry points
// at it. Blocks that are only in the file have an index entry alone. Blocks in memory are the
// newest ones: in the index, no block without memory follows them.
//
// Only this class changes the maps. Everything is guarded by the storage's lock, except NextRev().
// Revisions rise from block to block and within a block.
class BlockStore {
  public:
    // No limit on a record's size but the size of a block: for a storage without a file.
    static constexpr u64 kAnyRecordSize = std::numeric_limits<u64>::max();

    BlockStore() = default;
    BlockStore(const BlockStore&) = delete;
    BlockStore& operator=(const BlockStore&) = delete;

    // To be called once, when the storage is opened. `blockSize` is the number of bytes for records
    // in a block (setting block_size). Up to `freeBlocks` blocks that are not needed any more stay
    // allocated for reuse (setting memory_reserve). `maxRecordSize` is the largest record in bytes,
    // its head included, that can be read back from the file; it may be smaller than a block.
    // REQUIRES: blockSize is above 0; no block was added yet.
    void SetUp(u32 blockSize, u32 freeBlocks, u64 maxRecordSize = kAnyRecordSize);
    // Forgets all records: no block is left, and the oldest and the flushed revision become 0. The
    // next revision stays.
    void Clear();
    // Does what Clear does, and the revisions begin again with 1.
    void Reset();
    // Forgets all blocks and index entries but leaves their memory allocated for ever, for a
    // writing thread that could not be ended and may still use them. Throws std::bad_alloc.
    void Abandon();

    // --- Looking

    // Both maps, for reading. An iterator is valid until Generation() changes.
    const MemoryBlocks& Blocks() const { return m_blocks; }
    const BlockIndex& Index() const { return m_index; }
    // The block with the highest key, to which records are appended.
    // REQUIRES: a block is held in memory.
    K9eReplBlock& Newest() {
        assert(m_newest.block != nullptr && m_newest == FindNewest());
        return *m_newest.block;
    }
    // Used bytes of that block; 0 when no block is held in memory.
    u64 NewestUsed() {
        assert(m_newest == FindNewest());
        return m_newest.block == nullptr ? 0 : m_newest.block->used;
    }
    // The index entry of the block that holds `rev`, or would hold it if there was such a record:
    // the last entry whose key is not above `rev`, or the first entry when `rev` is below all keys.
    // REQUIRES: the index is not empty.
    BlockIndex::const_iterator FindHolding(i64 rev) const;
    // The notes of a block of this store.
    BlockNotes NotesOf(K9eReplBlock& block) const { return {block, m_capacity}; }
    // Where a walk may begin that looks for records of `block` from `rev` on, in bytes from the
    // start of its data: no such record lies before it. A note that does not hold makes the block
    // forget its notes.
    u64 OffsetFor(K9eReplBlock& block, i64 rev) const;
    // True when the record that the note names begins where it says.
    static bool NoteHolds(const K9eReplBlock& block, const BlockNote& note);
    // The notes of blocks that are only in the file, for walks to use and to complete. Off until a
    // limit is set.
    FileNotes& NotesInFile() { return m_notesInFile; }
    // The place where the index entry under `key` keeps the block's file offset, for a writer to
    // fill in. It stays valid while the entry exists. Null when the index has no such entry.
    std::atomic<i64>* FileOffsetOf(i64 key);
    // A number that changes whenever blocks come or go, records move, or the oldest revision
    // changes. A walk that gave control to a callback compares it to learn that its place is gone.
    // Appending to a block does not change it.
    u64 Generation() const { return m_generation; }

    // --- How far the revisions go

    // The revision that the next record receives; 1 in a new storage. Needs no lock.
    i64 NextRev() const { return m_nextRev.load(std::memory_order_acquire); }
    // To be called under the storage's lock.
    void SetNextRev(i64 rev) { m_nextRev.store(rev, std::memory_order_release); }
    // The lowest revision that is still served, as the last clear set it; 0: all are served. A
    // damaged file can make it negative, which also serves all. Commit blocks carry it as clearRev.
    i64 OldestRev() const { return m_oldestRev; }
    // Makes a walk that is under way find its place again, so it passes over what lies below `rev`.
    void SetOldestRev(i64 rev);
    // The highest revision that is in the file with a commit block behind it; 0: none.
    i64 FlushedRev() const { return m_flushedRev; }
    void SetFlushedRev(i64 rev) { m_flushedRev = rev; }
    // True after a logical clear: the file's first record is not the storage's first one. The next
    // squeeze then removes the dead records, even when its own revision removes nothing.
    bool BeginMoved() const { return m_beginMoved; }
    void SetBeginMoved(bool moved) { m_beginMoved = moved; }

    // --- Adding

    // Copies `rec` with its 8-byte prefix into the newest block, or into a new one when it does not
    // fit. `fileOffset` is where the record lies in the file, kUnknownOffset for a new record; the
    // block's index entry takes it over from the block's first record.
    //
    // Errors, logged: RC_NO_MEMORY, with nothing changed; RC_INVALID_ARG for a record above
    // `maxRecordSize`, with nothing changed, or for one that fits no block, which leaves an empty
    // block behind.
    // REQUIRES: SetUp was called; the revision is above that of every record.
    [[nodiscard]] ResultCode Place(const K9eReplRec& rec, i64 fileOffset) {
        assert(m_capacity > 0 && m_newest == FindNewest());
        const u64 need = u64{rec.dataSize} + kRecordHeadSize;
        if (!HasRoom(need)) [[unlikely]] {
            if (ResultCode rc = MakeRoom(rec.rev, need, fileOffset); rc != RC_OK) {
                return rc;
            }
        }
        K9eReplBlock& block = *m_newest.block;
        IndexEntry& entry = *m_newest.entry;
        assert(entry.block == &block);
        if (block.used == 0) {
            // A record that did not fit may have left the block behind, under its own revision.
            entry.firstRev = rec.rev;
            block.fileBase = fileOffset;
        }
        Append(block, rec, need);
        if (fileOffset != kUnknownOffset && entry.fileOffset == kUnknownOffset) {
            entry.fileOffset = fileOffset;
        }
        return RC_OK;
    }
    // Adds an empty block from the pool under the key `firstRev`.
    // Errors, logged: RC_NO_MEMORY, with nothing changed.
    // REQUIRES: `firstRev` is above every key.
    [[nodiscard]] ResultCode AddBlock(i64 firstRev);
    // Adds a block that is only in the file, as a load takes it over from the index file.
    // `fileOffset` is where its first record begins. Throws std::bad_alloc.
    // REQUIRES: `firstRev` is above every key, and no block is held in memory.
    void AddBlockInFile(i64 firstRev, i64 fileOffset);

    // --- Removing the newest

    // Returns every memory block whose key is above `rev` to the pool. The index keeps their
    // entries, which then have no block; only the entry of an empty block goes, for it has no bytes
    // in the file.
    // Errors, logged: RC_BAD_DATA when a key leads to no block; blocks before it are returned
    // already.
    [[nodiscard]] ResultCode EraseBlocksAfter(i64 rev);
    // Removes every index entry whose key is above `rev`.
    void EraseIndexAfter(i64 rev);
    // Forgets the records above `rev`: later blocks go, and the block that holds `rev` is cut by
    // reading its records. For a load that cuts what was never committed.
    // Errors: RC_BAD_DATA for a block that does not hold whole records; its later blocks are gone
    // then.
    [[nodiscard]] ResultCode CutAfter(i64 rev);
    // Does what CutAfter does, for a rollback, which knows that the block that holds `rev` ended at
    // `used` bytes. The bytes behind that no longer count as flushed either. Errors: as
    // EraseBlocksAfter.
    // REQUIRES: rev is not negative and below NextRev(); the newest block that stays has at least
    // `used` bytes.
    [[nodiscard]] ResultCode CutBackTo(i64 rev, u64 used);

    // --- Removing the oldest

    // Releases memory blocks, oldest first, until `keep` are left. Stops earlier at a block that
    // holds a record above `flushedRev` or has queued writes. Index entries stay, so the records
    // are read from the file from now on; only the entry of an empty block goes, for it has no
    // bytes in the file.
    // Errors: as EraseBlocksAfter.
    [[nodiscard]] ResultCode Shrink(std::size_t keep, i64 flushedRev);
    // Forgets the blocks that lie wholly below `rev`, in memory and in the index. Records below
    // `rev` in the block that holds it stay.
    void DropBelow(i64 rev);
    // Forgets the first block of the index, in memory, too. REQUIRES: the index is not empty.
    void DropFirst();
    // Forgets every block before the one under `key`. Forgets that one, too, if the next one begins
    // at or below `firstRev`. REQUIRES: the index has an entry under `key`.
    void DropBefore(i64 key, i64 firstRev);
    // Takes the first index entry out and enters it again under `key`, with the record `firstRev`
    // at the file offset `fileOffset`. If the block is held in memory and its old key was below
    // `key`, its first `cutBytes` bytes are removed and the rest moves to the front.
    // REQUIRES: the index is not empty; key is not above firstRev and is below the next key;
    // fileOffset is at least 1056; cutBytes is a sum of record sizes of that block.
    void RekeyFirst(i64 key, i64 firstRev, i64 fileOffset, u64 cutBytes);
    // Adds `shift` bytes, negative after a squeeze, to every known file offset in the index.
    void MoveOffsets(i64 shift);
    // Forgets all blocks of a storage whose revisions go on. The oldest revision becomes the next
    // one minus 1, as a load of the emptied file would give it.
    void ForgetEverything();

  private:
    // Lets the tests look inside.
    friend struct StorageAccess;

    // A block that is held in memory, with its index entry. Both are null when there is no block.
    struct Held {
        K9eReplBlock* block = nullptr;
        IndexEntry* entry = nullptr;  // null also when the index has lost the entry
        friend bool operator==(const Held&, const Held&) = default;
    };

    // True when a record of `need` bytes may be placed, and the newest block takes it without a
    // note.
    bool HasRoom(u64 need) const {
        return m_newest.block != nullptr && need <= m_maxRecordSize &&
               m_newest.block->used + need <= m_newest.block->roomEnd;
    }
    // What Place does first for any other record of `need` bytes with the revision `rev`, which is
    // to lie at `fileOffset`: the newest block notes it, or a new block is added. Errors: as Place.
    [[nodiscard]] ResultCode MakeRoom(i64 rev, u64 need, i64 fileOffset);
    // Copies a record of `need` bytes behind the last one of the block.
    static void Append(K9eReplBlock& block, const K9eReplRec& rec, u64 need) {
        assert(need >= kRecordHeadSize && (block.used == 0 || block.lastRev < rec.rev));
        u8* to = block.Data() + block.used;
        const u32 prefix[2] = {kRecordSignature, static_cast<u32>(need)};
        std::memcpy(to, prefix, kRecordPrefixSize);
        std::memcpy(to + kRecordPrefixSize, &rec,
                    static_cast<std::size_t>(need - kRecordPrefixSize));
        block.used += need;
        block.lastRev = rec.rev;
    }
    // Looks up what m_newest remembers.
    Held FindNewest();
    // To be called wherever a block or an index entry has come or gone.
    void RememberNewest() { m_newest = FindNewest(); }
    // The block under `key` leaves memory: its index entry loses the pointer, or goes if the block
    // is empty. Without such an entry: nothing.
    void DetachFromIndex(i64 key);
    // Returns every block to the pool and empties the index. Changes no revision.
    void EraseAll();
    void Touch() { ++m_generation; }

    // --- Constant after SetUp
    // Bytes of a block's data area (setting block_size); 0 before SetUp.
    u32 m_capacity = 0;
    // The largest record in bytes, its head included; kAnyRecordSize without a limit, 0 before
    // SetUp.
    u64 m_maxRecordSize = 0;

    // --- Read by anyone
    // At least 1. Written under the storage's lock.
    std::atomic<i64> m_nextRev{1};

    // --- Guarded by the storage's lock
    // Every block of m_blocks comes from here and returns here.
    CBlocksPoolManager m_pool;
    MemoryBlocks m_blocks;
    // One entry for each block of the storage.
    BlockIndex m_index;
    // Of blocks of m_index; in step with it.
    FileNotes m_notesInFile;
    // The block with the highest key in m_blocks. It is remembered because each record that is
    // placed needs it, and a walk through two maps costs more than the rest of placing.
    Held m_newest;
    u64 m_generation = 0;       // see Generation(); starts at 0
    i64 m_oldestRev = 0;        // see OldestRev(); 0: everything is served
    i64 m_flushedRev = 0;       // see FlushedRev(); 0: nothing is in the file
    bool m_beginMoved = false;  // see BeginMoved()
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_BLOCK_STORE_H
