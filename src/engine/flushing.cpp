// Flushing: moving committed records from the memory blocks into the storage file, each flush
// closed by one commit block. A failed flush leaves no trace in memory.
#include <cstring>
#include <iterator>
#include <new>

#include "engine/file_work_scope.h"
#include "engine/repl_storage.h"
#include "platform/clock.h"
#include "support/log.h"
#include "support/nested_timing.h"

namespace k9erepl {

u32 CK9eReplStorage::Flush() {
    return FileIsIdle() ? FlushNow() : u32{RC_OK};
}

// REQUIRES: the file is not being written.
u32 CK9eReplStorage::FlushNow() {
    const FileWorkScope work(m_fileWork, FileWork::kWriting);
    try {
        return FlushToFile();
    } catch (...) {
        // A callback threw in the middle: what reached the file is not known.
        SetState(StorageState::kBroken);
        throw;
    }
}

u32 CK9eReplStorage::FlushToFile() {
    NestedTiming timing(m_timing, m_timeFlush, m_flushDepth);
    m_shrinkPending = false;
    if (HasFile()) {
        const FlushPolicy::Counted covered = m_policy.Now();
        if (u32 rc = m_solid.BeginTransaction(); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to begin trans in solid storage");
            return rc;
        }
        const i64 limit = (m_transDepth > 0 ? m_transStartRev : m_nextRev.load()) - 1;
        i64 lastWritten = 0;
        m_flushedPieces.clear();
        u32 rc = WriteFlush(limit, &lastWritten);
        if (rc == RC_OK && lastWritten > 0) {
            rc = CommitFlush();
        }
        if (rc != RC_OK) {
            UndoFlush();
            return rc;
        }
        m_policy.RecordFlushTime();
        m_policy.Flushed(covered);
        // Before the callback, which may insert.
        LeaveFlushFailed();
        if (lastWritten > 0) {
            m_flushedRev = lastWritten;
            m_fileWork = FileWork::kNotifying;
            NotifyFlushed(lastWritten);
        }
    }
    timing.Stop();
    return RC_OK;
}

// Writes the runs up to `limit` and, unless the last run carried it, the commit block. *lastWritten
// stays 0 when there was nothing to write.
u32 CK9eReplStorage::WriteFlush(i64 limit, i64* lastWritten) {
    MemoryBlocks& blocks = m_blocks.Blocks();
    auto it = blocks.upper_bound(m_flushedRev);
    if (it != blocks.begin()) {
        --it;
    }
    bool closed = false;
    for (; it != blocks.end() && !closed; ++it) {
        FlushRun run;
        if (u32 rc = FindFlushRun(*it->second, m_flushedRev, limit, &run); rc != RC_OK) {
            return rc;
        }
        if (!run.IsEmpty()) {
            if (u32 rc = WriteBlock(it->first, *it->second, run); rc != RC_OK) {
                return rc;
            }
            *lastWritten = run.lastRev;
            closed = run.closes;
        }
        if (run.reachedLimit) {
            break;
        }
    }
    return *lastWritten > 0 && !closed ? WriteCommitBlock(*lastWritten) : RC_OK;
}

u32 CK9eReplStorage::WriteBlock(i64 firstRev, K9eReplBlock& block, const FlushRun& run) {
    const auto entry = m_blocks.Index().find(firstRev);
    if (entry == m_blocks.Index().end()) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage, "No block found while try to flush;rev %I64d",
                       firstRev);
        return RC_BAD_DATA;
    }
    u8* const data = block.Data() + run.begin;
    u64 size = run.end - run.begin;
    TCommitBlock* commitBlock = nullptr;
    if (run.closes) {
        const TCommitBlock built = NewCommitBlock(platform::TimeStampCounter(), run.lastRev);
        commitBlock = reinterpret_cast<TCommitBlock*>(data + size);
        std::memcpy(commitBlock, &built, kCommitBlockSize);
        size += kCommitBlockSize;
    }
    std::atomic<i64>& fileOffset = entry->second.fileOffset;
    if (u32 rc = RememberPiece(block, fileOffset); rc != RC_OK) {
        return rc;
    }
    m_timing.Start(m_timeWriteData1);
    if (u32 rc = m_solid.WriteItems(data, static_cast<u32>(size), commitBlock, &block, run.lastRev,
                                    &fileOffset);
        rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to flush data from rev %I64d",
                       NextRevAfter(m_flushedRev));
        return rc;
    }
    m_timing.Stop(m_timeWriteData1);
    block.flushedEnd = run.end;
    LOG_INFO(kLogStorage, "Flushed block;rev %I64d,last rev %I64d,offset %I64d", firstRev,
             run.lastRev, fileOffset.load());
    if (m_settings.MayEvict() && m_blocks.Blocks().size() > m_settings.cacheBlocks) {
        m_shrinkPending = true;
    }
    return RC_OK;
}

