// Looks at single places of the storage file around a load: its first commit block, whether a
// record lies where the index file says, and which revision lies before that. CSolidStorage
// forwards to them.
#ifndef K9EREPL_SOLID_FILE_CHECKS_H
#define K9EREPL_SOLID_FILE_CHECKS_H

#include "platform/int_types.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// Each does what the function of CSolidStorage with the same name does; the contracts are there.
// They move the file's pointer and change nothing.
[[nodiscard]] ResultCode ReadFirstCommitInfo(StorageFile& file, i64* commitRev, bool* hasItems);
[[nodiscard]] ResultCode CheckRecordAt(StorageFile& file, i64 rev, i64 offset);
[[nodiscard]] ResultCode FindRevBefore(StorageFile& file, i64 offset, i64* rev);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_CHECKS_H
