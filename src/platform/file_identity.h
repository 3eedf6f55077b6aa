// Which file a path or a handle leads to, whatever it is called there. The storage file compares
// what it has locked with what its path leads to, and refuses names that lead to one file.
#ifndef K9EREPL_PLATFORM_FILE_IDENTITY_H
#define K9EREPL_PLATFORM_FILE_IDENTITY_H

#include "platform/int_types.h"

namespace k9erepl::platform {

// Device and inode; on Windows the volume's serial number and the file's index on it. Two files
// that exist at the same time never have the same.
struct FileIdentity {
    u64 volume = 0;
    u64 number = 0;

    bool operator==(const FileIdentity&) const = default;
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_FILE_IDENTITY_H
