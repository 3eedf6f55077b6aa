// The writer's lock and the identity of files: one attempt of each call. The lock belongs to the
// open file description, not to the process: it conflicts with a lock that this process took
// through another handle, and closing other handles of the file does not free it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/file_lock.h"
#include "platform/native_calls.h"

namespace k9erepl::platform::native {
namespace {

int SetLock([[maybe_unused]] NativeFile file, [[maybe_unused]] short type) {
#ifdef F_OFD_SETLK
    struct flock range = {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = kLockedByte;
    range.l_len = 1;
    return fcntl(static_cast<int>(file), F_OFD_SETLK, &range);
#else
    errno = EOPNOTSUPP;
    return -1;
#endif
}

// Maps the many codes that systems give to the two that the table knows.
int CommonLockError(int error) {
    switch (error) {
        case EACCES:
            return EAGAIN;
        case EINVAL:  // a kernel or file system without these locks, or with 32-bit offsets
        case ENOLCK:  // a network file system whose server keeps no locks
        case ENOSYS:
            return EOPNOTSUPP;
        default:
            return error;
    }
}

FileIdentity IdentityOf(const struct stat& info) {
    return {static_cast<u64>(info.st_dev), static_cast<u64>(info.st_ino)};
}

}  // namespace

bool FileLock(NativeFile file) {
    if (SetLock(file, F_WRLCK) == 0) {
        return true;
    }
    errno = CommonLockError(errno);
    return false;
}

bool FileUnlock(NativeFile file) {
    return SetLock(file, F_UNLCK) == 0;
}

bool FileIdentify(NativeFile file, FileIdentity* identity) {
    struct stat info = {};
    if (fstat(static_cast<int>(file), &info) != 0) {
        return false;
    }
    *identity = IdentityOf(info);
    return true;
}

bool NameIdentify(const char* path, FileIdentity* identity) {
    struct stat info = {};
    if (stat(path, &info) != 0) {
        return false;
    }
    *identity = IdentityOf(info);
    return true;
}

}  // namespace k9erepl::platform::native
