// Clearing old revisions in the storage file: where the kept part begins there, and the ways to
// make what lies before it go away.
#include <algorithm>
#include <cassert>
#include <iterator>

#include "engine/file_work_scope.h"
#include "engine/repl_storage.h"
#include "support/log.h"

namespace k9erepl {

namespace {

void MoveOffsets(BlockIndex& index, i64 shift) {
    for (auto& [firstRev, entry] : index) {
        if (entry.fileOffset != kUnknownOffset) {
            entry.fileOffset += shift;
        }
    }
}

}  // namespace

u32 CK9eReplStorage::ClearInFile(i64 rev, ClearMode mode) {
    const FileWorkScope work(m_fileWork, FileWork::kWriting);
    if (rev >= m_nextRev) {
        return ClearWholeFile(rev);
    }
    const auto holding = m_blocks.FindHolding(rev);
    const i64 holdingKey = holding->first;
    ClearSearch search{.minRev = rev};
    if (u32 rc = FindFirstKept(holding, mode, &search); rc != RC_OK) {
        return rc;
    }
    if (!search.FoundKept()) {
        // Revisions may be used up without a record.
        return ClearWholeFile(rev);
    }
    i64 shift = 0;
    if (u32 rc = Squeezes(mode) ? SqueezeFile(search, mode, &shift) : RaiseClearRev(search);
        rc != RC_OK) {
        return rc;
    }
    ForgetBelow(holdingKey, search, shift);
    m_beginMoved = !Squeezes(mode);
    m_oldestRev = rev;
    return RC_OK;
}

u32 CK9eReplStorage::ClearWholeFile(i64 rev) {
    RestartIndexIfFinished();
    u32 rc = EmptyIndexFile();
    if (rc == RC_OK) {
        rc = m_solid.TruncateToClearRev(m_nextRev - 1, m_lifenum, m_clearOldRev);
    }
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Failed to truncate solid storage while clear old revs;clear rev %I64d",
                       rev);
        return rc;
    }
    ForgetEverything();
    return RC_OK;
}

// Finds nothing when no record at or above search->minRev is in the file.
u32 CK9eReplStorage::FindFirstKept(BlockIndex::const_iterator holding, ClearMode mode,
                                   ClearSearch* search) {
    // An empty block has no bytes in the file; what is kept then begins in a later one.
    while (holding != m_blocks.Index().end() && holding->second.IsEmptyBlock()) {
        ++holding;
    }
    if (holding == m_blocks.Index().end()) {
        return RC_OK;
    }
    if (u32 rc = Squeezes(mode) ? m_solid.CompleteAsyncTasks() : WaitForBlockWrites(holding);
        rc != RC_OK) {
        return rc;
    }
    if (u32 rc = SearchFirstKept(holding, search); rc != RC_OK) {
        return rc;
    }
    if (!search->FoundKept() && !Squeezes(mode)) {
        // The kept records may be queued behind the blocks that were waited for.
        if (u32 rc = m_solid.CompleteAsyncTasks(); rc != RC_OK) {
            return rc;
        }
        *search = ClearSearch{.minRev = search->minRev};
        return SearchFirstKept(holding, search);
    }
    return RC_OK;
}

// The block that will be cut and the one behind it must not be cut or read while they are being
// written; blocks before them were queued earlier.
u32 CK9eReplStorage::WaitForBlockWrites(BlockIndex::const_iterator holding) {
    auto block = m_blocks.Blocks().find(holding->first);
    if (block == m_blocks.Blocks().end()) {
        LOG_INFO(kLogStorage, "Cannot find memblock with rev %I64d", holding->first);
        return RC_OK;
    }
    for (int blocks = 0; blocks < 2 && block != m_blocks.Blocks().end(); ++blocks, ++block) {
        while (block->second->pendingWrites.load(std::memory_order_acquire) != 0) {
            if (u32 rc = m_solid.WaitReleaseBlock(); rc != RC_OK) {
                return rc;
            }
        }
    }
    return RC_OK;
}

