// The writer that does each operation at once on the calling thread: the default, setting
// async_mode=no. The writer factory makes it, the storage file owns it.
#ifndef K9EREPL_WRITERS_SYNC_STORAGE_WRITER_H
#define K9EREPL_WRITERS_SYNC_STORAGE_WRITER_H

#include "support/result.h"
#include "writers/storage_writer.h"

namespace k9erepl {

// Each function is what StorageWriter promises, done before it returns: the code of a failed system
// call is the result of the very call that met it, and nothing is ever queued. It ignores
// `memoryBlock`, whose bytes nobody needs any more when Write returns. OnWriteToFile is called by
// Write, on the calling thread.
//
// It has no lock of its own: one thread at a time uses it, under the storage's lock.
class SyncStorageWriter final : public StorageWriter {
  public:
    using StorageWriter::StorageWriter;

    [[nodiscard]] ResultCode Write(u8* data, u32 size, TCommitBlock* commitBlock,
                                   K9eReplBlock* memoryBlock, i64 lastRevision,
                                   std::atomic<i64>* filePosition) override;
    [[nodiscard]] ResultCode BeginTransaction() override;
    [[nodiscard]] ResultCode Rollback() override;
    [[nodiscard]] ResultCode ClearUndone() override;
    [[nodiscard]] ResultCode FlushFile() override;
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_SYNC_STORAGE_WRITER_H
