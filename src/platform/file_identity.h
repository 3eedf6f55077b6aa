// Says which file a path or a handle leads to, whatever the file is called there. The storage file
// compares what it has locked with what its path leads to, and refuses names that lead to one file.
#ifndef K9EREPL_PLATFORM_FILE_IDENTITY_H
#define K9EREPL_PLATFORM_FILE_IDENTITY_H

#include "platform/int_types.h"

namespace k9erepl::platform {

// Two files that exist at the same time never have the same identity; a new file may get that of
// one that was deleted. All zeros stand for no file.
struct FileIdentity {
    // The device; on Windows the volume's serial number.
    u64 volume = 0;
    // The inode; on Windows the file's index on its volume.
    u64 number = 0;

    bool operator==(const FileIdentity&) const = default;
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_FILE_IDENTITY_H
