// The ways of removing records; see the header.
#include "engine/clearer.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <new>

#include "engine/memory_search.h"
#include "engine/revision.h"
#include "support/log.h"

namespace k9erepl {

ResultCode Clearer::Refuse(bool inTransaction) const {
    if (ResultCode rc = m_status.RefuseUnless(m_status.IsOpen(), "Failed to clear old rev");
        rc != RC_OK) {
        return rc;
    }
    if (inTransaction) {
        LOG_ERROR_CODE(RC_IN_TRANSACTION, kLogStorage, "Coundn't clear old rev in trans");
        return RC_IN_TRANSACTION;
    }
    return RC_OK;
}

ResultCode Clearer::ClearOldRev(i64 rev, ClearMode mode) {
    if (ResultCode rc = Refuse(!MayRemoveNow()); rc != RC_OK) {
        return rc;
    }
    if (mode == ClearMode::kMark) {
        return m_marks.SetClearOldRev(rev);
    }
    i64 clearRev = rev;
    if (m_blocks.BeginMoved() && Squeezes(mode)) {
        // Squeeze even when `rev` removes nothing new: what logical clears left in the file goes
        // now.
        clearRev = std::max(rev, m_blocks.OldestRev());
    } else if (rev <= m_blocks.OldestRev()) {
        return RC_OK;
    }
    if (m_blocks.Index().empty()) {
        return RC_OK;
    }
    const auto clearing = m_status.BeginClear();
    try {
        return ClearBelow(clearRev, mode);
    } catch (const std::bad_alloc&) {
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogStorage, "Out of memory while clear old revs;rev %I64d",
                       clearRev);
        return m_status.Break(RC_NO_MEMORY);
    } catch (...) {
        m_status.Set(StorageState::kBroken);
        throw;
    }
}

ResultCode Clearer::ClearBelow(i64 rev, ClearMode mode) {
    assert(!m_status.MayRemove() && !m_blocks.Index().empty());
    if (!m_settings.HasFile()) {
        ClearInMemory(rev);
        return RC_OK;
    }
    if (rev < m_blocks.NextRev()) {
        if (ResultCode rc = FlushBefore(rev); rc != RC_OK) {
            return rc;
        }
    }
    if (ResultCode rc = ClearInFile(rev, mode); rc != RC_OK) {
        return m_status.Break(rc);
    }
    m_index.SaveAfterClear(Squeezes(mode));
    return RC_OK;
}

// The kept part is searched in the file, so flush until the file has a record at or above `rev` or
// nothing new was committed: callbacks of a flush may commit more. They may also change the state
// or begin a transaction, and then nothing can be cleared.
ResultCode Clearer::FlushBefore(i64 rev) {
    i64 nextRev = 0;
    do {
        nextRev = m_blocks.NextRev();
        if (ResultCode rc = m_flusher.FlushNow(m_transaction.LastCommittedRev()); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage,
                           "Cannot flush data before clear old revs;clear rev %I64d", rev);
            m_status.EnterFlushFailed();
            return rc;
        }
        if (ResultCode rc = Refuse(m_transaction.IsOpen()); rc != RC_OK) {
            return rc;
        }
    } while (m_blocks.FlushedRev() < rev && m_blocks.NextRev() != nextRev);
    return RC_OK;
}

// Only whole blocks are removed. Records below `rev` in the block that holds it stay in memory and
// are not served.
void Clearer::ClearInMemory(i64 rev) {
    assert(!m_settings.HasFile());
    if (rev >= m_blocks.NextRev()) {
        m_blocks.ForgetEverything();
        return;
    }
    const i64 holdingKey = m_blocks.FindHolding(rev)->first;
    while (m_blocks.Index().begin()->first < holdingKey) {
        m_blocks.DropFirst();
    }
    m_blocks.SetOldestRev(rev);
}

