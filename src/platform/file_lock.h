// The lock that the writer of a storage file holds on it: one byte far beyond any data, so that
// nobody's reading or writing is hindered. Advisory on POSIX systems. File::TryLock takes it, the
// storage file and its administration ask for it.
#ifndef K9EREPL_PLATFORM_FILE_LOCK_H
#define K9EREPL_PLATFORM_FILE_LOCK_H

#include "platform/int_types.h"

namespace k9erepl::platform {

// The byte that is locked; no file reaches it. The highest offset that Windows and a POSIX system
// with 64-bit offsets both accept for one byte.
inline constexpr i64 kLockedByte = 0x7FFFFFFFFFFFFFFE;

enum class LockResult {
    kTaken,
    kHeldByAnother,  // by another handle, of this process or of another one
    kNotSupported,   // the file system or the operating system knows no such locks
    kFailed,         // LastSystemError() says why
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_FILE_LOCK_H
