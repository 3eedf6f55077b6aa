// The end of a load: what the file holds but never committed, or has cleared, leaves memory again;
// then the storage opens and its index is saved afresh.
#include <algorithm>

#include "engine/clear_search.h"
#include "engine/repl_storage.h"
#include "support/log.h"

namespace k9erepl {

u32 CK9eReplStorage::FinishLoad(i64 nextRevOfFile, CSolidStorage* file) {
    if (u32 rc = CutUncommitted(); rc != RC_OK) {
        return rc;
    }
    if (!m_blocks.Blocks().empty()) {
        // Everything in memory was read from the file.
        K9eReplBlock& newest = m_blocks.Newest();
        newest.flushedEnd = newest.used;
    }
    // Whatever the file claims: a record below the oldest revision would never be served.
    m_nextRev = std::max({i64{1}, NextRevAfter(m_flushedRev), nextRevOfFile, m_oldestRev});
    if (m_settings.MayEvict()) {
        if (u32 rc = m_blocks.Shrink(m_settings.cacheBlocks, m_flushedRev); rc != RC_OK) {
            return rc;
        }
    }
    SetState(StorageState::kOpen);
    if (file != nullptr) {
        if (u32 rc = CutClearedAfterLoad(*file); rc != RC_OK) {
            return rc;
        }
    }
    const BlockIndex& index = m_blocks.Index();
    m_beginMoved = !index.empty() && index.begin()->second.fileOffset != kFirstItemOffset;
    if (m_index != nullptr) {
        if (u32 rc = StartIndex(); rc != RC_OK) {
            return rc;
        }
    }
    return RC_OK;
}

// What counts is the place of the last commit block, not the revision that it names: a file may
// name one that the next record has too.
u32 CK9eReplStorage::CutUncommitted() {
    if (m_blocks.Blocks().empty() || m_loadedRev == m_closedRev) {
        return RC_OK;
    }
    LOG_INFO(kLogStorage, "Trailing uncommitted data to rev %I64d", m_flushedRev);
    if (u32 rc = m_blocks.CutAfter(m_closedRev); rc != RC_OK) {
        // The block that could not be cut is the last one now.
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to enum recs from %I64d to %I64d",
                       m_blocks.Blocks().rbegin()->first, m_flushedRev);
        return rc;
    }
    return RC_OK;
}

// The first block may hold records below the clear revision: it shall begin with the first record
// that is still served.
u32 CK9eReplStorage::CutClearedAfterLoad(CSolidStorage& file) {
    m_blocks.DropBelow(m_oldestRev);
    BlockIndex& index = m_blocks.Index();
    if (index.empty() || index.begin()->first >= m_oldestRev) {
        return RC_OK;
    }
    const auto first = index.begin();
    const auto second = std::next(first);
    ClearSearch search{.minRev = m_oldestRev};
    const FileEnumRange range{
        .fromRev = first->first,
        .toRev = second == index.end() ? kEndOfRevs : second->first - 1,
        .alsoCommits = true,
        .startOffset = first->second.fileOffset,
        .reachesTo = second == index.end() ? 0 : i64{second->second.fileOffset}};
    bool completed = true;
    if (u32 rc = file.EnumFileRecs(range, &ClearSearch::Visit, &search, &completed);
        rc != RC_OK && rc != RC_ENUM_STOP) {
        LOG_ERROR_CODE(rc, kLogStorage, "Enum from disk failed after load");
        return rc;
    }
    LOG_INFO(kLogStorage,
             "Squeeze enum after load; minRev: %I64d, newFirstRecOffset: %I64d, commitOffset: "
             "%I64d, recSz: %u",
             search.minRev, search.newFirstRecOffset, search.commitOffset, search.recSz);
    if (search.FoundKept()) {
        m_blocks.RekeyFirst(search.newFirstRev, search.newFirstRev, search.newFirstRecOffset,
                            search.recSz);
    } else {
        m_blocks.DropFirst();
    }
    return RC_OK;
}

u32 CK9eReplStorage::StartIndex() {
    if (u32 rc = m_index->Start(); rc != RC_OK) {
        return rc;
    }
    if (u32 rc = m_index->RequestSave(m_blocks.Index(), IndexSaveMode::kSync); rc != RC_OK) {
        return rc;
    }
    m_indexedCount = m_blocks.Index().size();
    return RC_OK;
}

}  // namespace k9erepl
