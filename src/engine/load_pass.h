// One scan of a storage file into the memory blocks, and the cut behind its last commit block. A
// load makes one, which may scan twice when the index led to a wrong place.
#ifndef K9EREPL_ENGINE_LOAD_PASS_H
#define K9EREPL_ENGINE_LOAD_PASS_H

#include <k9erepl/storage.h>

#include "engine/block_store.h"
#include "engine/open_settings.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"

namespace k9erepl {

// Called under the storage's lock. Results are those of the scan and of BlockStore::Place.
class LoadPass {
  public:
    LoadPass(const OpenSettings& settings, BlockStore& blocks)
        : m_settings(settings), m_blocks(blocks) {}
    LoadPass(const LoadPass&) = delete;
    LoadPass& operator=(const LoadPass&) = delete;

    // Places what lies in the file from `startOffset` on, 0 for all of it.
    [[nodiscard]] u32 ScanFrom(CSolidStorage& file, i64 startOffset);
    // Places what lies behind the end of an earlier load's scan. REQUIRES: as ScanOn of the file;
    // this is the pass's first scan.
    [[nodiscard]] u32 ScanOn(CSolidStorage& file);
    // Forgets the records behind the last commit block. Cut by position, not by the revision that
    // the block names: a damaged one can name a revision that a later, uncommitted record also
    // has. Errors: RC_BAD_DATA.
    [[nodiscard]] u32 CutUncommitted();

  private:
    // The callbacks of the scan; `ctx` is a LoadPass.
    static std::uint32_t PlaceRecord(std::uint64_t offset, const K9eReplRec* rec, void* ctx);
    static std::uint32_t TakeCommit(void* ctx, std::int64_t clearRev, std::int64_t commitRev);
    [[nodiscard]] u32 OnRecord(i64 offset, const K9eReplRec& rec);
    [[nodiscard]] u32 OnCommit(i64 clearRev, i64 commitRev);

    const OpenSettings& m_settings;
    BlockStore& m_blocks;
    i64 m_loadedRev = 0;  // of the record placed last; 0: none
    i64 m_closedRev = 0;  // of the last record with a commit block behind it; 0: none
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_LOAD_PASS_H