u32 CK9eReplStorage::SearchFirstKept(BlockIndex::const_iterator holding, ClearSearch* search) {
    u32 rc = RC_BAD_DATA;
    if (holding->second.fileOffset != kUnknownOffset) {
        const FileEnumRange range{.fromRev = holding->first,
                                  .toRev = kEndOfRevs,
                                  .alsoCommits = true,
                                  .startOffset = holding->second.fileOffset};
        bool completed = true;
        rc = m_solid.EnumFileRecs(range, &ClearSearch::Visit, search, &completed);
    }
    if (rc != RC_OK && rc != RC_ENUM_STOP) {
        LOG_ERROR_CODE(rc, kLogStorage, "Enum from disk failed");
        return rc;
    }
    LOG_INFO(kLogStorage,
             "Squeeze enum; minRev: %I64d, newFirstRecOffset: %I64d, commitOffset: %I64d, recSz: "
             "%u",
             search->minRev, search->newFirstRecOffset, search->commitOffset, search->recSz);
    return RC_OK;
}

u32 CK9eReplStorage::SqueezeFile(const ClearSearch& search, ClearMode mode, i64* shift) {
    u32 rc = RC_BAD_DATA;
    if (search.commitOffset != kUnknownOffset) {
        const SqueezeRequest request{.clearRev = search.minRev,
                                     .copyFrom = search.newFirstRecOffset,
                                     .commitOffset = search.commitOffset,
                                     .keepBackup = mode == ClearMode::kSqueezeBackup,
                                     .beforeReplace =
                                         [](void* ctx) {
                                             auto& storage = *static_cast<CK9eReplStorage*>(ctx);
                                             storage.RestartIndexIfFinished();
                                             return storage.EmptyIndexFile();
                                         },
                                     .ctx = this};
        rc = m_solid.Squeeze(request, shift);
    }
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to squeeze solid storage;rev %I64d", search.minRev);
    }
    return rc;
}

// An index file without the cleared records comes next: it must not be there before the commit
// block that clears them, nor without it.
u32 CK9eReplStorage::RaiseClearRev(const ClearSearch& search) {
    u32 rc = m_solid.SetClearRev(search.minRev);
    if (rc == RC_OK) {
        rc = m_solid.CompleteAsyncTasks();
    }
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to set clear rev to solid storage;rev %I64d",
                       search.minRev);
    }
    return rc;
}

// The first block that stays is the one with the first kept record: the block that holds the clear
// revision or, when that one ends below it, the next. `shift` is what a squeeze moved all offsets
// by.
void CK9eReplStorage::ForgetBelow(i64 holdingKey, const ClearSearch& search, i64 shift) {
    BlockIndex& index = m_blocks.Index();
    while (index.begin()->first < holdingKey ||
           (std::next(index.begin()) != index.end() &&
            std::next(index.begin())->first <= search.newFirstRev)) {
        m_blocks.DropFirst();
    }
    if (shift != 0) {
        MoveOffsets(index, shift);
    }
    const auto first = index.begin();
    const u64 cutBytes = first->first == holdingKey ? search.recSz : 0;
    const auto second = std::next(first);
    if (m_transDepth > 0 && (second == index.end() || second->first >= m_transStartRev)) {
        // A callback has begun a transaction, to be rolled back to a place in this block.
        assert(cutBytes <= m_transStartUsed);
        m_transStartUsed -= cutBytes;
    }
    m_blocks.RekeyFirst(std::max(search.minRev, holdingKey), search.newFirstRev,
                        search.newFirstRecOffset + shift, cutBytes);
}

// A stale index would lead the next load to old bytes behind the live data.
u32 CK9eReplStorage::EmptyIndexFile() {
    if (m_index == nullptr) {
        return RC_WRONG_STATE;
    }
    if (u32 rc = m_index->Empty(); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to empty index file '%s'", m_index->Path().c_str());
        return rc;
    }
    return RC_OK;
}

}  // namespace k9erepl
