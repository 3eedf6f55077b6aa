// Storage files by their path, apart from any open storage: creating, deleting, checking, and the
// first bytes of a new file. The exported Create and Delete, and the storage file object.
#ifndef K9EREPL_SOLID_STORAGE_FILE_ADMIN_H
#define K9EREPL_SOLID_STORAGE_FILE_ADMIN_H

#include <k9erepl/storage.h>

#include <string>

#include "format/storage_file_format.h"
#include "platform/file.h"
#include "platform/int_types.h"

namespace k9erepl {

// The "file" value has fewer characters than this.
inline constexpr u32 kMaxPathSize = 260;

// Deletes the index file of the storage that `connStr` names. The caller's duty: the functions
// below call it while no other writer can have the storage file, and go on whatever comes of it.
using IndexRemover = void (*)(const char* connStr);

// Makes the file that `connStr` names, with the missing directories of its path; `flags` are
// K9EREPL_CREATE_... For ":memory:" (any case of letters) there is nothing to do.
// Errors: RC_INVALID_ARG without "file" or for a refused file_lock, RC_PATH_TOO_LONG, RC_NO_MEMORY,
// RC_SYSTEM_ERROR, also while a writer has a file that is to be replaced, which then stays. A file
// that this call has made and could not complete is deleted again; one that was there before stays,
// and is empty or begun when it was to be replaced. All functions here may throw std::bad_alloc.
[[nodiscard]] u32 CreateStorageFile(const char* connStr, u32 flags, IndexRemover removeIndex);

// Deletes the storage that `connStr` names: its index file, then DeleteStorageFile. Errors: as
// there; RC_INVALID_ARG for a refused file_lock, RC_SYSTEM_ERROR, with nothing deleted, while a
// writer has the file.
[[nodiscard]] u32 DeleteStorage(const char* connStr, IndexRemover removeIndex);
// Deletes the file that `connStr` names, whoever has it open. Errors: as above; RC_SYSTEM_ERROR for
// a missing file.
[[nodiscard]] u32 DeleteStorageFile(const char* connStr);

// A reader hinders nobody: a writer may do with the file and its name whatever it does alone.
inline constexpr platform::FileOpenRequest kReadOnlyRequest = {
    .access = platform::FileAccess::kRead, .sharing = platform::FileSharing::kAll};

// Opens an existing storage file as `request` says and checks signature and version; *file then
// stands at offset 1024. Errors: RC_SYSTEM_ERROR, RC_INVALID_ARG for a file that is no storage of
// this version.
[[nodiscard]] u32 OpenAndCheckFile(const std::string& path,
                                   const platform::FileOpenRequest& request, platform::File* file);

// Writes the first 1064 bytes, extends the file to *initialSize bytes when that is more (else
// *initialSize becomes 1064), leaves the file pointer at the first item and flushes to the disk.
// Errors: RC_NO_MEMORY, RC_SYSTEM_ERROR; the file's content is then undefined.
[[nodiscard]] u32 InitNewFile(platform::File& file, const TFileHeader& header,
                              const TCommitBlock& firstCommit, i64* initialSize);

// The setting `key` in MiB as bytes; 0 when it is absent. May be negative.
i64 GetMebibytesParam(const char* connStr, const char* key, bool* given);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_STORAGE_FILE_ADMIN_H
