// File names: one attempt of each call.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/native_calls.h"

namespace k9erepl::platform::native {

bool NameRename(const char* from, const char* to) {
    return std::rename(from, to) == 0;
}

bool NameLink(const char* existing, const char* name) {
    if (link(existing, name) == 0) {
        return true;
    }
    // EPERM: the file system has no links, or the system forbids linking to another user's file.
    if (errno == EPERM || errno == ENOSYS || errno == EMLINK) {
        errno = EOPNOTSUPP;
    }
    return false;
}

bool NameRemove(const char* path) {
    return unlink(path) == 0;
}

bool NameMakeDirectory(const char* path) {
    constexpr mode_t kEverybody = 0777;  // the system takes the umask off
    return mkdir(path, kEverybody) == 0;
}

bool NameFlushDirectory(const char* path) {
    const int descriptor = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) {
        return false;
    }
    // EINVAL: the file system has nothing to flush for a directory.
    const bool flushed = fsync(descriptor) == 0 || errno == EINVAL;
    const int cause = errno;
    close(descriptor);
    errno = cause;
    return flushed;
}

}  // namespace k9erepl::platform::native
