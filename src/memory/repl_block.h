// A memory block: the 64-byte head and, behind it, the packed records. The engine fills blocks,
// flushing writes their bytes to the file as they stand, the asynchronous writer counts the writes
// of a block that are still queued.
#ifndef K9EREPL_MEMORY_REPL_BLOCK_H
#define K9EREPL_MEMORY_REPL_BLOCK_H

#include <atomic>
#include <cstddef>

#include "platform/int_types.h"

namespace k9erepl {

inline constexpr u32 kBlockHeadSize = 64;
// Behind the data area there is room for one commit block, so that flushing can build it in place.
inline constexpr u32 kBlockTailSize = 32;
// What the head and the tail add to block_size.
inline constexpr u32 kBlockOverhead = kBlockHeadSize + kBlockTailSize;
// The part of the head that is zeroed by name when a block comes from the pool.
inline constexpr u32 kZeroedHeadSize = 40;

// Lives at the start of one allocation of the block pool; the layout is the same on every target.
struct K9eReplBlock {
    char name[16];                   // "eRepl#<ordinal>"
    u64 used;                        // bytes of the data area in use
    i64 lastRev;                     // revision of the last record placed
    u32 reserved;                    // zero
    std::atomic<i32> pendingWrites;  // queued writes of this block that are not in the file yet
    u64 flushedEnd;                  // bytes of the data area that are in the file
    u8 rest[16];                     // not set

    u8* Data() { return reinterpret_cast<u8*>(this) + kBlockHeadSize; }
    const u8* Data() const { return reinterpret_cast<const u8*>(this) + kBlockHeadSize; }
};

static_assert(sizeof(K9eReplBlock) == kBlockHeadSize);
static_assert(offsetof(K9eReplBlock, used) == 16);
static_assert(offsetof(K9eReplBlock, lastRev) == 24);
static_assert(offsetof(K9eReplBlock, pendingWrites) == 36);
static_assert(offsetof(K9eReplBlock, flushedEnd) == kZeroedHeadSize);
static_assert(std::atomic<i32>::is_always_lock_free);

}  // namespace k9erepl

#endif  // K9EREPL_MEMORY_REPL_BLOCK_H
