// One scan of a storage file into the memory blocks, and the cut behind its last commit block. A
// loader owns one. It may scan twice when the index led it to a wrong place.
#ifndef K9EREPL_ENGINE_LOAD_PASS_H
#define K9EREPL_ENGINE_LOAD_PASS_H

#include <k9erepl/storage.h>

#include "engine/block_store.h"
#include "engine/open_settings.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"
#include "support/result.h"

namespace k9erepl {

// Called under the storage's lock. The scan's results are returned as they are, and those of
// BlockStore::Place and Shrink, which end it. With cache_type=LastN, committed blocks leave memory
// while the scan goes on, so a file may be larger than memory.
class LoadPass {
  public:
    LoadPass(const OpenSettings& settings, BlockStore& blocks)
        : m_settings(settings), m_blocks(blocks) {}
    LoadPass(const LoadPass&) = delete;
    LoadPass& operator=(const LoadPass&) = delete;

    // Places the records that lie in the file from `startOffset` on; 0: all of them.
    // REQUIRES: startOffset is 0 or at least 1056.
    [[nodiscard]] ResultCode ScanFrom(CSolidStorage& file, i64 startOffset);
    // Places the records that lie behind the end of an earlier load's scan.
    // REQUIRES: as CSolidStorage::ScanOn; this is the pass's first scan.
    [[nodiscard]] ResultCode ScanOn(CSolidStorage& file);
    // Forgets the records behind the last commit block, which the scan has placed, too. Cut by
    // position, not by the revision that the block names: a damaged block can name a revision that
    // a later, uncommitted record also has.
    // Errors, logged: RC_BAD_DATA for a block that does not hold whole records.
    [[nodiscard]] ResultCode CutUncommitted();

  private:
    // The callbacks of the scan, for one record and for one commit block; `ctx` is a LoadPass.
    static std::uint32_t PlaceRecord(std::uint64_t offset, const K9eReplRec* rec, void* ctx);
    static std::uint32_t TakeCommit(void* ctx, std::int64_t clearRev, std::int64_t commitRev);
    // Everything placed so far is committed; what a raised clear revision removes goes.
    [[nodiscard]] ResultCode OnCommit(i64 clearRev, i64 commitRev);

    const OpenSettings& m_settings;
    BlockStore& m_blocks;
    // The revision of the record placed last in this scan; 0: none.
    i64 m_loadedRev = 0;
    // The revision of the last record with a commit block behind it; 0: none. Never above
    // m_loadedRev.
    i64 m_closedRev = 0;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_LOAD_PASS_H
