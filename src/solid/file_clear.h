// Taking content of the storage file out of service without moving any of it: the clear revision,
// and starting the file over. A logical clear, a truncation and the squeeze use it.
#ifndef K9EREPL_SOLID_FILE_CLEAR_H
#define K9EREPL_SOLID_FILE_CLEAR_H

#include "platform/int_types.h"
#include "solid/damaged_tail.h"
#include "solid/file_writes.h"
#include "solid/storage_file.h"

namespace k9erepl {

// As the functions of CSolidStorage with these names.
class FileClear {
  public:
    FileClear(StorageFile& file, FileWrites& writes, DamagedTail& tail)
        : m_file(file), m_writes(writes), m_tail(tail) {}

    [[nodiscard]] u32 SetClearRev(i64 rev);
    [[nodiscard]] u32 TruncateToClearRev(i64 rev, u32 lifenum, i64 clearOldRev);

  private:
    StorageFile& m_file;
    FileWrites& m_writes;
    DamagedTail& m_tail;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_CLEAR_H
