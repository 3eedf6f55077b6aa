// The synchronous writer; see sync_storage_writer.h. Called by the storage file.
#include "writers/sync_storage_writer.h"

namespace k9erepl {

u32 SyncStorageWriter::Write(u8* data, u32 size, TCommitBlock* commitBlock,
                             K9eReplBlock* /*memoryBlock*/, i64 lastRevision,
                             std::atomic<i64>* filePosition) {
    return WriteNow(data, size, commitBlock, lastRevision, filePosition);
}

u32 SyncStorageWriter::BeginTransaction() {
    return RememberTransactionStart(WritePos(),
                                    m_state.lastFlushedRev.load(std::memory_order_acquire));
}

u32 SyncStorageWriter::Rollback() {
    return RollbackNow();
}

u32 SyncStorageWriter::ClearUndone() {
    return ClearUndoneNow();
}

u32 SyncStorageWriter::FlushFile() {
    return FlushNow();
}

}  // namespace k9erepl
