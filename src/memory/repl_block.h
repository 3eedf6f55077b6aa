// A memory block: the 64-byte head and, behind it, the data area with the packed records. The
// engine fills blocks, a flush writes their bytes to the file as they stand, and the asynchronous
// writer counts the writes of a block that are still queued.
//
//   0        64                    64 + block_size      64 + block_size + 32
//   +--------+---------------------+--------------------+---------------------------+
//   |  head  | data area: records  | spare, see below   | notes (block_notes.h)     |
//   +--------+---------------------+--------------------+---------------------------+
//
// The block store owns all blocks and takes them from its pool. A block is changed under the
// storage's lock only, but for pendingWrites.
#ifndef K9EREPL_MEMORY_REPL_BLOCK_H
#define K9EREPL_MEMORY_REPL_BLOCK_H

#include <atomic>
#include <cstddef>

#include "platform/int_types.h"

namespace k9erepl {

inline constexpr u32 kBlockHeadSize = 64;
// Behind the data area there is room for one commit block, so that a flush can build it in place,
// right behind the last record, and write both at once.
inline constexpr u32 kBlockTailSize = 32;
// What the head and the tail add to block_size. The notes come on top.
inline constexpr u32 kBlockOverhead = kBlockHeadSize + kBlockTailSize;
// How many bytes of the head are set to zero when a block comes from the pool. Of the fields behind
// them, flushedEnd is set to 0 by name, and the others by BlockNotes::Reset.
inline constexpr u32 kZeroedHeadSize = 40;

// The head, at the start of one allocation of the block pool. Its layout is the same on every
// target.
struct K9eReplBlock {
    // "eRepl#" and the block's ordinal, cut to 15 characters and NUL-terminated.
    char name[16];
    // Bytes of the data area in use, 0 to block_size. A record that did not fit leaves the 0 of a
    // new block.
    u64 used;
    // The revision of the last record placed; means nothing while `used` is 0.
    i64 lastRev;
    u32 reserved;  // zero
    // Queued writes of this block that are not in the file yet. While it is not 0, the block must
    // not be freed, nor bytes below `used` changed. The writing thread lowers it. Always 0 without
    // async_mode.
    std::atomic<i32> pendingWrites;
    // Bytes of the data area that a flush has handed to the writer, 0 to `used`. A failed flush
    // takes it back.
    u64 flushedEnd;
    // The notes of this block.
    u32 noteCount;
    // Bytes of the data area, at most block_size. A record that ends at or before this needs no
    // note: so one comparison tells an insertion that there is room and nothing to be noted.
    u32 roomEnd;
    // The file offset of the first record, known as soon as its write is queued; -1 before that.
    // The notes count from it.
    i64 fileBase;

    // The data area.
    u8* Data() { return reinterpret_cast<u8*>(this) + kBlockHeadSize; }
    const u8* Data() const { return reinterpret_cast<const u8*>(this) + kBlockHeadSize; }
};

static_assert(sizeof(K9eReplBlock) == kBlockHeadSize);
static_assert(offsetof(K9eReplBlock, used) == 16);
static_assert(offsetof(K9eReplBlock, lastRev) == 24);
static_assert(offsetof(K9eReplBlock, pendingWrites) == 36);
static_assert(offsetof(K9eReplBlock, flushedEnd) == kZeroedHeadSize);
static_assert(offsetof(K9eReplBlock, noteCount) == 48);
static_assert(offsetof(K9eReplBlock, fileBase) == 56);
static_assert(std::atomic<i32>::is_always_lock_free);

}  // namespace k9erepl

#endif  // K9EREPL_MEMORY_REPL_BLOCK_H
