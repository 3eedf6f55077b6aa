// Writing a flush, and taking a failed one back; see the header.
#include "engine/flusher.h"

#include <cassert>
#include <cstring>
#include <iterator>
#include <new>

#include "engine/revision.h"
#include "platform/clock.h"
#include "support/log.h"
#include "support/nested_timing.h"

namespace k9erepl {

void Flusher::RegisterTimes() {
    assert(m_timeWriteData2 == 0);
    m_timeFlush = m_timing.Register("Flush");
    m_timeOnFlushCb = m_timing.Register("OnFlushCb");
    m_timeForcedFlush = m_timing.Register("ForcedFlush");
    m_timeFlushOnIdle = m_timing.Register("FlushOnIdle");
    m_timeWriteData1 = m_timing.Register("WriteData1");
    m_timeWriteData2 = m_timing.Register("WriteData2");
}

void Flusher::Reset() {
    m_timing.Report();
    m_shrinkPending = false;
    m_policy.Clear();
}

ResultCode Flusher::SetOnWriteToFile(K9eReplFlushCb cb, void* ctx) {
    m_onWriteToFile.Set(cb, ctx);
    return m_settings.HasFile() ? m_file.SetWrittenRevisionCallback(cb, ctx) : ResultCode{RC_OK};
}

void Flusher::Silence() {
    m_onFlush.Set(nullptr, nullptr);
    // Dropped: it is always RC_OK.
    (void)m_file.SetWrittenRevisionCallback(nullptr, nullptr);
}

ResultCode Flusher::Flush(i64 limit) {
    return m_status.FileIsIdle() ? FlushNow(limit) : ResultCode{RC_OK};
}

ResultCode Flusher::FlushNow(i64 limit) {
    assert(!m_status.FileIsBeingWritten());
    const auto writing = m_status.WorkOnFile(FileWork::kWriting);
    try {
        return FlushTimed(limit);
    } catch (...) {
        // A callback threw in the middle: what reached the file is not known.
        m_status.Set(StorageState::kBroken);
        throw;
    }
}

ResultCode Flusher::FlushOnIdle(i64 limit) {
    assert(m_settings.HasFile() && m_status.FileIsIdle());
    m_timing.Start(m_timeFlushOnIdle);
    if (ResultCode rc = Flush(limit); rc != RC_OK) {
        return FailAtTop(rc);
    }
    m_timing.Stop(m_timeFlushOnIdle);
    return RC_OK;
}

ResultCode Flusher::FailAtTop(ResultCode rc) {
    assert(rc != RC_OK);
    LOG_ERROR_CODE(rc, kLogStorage, "Failed to flush data");
    m_status.EnterFlushFailed();
    return rc;
}

ResultCode Flusher::FlushTimed(i64 limit) {
    assert(m_status.FileIsBeingWritten());
    NestedTiming timing(m_timing, m_timeFlush, m_flushDepth);
    m_shrinkPending = false;
    if (m_settings.HasFile()) {
        if (ResultCode rc = FlushToFile(limit); rc != RC_OK) {
            return rc;
        }
    }
    timing.Stop();
    return RC_OK;
}

ResultCode Flusher::FlushToFile(i64 limit) {
    assert(limit < m_blocks.NextRev());
    const FlushPolicy::Counted covered = m_policy.Now();
    if (ResultCode rc = m_file.BeginTransaction(); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to begin trans in solid storage");
        return rc;
    }
    i64 lastWritten = 0;  // stays 0 when there was nothing to write
    m_pieces.clear();
    ResultCode rc = WriteRuns(limit, &lastWritten);
    if (rc == RC_OK && lastWritten > 0) {
        rc = CommitToFile();
    }
    if (rc != RC_OK) {
        Undo();
        return rc;
    }
    m_policy.RecordFlushTime();
    m_policy.Flushed(covered);
    // Before the callback, which may insert only into an open storage.
    m_status.LeaveFlushFailed();
    if (lastWritten > 0) {
        assert(lastWritten > m_blocks.FlushedRev());
        m_blocks.SetFlushedRev(lastWritten);
        const auto notifying = m_status.WorkOnFile(FileWork::kNotifying);
        NotifyFlushed(lastWritten);
    }
    return RC_OK;
}

// Writes the runs up to `limit` and, unless the last run carried it, the commit block. *lastWritten
// stays 0 when there was nothing to write.
ResultCode Flusher::WriteRuns(i64 limit, i64* lastWritten) {
    assert(*lastWritten == 0);
    const i64 flushedRev = m_blocks.FlushedRev();
    const MemoryBlocks& blocks = m_blocks.Blocks();
    auto it = blocks.upper_bound(flushedRev);
    if (it != blocks.begin()) {
        --it;
    }
    bool closed = false;
    for (; it != blocks.end() && !closed; ++it) {
        FlushRun run;
        if (ResultCode rc = FindFlushRun(*it->second, flushedRev, limit, &run); rc != RC_OK) {
            return rc;
        }
        if (!run.IsEmpty()) {
            if (ResultCode rc = WriteRun(it->first, *it->second, run); rc != RC_OK) {
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

ResultCode Flusher::WriteRun(i64 firstRev, K9eReplBlock& block, const FlushRun& run) {
    assert(run.begin < run.end && run.end <= block.used);
    std::atomic<i64>* const fileOffset = m_blocks.FileOffsetOf(firstRev);
    if (fileOffset == nullptr) {
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
    if (ResultCode rc = RememberPiece(block, *fileOffset); rc != RC_OK) {
        return rc;
    }
    const i64 position = m_file.QueuedEnd();
    m_timing.Start(m_timeWriteData1);
    if (ResultCode rc = m_file.WriteItems(data, static_cast<u32>(size), commitBlock, &block,
                                          run.lastRev, fileOffset);
        rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to flush data from rev %I64d",
                       NextRevAfter(m_blocks.FlushedRev()));
        return rc;
    }
    m_timing.Stop(m_timeWriteData1);
    block.flushedEnd = run.end;
    m_blocks.NotesOf(block).Written(run.begin, run.end, position);
    LOG_INFO(kLogStorage, "Flushed block;rev %I64d,last rev %I64d,offset %I64d", firstRev,
             run.lastRev, fileOffset->load());
    if (m_settings.MayEvict() && m_blocks.Blocks().size() > m_settings.cacheBlocks) {
        m_shrinkPending = true;
    }
    return RC_OK;
}

ResultCode Flusher::RememberPiece(K9eReplBlock& block, std::atomic<i64>& fileOffset) {
    assert(block.flushedEnd < block.used);
    const bool fillsIn = fileOffset == kUnknownOffset;
    try {
        m_pieces.push_back({&block, block.flushedEnd, fillsIn ? &fileOffset : nullptr});
    } catch (const std::bad_alloc&) {
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogStorage, "Out of memory while flushing;block %s",
                       block.name);
        return RC_NO_MEMORY;
    }
    return RC_OK;
}

ResultCode Flusher::WriteCommitBlock(i64 lastRev) {
    assert(lastRev > m_blocks.FlushedRev());
    TCommitBlock block = NewCommitBlock(platform::TimeStampCounter(), lastRev);
    m_timing.Start(m_timeWriteData2);
    if (ResultCode rc = m_file.WriteItems(reinterpret_cast<u8*>(&block), kCommitBlockSize, &block,
                                          nullptr, lastRev, nullptr);
        rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to write commit block %I64d",
                       NextRevAfter(m_blocks.FlushedRev()));
        return rc;
    }
    m_timing.Stop(m_timeWriteData2);
    return RC_OK;
}

ResultCode Flusher::CommitToFile() {
    assert(!m_pieces.empty());
    m_timing.Start(m_timeForcedFlush);
    if (ResultCode rc = m_file.Commit(); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to commit in solid storage");
        return rc;
    }
    m_timing.Stop(m_timeForcedFlush);
    return RC_OK;
}

// Undo the marks, or a retry would skip records that never reached the file. The writer goes first:
// once it is back, nothing fills offsets in any more.
void Flusher::Undo() {
    assert(m_status.FileIsBeingWritten());
    if (ResultCode rc = m_file.RollbackWrites(); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Cannot rollback trans");
        if (m_file.MayStillWrite()) {
            // The queue points into blocks and index entries: none of them may move any more.
            m_status.Set(StorageState::kBroken);
        }
    }
    for (auto piece = m_pieces.rbegin(); piece != m_pieces.rend(); ++piece) {
        piece->block->flushedEnd = piece->flushedEndBefore;
        m_blocks.NotesOf(*piece->block).Undone(piece->flushedEndBefore);
        if (piece->fileOffset != nullptr) {
            *piece->fileOffset = kUnknownOffset;
        }
    }
}

void Flusher::ClearUndoneWrites() {
    if (m_settings.HasFile() && m_status.FileIsIdle()) {
        // Dropped: a failure is logged and changes nothing for the client; the next write or the
        // close tries again.
        (void)m_file.ClearUndone();
    }
}

void Flusher::NotifyInMemory(i64 lastRev) {
    assert(!m_settings.HasFile());
    NotifyFlushed(lastRev);
    m_onWriteToFile.Call(lastRev);
}

// Without a file a callback that commits is called again inside its own call: only the outermost
// call is timed.
void Flusher::NotifyFlushed(i64 lastRev) {
    assert(!m_status.FileIsBeingWritten() && lastRev < m_blocks.NextRev());
    if (!m_onFlush.IsSet()) {
        return;
    }
    NestedTiming timing(m_timing, m_timeOnFlushCb, m_onFlushDepth);
    m_onFlush.Call(lastRev);
    timing.Stop();
}

ResultCode Flusher::ShrinkCache() {
    assert(m_settings.MayEvict());
    const ResultCode rc = m_blocks.Shrink(m_settings.cacheBlocks, m_blocks.FlushedRev());
    if (rc == RC_OK) {
        m_shrinkPending = false;
    }
    return rc;
}

}  // namespace k9erepl
