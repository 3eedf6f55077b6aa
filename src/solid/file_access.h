// Seeking in the storage file with the message that its operations share.
#ifndef K9EREPL_SOLID_FILE_ACCESS_H
#define K9EREPL_SOLID_FILE_ACCESS_H

#include <k9erepl/storage.h>

#include "platform/file.h"
#include "platform/int_types.h"
#include "platform/system_error.h"
#include "support/log.h"

namespace k9erepl {

// RC_OK, or RC_SYSTEM_ERROR after logging it.
inline u32 SeekTo(platform::File& file, i64 offset) {
    if (file.Seek(offset)) {
        return RC_OK;
    }
    LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot seek to offset %I64d;sys-err %r", offset,
                   platform::LastSystemError());
    return RC_SYSTEM_ERROR;
}

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_ACCESS_H
