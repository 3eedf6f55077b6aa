// Searches the bytes behind the place where the walk over a storage file ended, and tells damage in
// the middle of the data from a torn end. A pure function on bytes. The end of a load uses it
// (solid/damaged_tail.cpp), and so does the tool's verify. docs/storage-file.md, "Damage in the
// middle", says what is made of the answer.
#ifndef K9EREPL_FORMAT_DAMAGE_SEARCH_H
#define K9EREPL_FORMAT_DAMAGE_SEARCH_H

#include <cstddef>

#include "format/int_types.h"

namespace k9erepl {

// How many bytes behind the end of a walk are searched at most.
inline constexpr u32 kDamageSearchSize = 10 * 1024 * 1024;

// What the walk knows of the last commit block that it accepted. That block's own revisions may be
// what is damaged, so clearRev and commitRev are those of the block before it, if there is one: the
// lowest that a block behind the damage may have. `sequence` is the last block's.
struct LastGoodCommit {
    i64 clearRev = 0;
    i64 commitRev = 0;
    u32 sequence = 0;
};

// What lies beyond the damage, as far as it was found: more may lie behind the bytes searched. All
// three are 0 when nothing was found.
struct BeyondDamage {
    // How many commit blocks link to the one found before them.
    u32 linkedBlocks = 0;
    // The lowest revision among the records found; the first commit block's when there are none.
    i64 lowestRev = 0;
    // The commitRev of the last commit block found.
    i64 highestRev = 0;

    // One commit block alone may be that of the last write, torn or undone. Where one links to
    // another, a second write had begun behind the first, so the data does not end here.
    bool IsDamage() const { return linkedBlocks > 0; }
};

// Searches the `size` bytes at `bytes`, which begin where the walk ended; of more than
// kDamageSearchSize only the beginning. An item may begin at any byte. The bounds are the lowest
// revisions that a commit block may have, at first those of `last`.
//
// A commit block counts when neither of its revisions is below the bounds, or when it is the first
// one found and links to `last`. Two blocks that are linked raise the bounds to what both reach; a
// block that is not linked may be the damaged one, and leaves them. A block at the very beginning,
// or one that links to `last`, lowers them, for the same reason. A record counts when its two sizes
// agree, its revision is above the commit bound and the records before it, and another item
// follows.
BeyondDamage SearchBeyondDamage(const u8* bytes, std::size_t size, const LastGoodCommit& last);

}  // namespace k9erepl

#endif  // K9EREPL_FORMAT_DAMAGE_SEARCH_H
