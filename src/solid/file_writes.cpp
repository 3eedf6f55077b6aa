// Handing items to the writer; see the header.
#include "solid/file_writes.h"

#include <cassert>

#include "support/log.h"

namespace k9erepl {

ResultCode FileWrites::Commit() {
    if (!m_file.HasWriter()) {
        return RC_NO_WRITER;
    }
    const ResultCode rc = m_file.Writer().FlushFile();
    m_file.InvalidateReads();
    return rc;
}

ResultCode FileWrites::Rollback() {
    if (!m_file.HasWriter()) {
        return RC_NO_WRITER;
    }
    const ResultCode rc = m_file.Writer().Rollback();
    m_file.SetLastWrittenRev(0);
    m_file.InvalidateReads();
    return rc;
}

ResultCode FileWrites::ClearUndone() {
    return m_file.HasWriter() ? m_file.Writer().ClearUndone() : u32{RC_NO_WRITER};
}

ResultCode FileWrites::WriteItems(u8* data, u32 size, TCommitBlock* commitBlock,
                                  K9eReplBlock* memoryBlock, i64 lastRevision,
                                  std::atomic<i64>* filePosition) {
    assert(data != nullptr && size != 0);
    assert(commitBlock == nullptr || size >= kCommitBlockSize);
    if (!m_file.HasWriter()) {
        return RC_NO_WRITER;
    }
    StorageFileState& state = m_file.State();
    const i64 lastFlushed = state.lastFlushedRev.load(std::memory_order_relaxed);
    if (lastRevision < lastFlushed) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                       "New rev %I64d is less than last flushed rev %I64d", lastRevision,
                       lastFlushed);
        return RC_BAD_DATA;
    }
    m_tail.KeepBeforeWriting();
    // Read before the write: its notification may let the client place records over the block, or
    // write more, and the last flushed revision must not fall here then.
    const i64 commitRev = commitBlock != nullptr ? i64{commitBlock->commitRev} : lastFlushed;
    m_file.SetLastWrittenRev(lastRevision);
    const ResultCode rc =
        m_file.Writer().Write(data, size, commitBlock, memoryBlock, lastRevision, filePosition);
    if (rc == RC_OK && state.lastFlushedRev < commitRev) {
        state.lastFlushedRev = commitRev;
    }
    return rc;
}

}  // namespace k9erepl
