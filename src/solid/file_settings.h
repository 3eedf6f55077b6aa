// Reads the settings of a connection string that say how the storage file is written and sized.
// Opening the file calls it; docs/configuration.md lists the settings.
#ifndef K9EREPL_SOLID_FILE_SETTINGS_H
#define K9EREPL_SOLID_FILE_SETTINGS_H

#include "platform/int_types.h"
#include "support/result.h"
#include "writers/storage_file_state.h"

namespace k9erepl {

// Reads force_flush, commit_barrier, write_through, file_initial_size and file_size_delta into
// *state and file_lock into *fileLock; logs what it uses.
// Errors: RC_INVALID_ARG for a yes or no that is neither, RC_BAD_SIZE for a negative size. The
// settings before the refused one are then set. May throw std::bad_alloc.
[[nodiscard]] ResultCode ReadFileSettings(const char* connStr, StorageFileState* state,
                                          bool* fileLock);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_SETTINGS_H