u32 CK9eReplStorage::RememberPiece(K9eReplBlock& block, std::atomic<i64>& fileOffset) {
    const bool fillsIn = fileOffset == kUnknownOffset;
    try {
        m_flushedPieces.push_back({&block, block.flushedEnd, fillsIn ? &fileOffset : nullptr});
    } catch (const std::bad_alloc&) {
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogStorage, "Out of memory while flushing;block %s",
                       block.name);
        return RC_NO_MEMORY;
    }
    return RC_OK;
}

u32 CK9eReplStorage::WriteCommitBlock(i64 lastRev) {
    TCommitBlock block = NewCommitBlock(platform::TimeStampCounter(), lastRev);
    m_timing.Start(m_timeWriteData2);
    if (u32 rc = m_solid.WriteItems(reinterpret_cast<u8*>(&block), kCommitBlockSize, &block,
                                    nullptr, lastRev, nullptr);
        rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to write commit block %I64d",
                       NextRevAfter(m_flushedRev));
        return rc;
    }
    m_timing.Stop(m_timeWriteData2);
    return RC_OK;
}

u32 CK9eReplStorage::CommitFlush() {
    m_timing.Start(m_timeForcedFlush);
    if (u32 rc = m_solid.Commit(); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to commit in solid storage");
        return rc;
    }
    m_timing.Stop(m_timeForcedFlush);
    return RC_OK;
}

// Without this a second attempt would pass over records that the file has never got. The writer
// goes first: once it is back, nothing fills offsets in any more.
void CK9eReplStorage::UndoFlush() {
    if (u32 rc = m_solid.RollbackWrites(); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Cannot rollback trans");
        if (m_solid.MayStillWrite()) {
            // What is queued points into blocks and index entries: none of them may move any more.
            SetState(StorageState::kBroken);
        }
    }
    for (auto piece = m_flushedPieces.rbegin(); piece != m_flushedPieces.rend(); ++piece) {
        piece->block->flushedEnd = piece->flushedEndBefore;
        if (piece->fileOffset != nullptr) {
            *piece->fileOffset = kUnknownOffset;
        }
    }
}

u32 CK9eReplStorage::FailFlushAtTop(u32 rc) {
    LOG_ERROR_CODE(rc, kLogStorage, "Failed to flush data");
    if (State() != StorageState::kBroken) {
        SetState(StorageState::kFlushFailed);
    }
    return rc;
}

u32 CK9eReplStorage::FlushWhenIdle() {
    if (m_lock.StorageIsToEnd()) [[unlikely]] {
        // OnWriteToFile closed the last handle on the writing thread; perhaps nobody else comes by.
        if (m_lock.try_lock()) {
            m_lock.unlock();
        }
        return RC_OK;
    }
    if (!HasFile()) {
        return RC_OK;
    }
    if (State() != StorageState::kClosed && State() != StorageState::kOpen) {
        m_policy.RecordFlushTime();
        return RC_WRONG_STATE;
    }
    // The idle call never waits; a first look without the lock spares most of the tries.
    if (!m_policy.FlushNeeded(m_settings) || !m_lock.try_lock()) {
        return RC_OK;
    }
    const Guard guard(m_lock, std::adopt_lock);
    if (!FlushNeeded()) {
        return RC_OK;
    }
    m_timing.Start(m_timeFlushOnIdle);
    if (u32 rc = Flush(); rc != RC_OK) {
        return FailFlushAtTop(rc);
    }
    m_timing.Stop(m_timeFlushOnIdle);
    return RC_OK;
}

}  // namespace k9erepl