ResultCode Clearer::ClearInFile(i64 rev, ClearMode mode) {
    assert(m_settings.HasFile() && !m_transaction.IsOpen());
    const auto writing = m_status.WorkOnFile(FileWork::kWriting);
    if (rev >= m_blocks.NextRev()) {
        return ClearWholeFile(rev);
    }
    const i64 holdingKey = m_blocks.FindHolding(rev)->first;
    ClearSearch search{.minRev = rev};
    if (ResultCode rc = FindFirstKept(holdingKey, mode, &search); rc != RC_OK) {
        return rc;
    }
    if (!search.FoundKept()) {
        // `rev` is below the next revision, but revisions may be used up without a record.
        return ClearWholeFile(rev);
    }
    i64 shift = 0;
    if (ResultCode rc = Squeezes(mode) ? SqueezeFile(search, mode, &shift) : RaiseClearRev(search);
        rc != RC_OK) {
        return rc;
    }
    ForgetBelow(holdingKey, search, shift);
    m_blocks.SetBeginMoved(!Squeezes(mode));
    m_blocks.SetOldestRev(rev);
    return RC_OK;
}

ResultCode Clearer::ClearWholeFile(i64 rev) {
    assert(m_status.FileIsBeingWritten());
    m_index.RestartIfFinished();
    ResultCode rc = m_index.Empty();
    if (rc == RC_OK) {
        rc = m_file.TruncateToClearRev(m_blocks.NextRev() - 1, m_marks.Lifenum(),
                                       m_marks.ClearOldRev());
    }
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Failed to truncate solid storage while clear old revs;clear rev %I64d",
                       rev);
        return rc;
    }
    m_blocks.ForgetEverything();
    return RC_OK;
}

// Finds nothing when no record at or above search->minRev is in the file.
ResultCode Clearer::FindFirstKept(i64 holdingKey, ClearMode mode, ClearSearch* search) {
    assert(!search->FoundKept());
    // An empty block has no bytes in the file; what is kept then begins in a later one.
    auto holding = m_blocks.FindHolding(holdingKey);
    while (holding != m_blocks.Index().end() && holding->second.IsEmptyBlock()) {
        ++holding;
    }
    if (holding == m_blocks.Index().end()) {
        return RC_OK;
    }
    if (ResultCode rc =
            Squeezes(mode) ? m_file.CompleteAsyncTasks() : WaitForBlockWrites(holding->first);
        rc != RC_OK) {
        return rc;
    }
    // Only a squeeze needs the commit block behind the first kept record, which is only in the
    // file.
    if (!Squeezes(mode) && MemorySearch(m_blocks, m_file).Find(holding, search)) {
        LogSearch(*search);
        return RC_OK;
    }
    if (ResultCode rc = SearchFrom(*holding, search); rc != RC_OK) {
        return rc;
    }
    if (!search->FoundKept() && !Squeezes(mode)) {
        // The kept records may be queued behind the blocks that were waited for.
        if (ResultCode rc = m_file.CompleteAsyncTasks(); rc != RC_OK) {
            return rc;
        }
        *search = ClearSearch{.minRev = search->minRev};
        return SearchFrom(*holding, search);
    }
    return RC_OK;
}

// The block that will be cut and the one behind it must be in the file before they are cut and
// read. Blocks before them were queued earlier.
ResultCode Clearer::WaitForBlockWrites(i64 key) {
    assert(m_status.FileIsBeingWritten());
    auto block = m_blocks.Blocks().find(key);
    if (block == m_blocks.Blocks().end()) {
        LOG_INFO(kLogStorage, "Cannot find memblock with rev %I64d", key);
        return RC_OK;
    }
    for (int blocks = 0; blocks < 2 && block != m_blocks.Blocks().end(); ++blocks, ++block) {
        while (block->second->pendingWrites.load(std::memory_order_acquire) != 0) {
            if (ResultCode rc = m_file.WaitReleaseBlock(); rc != RC_OK) {
                return rc;
            }
        }
    }
    return RC_OK;
}

ResultCode Clearer::SearchFrom(const BlockIndex::value_type& holding, ClearSearch* search) {
    assert(!search->FoundKept() && !holding.second.IsEmptyBlock());
    ResultCode rc = RC_BAD_DATA;
    if (holding.second.fileOffset != kUnknownOffset) {
        const FileEnumRange range{.fromRev = holding.first,
                                  .toRev = kEndOfRevs,
                                  .alsoCommits = true,
                                  .startOffset = holding.second.fileOffset};
        bool completed = true;
        rc = m_file.EnumFileRecs(range, &ClearSearch::Visit, search, &completed);
    }
    if (rc != RC_OK && rc != RC_ENUM_STOP) {
        LOG_ERROR_CODE(rc, kLogStorage, "Enum from disk failed");
        return rc;
    }
    LogSearch(*search);
    return RC_OK;
}

