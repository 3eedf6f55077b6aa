// Storage files by their path, apart from any open storage: creates, deletes and checks them, and
// writes the first bytes of a new file. The exported Create and Delete call it, and the storage
// file object.
#ifndef K9EREPL_SOLID_STORAGE_FILE_ADMIN_H
#define K9EREPL_SOLID_STORAGE_FILE_ADMIN_H

#include <k9erepl/storage.h>

#include <string>

#include "format/storage_file_format.h"
#include "platform/file.h"
#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// The value of the setting file has fewer characters than this.
inline constexpr u32 kMaxPathSize = 260;

// Deletes the index file of the storage that `connStr` names. The caller of Create and Delete
// brings it: this module has to call it in the middle, while no other writer can have the storage
// file, and goes on whatever comes of it.
using IndexRemover = void (*)(const char* connStr);

// Makes the file that `connStr` names, with the missing directories of its path; `flags` are
// K9EREPL_CREATE_... For ":memory:" (any case of letters) there is nothing to do.
// Errors, logged: as CheckStorageNames; RC_INVALID_ARG without "file" or for a refused file_lock;
// RC_PATH_TOO_LONG; RC_NO_MEMORY; RC_SYSTEM_ERROR, also while another writer has a file that is to
// be replaced, which then stays. A file that this call has made and could not complete is deleted
// again. One that was there before and was to be replaced stays, empty or begun.
// May throw std::bad_alloc, like all functions here.
[[nodiscard]] ResultCode CreateStorageFile(const char* connStr, u32 flags,
                                           IndexRemover removeIndex);

// Deletes the storage that `connStr` names: its index file first, then its storage file.
// Errors, logged: as DeleteStorageFile and CheckStorageNames; RC_INVALID_ARG for a refused
// file_lock; RC_SYSTEM_ERROR, with nothing deleted, while a writer has the file.
[[nodiscard]] ResultCode DeleteStorage(const char* connStr, IndexRemover removeIndex);
// Deletes the file that `connStr` names, whoever has it open. For ":memory:" there is nothing to
// do.
// Errors, logged: RC_INVALID_ARG without "file", RC_PATH_TOO_LONG; RC_SYSTEM_ERROR, also for a
// missing file.
[[nodiscard]] ResultCode DeleteStorageFile(const char* connStr);

// How a reader opens a file so that it hinders nobody: a writer can do with the file and its name
// whatever it could do alone.
inline constexpr platform::FileOpenRequest kReadOnlyRequest = {
    .access = platform::FileAccess::kRead, .sharing = platform::FileSharing::kAll};

// Opens an existing storage file as `request` says, and checks its signature and version. *file is
// then at offset 1024; it is not touched after a failure.
// Errors, logged: RC_SYSTEM_ERROR; RC_INVALID_ARG for a file that is no storage of this version.
[[nodiscard]] ResultCode OpenAndCheckFile(const std::string& path,
                                          const platform::FileOpenRequest& request,
                                          platform::File* file);

// Writes the first 1064 bytes, and makes the file *initialSize bytes long when that is more;
// otherwise *initialSize becomes 1064 and a longer file keeps its length. Leaves the file pointer
// at the first item and flushes to the disk.
// Errors, logged: RC_NO_MEMORY, RC_SYSTEM_ERROR; the file's content is then undefined.
[[nodiscard]] ResultCode InitNewFile(platform::File& file, const TFileHeader& header,
                                     const TCommitBlock& firstCommit, i64* initialSize);

// The setting `key`, a number of MiB, in bytes; 0 when it is absent. May be negative. *given
// receives whether the setting was there.
i64 GetMebibytesParam(const char* connStr, const char* key, bool* given);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_STORAGE_FILE_ADMIN_H
