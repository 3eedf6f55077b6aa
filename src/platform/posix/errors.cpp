// The operating system's error codes: errno.
#include <cerrno>

#include "platform/system_error.h"

namespace k9erepl::platform {

SystemError LastSystemError() {
    return static_cast<SystemError>(errno);
}

void SetLastSystemError(SystemError error) {
    errno = static_cast<int>(error);
}

bool LastSystemErrorIs(SystemErrorKind kind) {
    return LastSystemError() == SystemErrorOf(kind);
}

SystemError SystemErrorOf(SystemErrorKind kind) {
    switch (kind) {
        case SystemErrorKind::kNoSpace:
            return ENOSPC;
        case SystemErrorKind::kInputOutput:
            return EIO;
        case SystemErrorKind::kAccessDenied:
            return EACCES;
        case SystemErrorKind::kInterrupted:
            return EINTR;
        case SystemErrorKind::kFileTooBig:
            return EFBIG;
        case SystemErrorKind::kOutOfMemory:
            return ENOMEM;
        case SystemErrorKind::kCrossVolume:
            return EXDEV;
        case SystemErrorKind::kNotFound:
            return ENOENT;
        case SystemErrorKind::kAlreadyExists:
            return EEXIST;
        case SystemErrorKind::kNotARegularFile:
            return ENXIO;  // what opening a FIFO without a reader, or a socket, says by itself
        case SystemErrorKind::kNotSupported:
            return EOPNOTSUPP;
        case SystemErrorKind::kLocked:
            return EAGAIN;
        case SystemErrorKind::kInvalidHandle:
            return EBADF;
    }
    return EINVAL;
}

}  // namespace k9erepl::platform