void Clearer::LogSearch(const ClearSearch& search) {
    LOG_INFO(kLogStorage,
             "Squeeze enum; minRev: %I64d, newFirstRecOffset: %I64d, commitOffset: %I64d, recSz: "
             "%u",
             search.minRev, search.newFirstRecOffset, search.commitOffset, search.recSz);
}

ResultCode Clearer::SqueezeFile(const ClearSearch& search, ClearMode mode, i64* shift) {
    assert(search.FoundKept() && Squeezes(mode));
    ResultCode rc = RC_BAD_DATA;
    if (search.commitOffset != kUnknownOffset) {
        const SqueezeRequest request{.clearRev = search.minRev,
                                     .copyFrom = search.newFirstRecOffset,
                                     .commitOffset = search.commitOffset,
                                     .keepBackup = mode == ClearMode::kSqueezeBackup,
                                     .beforeReplace =
                                         [](void* ctx) {
                                             auto& index = *static_cast<IndexKeeper*>(ctx);
                                             index.RestartIfFinished();
                                             return index.Empty();
                                         },
                                     .ctx = &m_index};
        rc = m_file.Squeeze(request, shift);
    }
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to squeeze solid storage;rev %I64d", search.minRev);
    }
    return rc;
}

// The index file is saved next, without the cleared records. Before that, the commit block that
// clears them must be in the file.
ResultCode Clearer::RaiseClearRev(const ClearSearch& search) {
    assert(search.FoundKept());
    ResultCode rc = m_file.SetClearRev(search.minRev);
    if (rc == RC_OK) {
        rc = m_file.CompleteAsyncTasks();
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
void Clearer::ForgetBelow(i64 holdingKey, const ClearSearch& search, i64 shift) {
    assert(search.FoundKept() && search.newFirstRev >= search.minRev);
    const BlockIndex& index = m_blocks.Index();
    m_blocks.DropBefore(holdingKey, search.newFirstRev);
    if (shift != 0) {
        m_blocks.MoveOffsets(shift);
    }
    const auto first = index.begin();
    const auto second = std::next(first);
    const u64 cutBytes = first->first == holdingKey ? search.recSz : 0;
    // A callback may have begun a transaction whose rollback goes back to a place in this block.
    m_transaction.BlockWasCut(second == index.end() ? kEndOfRevs : second->first, cutBytes);
    m_blocks.RekeyFirst(std::max(search.minRev, holdingKey), search.newFirstRev,
                        search.newFirstRecOffset + shift, cutBytes);
}

ResultCode Clearer::Truncate() {
    if (!MayRemoveNow()) {
        return RC_IN_TRANSACTION;
    }
    if (m_settings.HasFile()) {
        if (ResultCode rc = TruncateFile(); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to truncate solid storage");
            return m_status.Break(rc);
        }
    }
    StartOver();
    m_status.Set(StorageState::kOpen);
    return RC_OK;
}

ResultCode Clearer::TruncateFile() {
    assert(m_settings.HasFile() && !m_settings.readOnly);
    const auto writing = m_status.WorkOnFile(FileWork::kWriting);
    try {
        // The index object stays. Its file has no entries then, like the block index.
        const ResultCode rc = m_index.Empty();
        return rc == RC_OK ? m_file.TruncateToClearRev(0, 0, 0) : rc;
    } catch (const std::bad_alloc&) {
        return RC_NO_MEMORY;
    }
}

void Clearer::StartOver() {
    m_flusher.Reset();
    m_blocks.Reset();
    m_status.Set(StorageState::kClosed);
    m_transaction.Reset();
    m_index.Reset();
    m_marks.Reset();
    assert(m_blocks.Index().empty() && !m_transaction.IsOpen());
}

}  // namespace k9erepl
