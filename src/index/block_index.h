// The block index: one entry for every block that the storage holds, in memory or only in the
// file. The engine owns it and fills it; the index object saves it.
#ifndef K9EREPL_INDEX_BLOCK_INDEX_H
#define K9EREPL_INDEX_BLOCK_INDEX_H

#include <atomic>
#include <map>

#include "memory/repl_block.h"
#include "platform/int_types.h"

namespace k9erepl {

// One block of the storage. REQUIRES of every entry: fileOffset is -1 only while `block` is held in
// memory.
struct IndexEntry {
    IndexEntry(i64 rev, i64 offset, K9eReplBlock* memoryBlock)
        : firstRev(rev), fileOffset(offset), block(memoryBlock) {}

    // The revision of the record that begins at fileOffset, which is what the index file names. The
    // key may be lower: a clear into a gap between revisions, or a revision that was used up
    // without a record, leaves such a key. A block without records has its key here. Guarded by the
    // storage's lock.
    i64 firstRev;
    // Where the block's first record lies in the file, in bytes; -1 until that is known, and always
    // in a block without records. The writer fills it in, perhaps on its own thread: hence atomic.
    std::atomic<i64> fileOffset;
    // The block while it is held in memory, else null.
    K9eReplBlock* block;

    // Tells whether the block has no bytes in the file: a record that did not fit left it behind.
    bool IsEmptyBlock() const { return block != nullptr && block->used == 0; }
};

// The key is the lowest revision that the block may hold.
using BlockIndex = std::map<i64, IndexEntry>;

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_BLOCK_INDEX_H
