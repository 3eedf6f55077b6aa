// Looks into the bytes behind the place where the walk over a storage file ended, and tells damage
// in the middle of the data from a torn end: pure, on bytes alone. The load's end uses it
// (damaged_tail.cpp), and so does the tool's verify.
#ifndef K9EREPL_FORMAT_DAMAGE_SEARCH_H
#define K9EREPL_FORMAT_DAMAGE_SEARCH_H

#include <cstddef>

#include "format/int_types.h"

namespace k9erepl {

// How many bytes behind the end of a walk are worth looking at.
inline constexpr u32 kDamageSearchSize = 10 * 1024 * 1024;

// What is known of the last accepted commit block. Its revisions may be what is damaged, so the
// lowest ones that may follow are those of the block before it, if there is one.
struct LastGoodCommit {
    i64 clearRev = 0;
    i64 commitRev = 0;
    u32 sequence = 0;
};

// What lies beyond the damage. Only what was found: more may lie behind the bytes looked at.
struct BeyondDamage {
    u32 linkedBlocks = 0;  // commit blocks that link to the one found before them
    i64 lowestRev = 0;     // of the records found; of the commit blocks when there are none
    i64 highestRev = 0;    // that a commit block commits

    // One commit block alone may be that of the last write, torn or undone. Where one links to
    // another, a second write had begun behind the first, so the end of the data is not here.
    bool IsDamage() const { return linkedBlocks > 0; }
};

// Searches the `size` bytes at `bytes`, which begin where the walk ended. Commit blocks may begin
// at any byte. A commit block counts when neither of its revisions is below the bounds, which are
// at first those of `last`, or when it is the first found and links to `last`. Two blocks that are
// linked raise the bounds to what both reach; one that is not linked may be the damaged one. A
// block at the very beginning, or linked to `last`, lowers them, for the same reason. A record
// counts when its two sizes agree, its revision is above the bounds and the records before it, and
// an item follows.
BeyondDamage SearchBeyondDamage(const u8* bytes, std::size_t size, const LastGoodCommit& last);

}  // namespace k9erepl

#endif  // K9EREPL_FORMAT_DAMAGE_SEARCH_H
