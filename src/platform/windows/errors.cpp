// The operating system's error codes: GetLastError.
#include "platform/system_error.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform {
namespace {

// Windows has several codes for some causes. Returns the one of them that SystemErrorOf gives.
SystemError CommonCode(SystemError error) {
    switch (error) {
        case ERROR_ALREADY_EXISTS:
            return ERROR_FILE_EXISTS;
        case ERROR_PATH_NOT_FOUND:
            return ERROR_FILE_NOT_FOUND;
        case ERROR_HANDLE_DISK_FULL:
            return ERROR_DISK_FULL;
        case ERROR_OUTOFMEMORY:
            return ERROR_NOT_ENOUGH_MEMORY;
        default:
            return error;
    }
}

}  // namespace

bool LastSystemErrorIs(SystemErrorKind kind) {
    return CommonCode(LastSystemError()) == SystemErrorOf(kind);
}

SystemError LastSystemError() {
    return GetLastError();
}

void SetLastSystemError(SystemError error) {
    SetLastError(error);
}

SystemError SystemErrorOf(SystemErrorKind kind) {
    switch (kind) {
        case SystemErrorKind::kNoSpace:
            return ERROR_DISK_FULL;
        case SystemErrorKind::kInputOutput:
            return ERROR_IO_DEVICE;
        case SystemErrorKind::kAccessDenied:
            return ERROR_ACCESS_DENIED;
        case SystemErrorKind::kInterrupted:
            return WSAEINTR;  // no call on files fails with it, so nothing is ever repeated
        case SystemErrorKind::kFileTooBig:
            return ERROR_FILE_TOO_LARGE;
        case SystemErrorKind::kOutOfMemory:
            return ERROR_NOT_ENOUGH_MEMORY;
        case SystemErrorKind::kCrossVolume:
            return ERROR_NOT_SAME_DEVICE;
        case SystemErrorKind::kNotFound:
            return ERROR_FILE_NOT_FOUND;
        case SystemErrorKind::kAlreadyExists:
            return ERROR_FILE_EXISTS;  // what creating a new file fails with
        case SystemErrorKind::kNotARegularFile:
            return ERROR_BAD_FILE_TYPE;
        case SystemErrorKind::kNotSupported:
            return ERROR_NOT_SUPPORTED;
        case SystemErrorKind::kLocked:
            return ERROR_LOCK_VIOLATION;
        case SystemErrorKind::kInvalidHandle:
            return ERROR_INVALID_HANDLE;
    }
    return ERROR_INVALID_PARAMETER;
}

}  // namespace k9erepl::platform
