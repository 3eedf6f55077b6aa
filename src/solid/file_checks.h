// Small looks at the storage file around a load: its first commit block, whether a record lies
// where the index file says, and which revision lies before that.
#ifndef K9EREPL_SOLID_FILE_CHECKS_H
#define K9EREPL_SOLID_FILE_CHECKS_H

#include "platform/int_types.h"
#include "solid/storage_file.h"

namespace k9erepl {

// As the functions of CSolidStorage with these names.
[[nodiscard]] u32 ReadFirstCommitInfo(StorageFile& file, i64* commitRev, bool* hasItems);
[[nodiscard]] u32 CheckRecordAt(StorageFile& file, i64 rev, i64 offset);
[[nodiscard]] u32 FindRevBefore(StorageFile& file, i64 offset, i64* rev);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_CHECKS_H
