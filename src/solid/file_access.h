// Seeks and reads in the storage file, as the sources of this module share them, with their log
// lines.
#ifndef K9EREPL_SOLID_FILE_ACCESS_H
#define K9EREPL_SOLID_FILE_ACCESS_H

#include <k9erepl/storage.h>

#include <string>

#include "platform/file.h"
#include "platform/int_types.h"
#include "platform/system_error.h"
#include "support/log.h"
#include "support/result.h"

namespace k9erepl {

// RC_OK, or RC_SYSTEM_ERROR after logging it. `AnyFile` is a File or a TrackedFile.
template <typename AnyFile>
[[nodiscard]] ResultCode SeekTo(AnyFile& file, i64 offset) {
    if (file.Seek(offset)) {
        return RC_OK;
    }
    LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot seek to offset %I64d;sys-err %r", offset,
                   platform::LastSystemError());
    return RC_SYSTEM_ERROR;
}

// Reads `size` bytes at the file pointer; *got receives how many came. RC_SHORT_READ when the file
// ends before, RC_SYSTEM_ERROR; the caller logs.
template <typename AnyFile>
[[nodiscard]] ResultCode ReadWhole(AnyFile& file, void* buffer, u32 size, u32* got) {
    if (!file.Read(buffer, size, got)) {
        return RC_SYSTEM_ERROR;
    }
    if (*got < size) {
        // No call has failed: the log must not name an older failure as the cause.
        platform::SetLastSystemError(0);
        return RC_SHORT_READ;
    }
    return RC_OK;
}

// The length of the file at `path` in bytes. RC_OK, or RC_SYSTEM_ERROR after logging it.
[[nodiscard]] inline ResultCode GetSizeOf(const platform::File& file, const std::string& path,
                                          i64* size) {
    if (file.GetSize(size)) {
        return RC_OK;
    }
    LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot get file size;sys-err %r,file path '%s'",
                   platform::LastSystemError(), path.c_str());
    return RC_SYSTEM_ERROR;
}

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_ACCESS_H
