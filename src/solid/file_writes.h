// The way of records and commit blocks to the writer: the file's transactions, and the one function
// through which items are written. The storage's flushes use it, and so does the clear of the file.
#ifndef K9EREPL_SOLID_FILE_WRITES_H
#define K9EREPL_SOLID_FILE_WRITES_H

#include <atomic>

#include "format/storage_file_format.h"
#include "memory/repl_block.h"
#include "platform/int_types.h"
#include "solid/damaged_tail.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// Has no state of its own. Each function does what the one of CSolidStorage with the same name does
// (Rollback: RollbackWrites); all answer RC_NO_WRITER when the file has no writer.
class FileWrites {
  public:
    FileWrites(StorageFile& file, DamagedTail& tail) : m_file(file), m_tail(tail) {}

    [[nodiscard]] ResultCode BeginTransaction() {
        return m_file.HasWriter() ? m_file.Writer().BeginTransaction() : u32{RC_NO_WRITER};
    }
    [[nodiscard]] ResultCode Commit();
    [[nodiscard]] ResultCode Rollback();
    [[nodiscard]] ResultCode ClearUndone();

    [[nodiscard]] ResultCode WriteItems(u8* data, u32 size, TCommitBlock* commitBlock,
                                        K9eReplBlock* memoryBlock, i64 lastRevision,
                                        std::atomic<i64>* filePosition);

  private:
    StorageFile& m_file;
    DamagedTail& m_tail;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_WRITES_H
