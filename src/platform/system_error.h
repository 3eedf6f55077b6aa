// The operating system's error code of the calling thread: errno on POSIX, GetLastError on
// Windows. The modules above log it ("%r"); the few kinds that decide something have names here.
#ifndef K9EREPL_PLATFORM_SYSTEM_ERROR_H
#define K9EREPL_PLATFORM_SYSTEM_ERROR_H

#include "platform/int_types.h"

namespace k9erepl::platform {

using SystemError = u32;

// The errors that the platform layer tells apart, and those that tests inject.
enum class SystemErrorKind {
    kNoSpace,
    kInputOutput,
    kAccessDenied,
    kInterrupted,
    kFileTooBig,
    kOutOfMemory,
    kCrossVolume,
    kNotFound,
    kAlreadyExists,
    kNotARegularFile,
    kNotSupported,
    kLocked,         // another handle has the lock
    kInvalidHandle,  // the object was not opened or created
};

// The cause of the calling thread's last failed platform call; not changed by successful ones
// as far as the operating system keeps to that.
SystemError LastSystemError();
void SetLastSystemError(SystemError error);

// This operating system's code for `kind`.
SystemError SystemErrorOf(SystemErrorKind kind);

// Whether the last error is of that kind; Windows has several codes for some kinds.
bool LastSystemErrorIs(SystemErrorKind kind);

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_SYSTEM_ERROR_H
