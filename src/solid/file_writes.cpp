// The storage file's side of writing: transactions, and the one entry through which items reach
// the writer.
#include "solid/solid_storage.h"
#include "support/log.h"

namespace k9erepl {

u32 CSolidStorage::BeginTransaction() {
    return m_writer == nullptr ? RC_NO_WRITER : m_writer->BeginTransaction();
}

u32 CSolidStorage::Commit() {
    if (m_writer == nullptr) {
        return RC_NO_WRITER;
    }
    const u32 rc = m_writer->FlushFile();
    InvalidateReads();
    return rc;
}

u32 CSolidStorage::RollbackWrites() {
    if (m_writer == nullptr) {
        return RC_NO_WRITER;
    }
    const u32 rc = m_writer->Rollback();
    m_lastWrittenRev = 0;
    InvalidateReads();
    return rc;
}

u32 CSolidStorage::ClearUndone() {
    return m_writer == nullptr ? u32{RC_NO_WRITER} : m_writer->ClearUndone();
}

u32 CSolidStorage::WriteItems(u8* data, u32 size, TCommitBlock* commitBlock,
                              K9eReplBlock* memoryBlock, i64 lastRevision,
                              std::atomic<i64>* filePosition) {
    if (m_writer == nullptr) {
        return RC_NO_WRITER;
    }
    const i64 lastFlushed = m_state.lastFlushedRev.load(std::memory_order_relaxed);
    if (lastRevision < lastFlushed) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                       "New rev %I64d is less than last flushed rev %I64d", lastRevision,
                       lastFlushed);
        return RC_BAD_DATA;
    }
    KeepTailBeforeWriting();
    // Read before the write: its notification may make the client place records over the block,
    // or write more, which must not be taken back here.
    const i64 commitRev = commitBlock != nullptr ? i64{commitBlock->commitRev} : lastFlushed;
    m_lastWrittenRev = lastRevision;
    const u32 rc =
        m_writer->Write(data, size, commitBlock, memoryBlock, lastRevision, filePosition);
    if (rc == RC_OK && m_state.lastFlushedRev < commitRev) {
        m_state.lastFlushedRev = commitRev;
    }
    return rc;
}

u32 CSolidStorage::GetFlushedRev(i64* rev) const {
    if (m_writer == nullptr && !IsOpen()) {
        return RC_NO_WRITER;
    }
    *rev = m_state.lastFlushedRev;
    return RC_OK;
}

}  // namespace k9erepl
