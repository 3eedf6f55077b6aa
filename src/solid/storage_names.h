// The names of the files that belong to one storage: none of them may lead to the file of another.
// Opening, creating and deleting a storage ask before they touch anything.
#ifndef K9EREPL_SOLID_STORAGE_NAMES_H
#define K9EREPL_SOLID_STORAGE_NAMES_H

#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// Refuses an index file that is the storage file itself, by whatever links and folders, or that has
// a name which a squeeze needs for itself. Refuses also one that begins as a storage file does: an
// index file is emptied, overwritten and deleted without a question. RC_OK where there is no file,
// or no index file.
// Errors, logged with both paths: RC_INVALID_ARG.
// May throw std::bad_alloc.
[[nodiscard]] ResultCode CheckStorageNames(const char* connStr);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_STORAGE_NAMES_H
