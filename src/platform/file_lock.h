// The lock that the writer of a storage file holds on it: one byte far beyond any data, so that it
// hinders nobody's reading or writing. On POSIX systems it is advisory: only programs that ask for
// it respect it. File::TryLock takes it, for the storage file and its administration;
// docs/configuration.md, "One writer", says what it is for.
#ifndef K9EREPL_PLATFORM_FILE_LOCK_H
#define K9EREPL_PLATFORM_FILE_LOCK_H

#include "platform/int_types.h"

namespace k9erepl::platform {

// The offset of the byte that is locked; no file reaches it. It is the highest offset that Windows
// and a POSIX system with 64-bit offsets both accept for one byte.
inline constexpr i64 kLockedByte = 0x7FFFFFFFFFFFFFFE;

// What File::TryLock came to.
enum class LockResult {
    kTaken,
    kHeldByAnother,  // by another handle, of this process or of another one
    kNotSupported,   // the file system or the operating system knows no such locks
    kFailed,         // LastSystemError() says why
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_FILE_LOCK_H
