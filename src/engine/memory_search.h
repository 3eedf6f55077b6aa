// Finds the first record that a clear keeps in the memory blocks, and where it lies in the file.
// The clearer asks it before it reads the file.
#ifndef K9EREPL_ENGINE_MEMORY_SEARCH_H
#define K9EREPL_ENGINE_MEMORY_SEARCH_H

#include "engine/block_store.h"
#include "engine/clear_search.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"

namespace k9erepl {

// Called under the storage's lock. The arguments outlive this object.
class MemorySearch {
  public:
    MemorySearch(const BlockStore& blocks, CSolidStorage& file) : m_blocks(blocks), m_file(file) {}
    MemorySearch(const MemorySearch&) = delete;
    MemorySearch& operator=(const MemorySearch&) = delete;

    // Fills *search, all but commitOffset, with what a search of the file from the block `holding`
    // would find. Records lie in the file as in memory, but with commit blocks between them. If the
    // block's notes leave open how many, reads the few records behind a note. Returns false, with
    // *search unchanged, when the first kept record is not in a block in memory, or not in the
    // file, or its place is not known.
    bool Find(BlockIndex::const_iterator holding, ClearSearch* search);

  private:
    // The first record at or above a revision in one block.
    struct Place {
        i64 rev = 0;
        u64 offset = 0;  // bytes from the start of the block's data
    };

    enum class InBlock { kFound, kAllBelow, kDamaged };

    // *place receives the block's first record at or above `minRev`.
    InBlock FindInBlock(K9eReplBlock& block, i64 minRev, Place* place) const;
    // The file offset of that record; kUnknownOffset if it is not known.
    i64 FileOffsetOf(const IndexEntry& entry, const Place& place);
    // Reads the file from the record of `note` on, up to the record at `place`.
    i64 ReadOffset(i64 startOffset, const Place& place);

    const BlockStore& m_blocks;
    CSolidStorage& m_file;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_MEMORY_SEARCH_H
