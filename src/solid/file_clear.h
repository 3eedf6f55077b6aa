// Takes content of the storage file out of service without moving any of it: raises the clear
// revision, or starts the file over. A logical clear, a truncation and the squeeze use it.
// docs/storage-file.md ("Removing data") says what a crash leaves.
#ifndef K9EREPL_SOLID_FILE_CLEAR_H
#define K9EREPL_SOLID_FILE_CLEAR_H

#include "platform/int_types.h"
#include "solid/damaged_tail.h"
#include "solid/file_writes.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// Has no state of its own. Each function does what the one of CSolidStorage with the same name
// does.
class FileClear {
  public:
    FileClear(StorageFile& file, FileWrites& writes, DamagedTail& tail)
        : m_file(file), m_writes(writes), m_tail(tail) {}

    // Appends one commit block through the writer, with a transaction of its own.
    [[nodiscard]] ResultCode SetClearRev(i64 rev);
    // Writes the beginning of the file anew. What lies behind it is zeroed before the next write.
    [[nodiscard]] ResultCode TruncateToClearRev(i64 rev, u32 lifenum, i64 clearOldRev);

  private:
    StorageFile& m_file;
    FileWrites& m_writes;
    DamagedTail& m_tail;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_CLEAR_H
