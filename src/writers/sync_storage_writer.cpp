// The synchronous writer; see sync_storage_writer.h. Called by the storage file.
#include "writers/sync_storage_writer.h"

namespace k9erepl {

ResultCode SyncStorageWriter::Write(u8* data, u32 size, TCommitBlock* commitBlock,
                                    K9eReplBlock* /*memoryBlock*/, i64 lastRevision,
                                    std::atomic<i64>* filePosition) {
    return WriteNow(data, size, commitBlock, lastRevision, filePosition);
}

ResultCode SyncStorageWriter::BeginTransaction() {
    return RememberTransactionStart(WritePos(),
                                    m_state.lastFlushedRev.load(std::memory_order_acquire));
}

ResultCode SyncStorageWriter::Rollback() {
    return RollbackNow();
}

ResultCode SyncStorageWriter::ClearUndone() {
    return ClearUndoneNow();
}

ResultCode SyncStorageWriter::FlushFile() {
    return FlushNow();
}

}  // namespace k9erepl
