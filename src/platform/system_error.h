// The operating system's error code of the calling thread: errno on POSIX, GetLastError on Windows.
// The modules above log it ("%r"). The few kinds of errors that the library acts on have names
// here, so that no module above needs a header of the operating system.
#ifndef K9EREPL_PLATFORM_SYSTEM_ERROR_H
#define K9EREPL_PLATFORM_SYSTEM_ERROR_H

#include "platform/int_types.h"

namespace k9erepl::platform {

// A code of the operating system, as that numbers them. 0 is no error.
using SystemError = u32;

// The errors that the platform layer tells apart, and those that tests inject.
enum class SystemErrorKind {
    kNoSpace,          // the disk or the quota is full
    kInputOutput,      // the device failed
    kAccessDenied,     // the process may not do that
    kInterrupted,      // a signal came first: try again
    kFileTooBig,       // beyond what the file system or the process may have
    kOutOfMemory,      // also of the system's own tables
    kCrossVolume,      // a file cannot be renamed to another volume
    kNotFound,         // the file or a folder on the way to it is missing
    kAlreadyExists,    // a file or folder has that name
    kNotARegularFile,  // a pipe, a device or a socket
    kNotSupported,     // the system or the file system cannot do that
    kLocked,           // another handle has the lock
    kInvalidHandle,    // the object was not opened or created
};

// The cause of the calling thread's last failed platform call. Successful calls do not change it,
// as far as the operating system keeps to that; so log it, or save it, before any other call.
SystemError LastSystemError();
// Makes LastSystemError answer `error` on this thread.
void SetLastSystemError(SystemError error);

// This operating system's code for `kind`.
SystemError SystemErrorOf(SystemErrorKind kind);

// Tells whether the last error is of that kind. Compare in this way, not with SystemErrorOf:
// Windows has several codes for some kinds.
bool LastSystemErrorIs(SystemErrorKind kind);

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_SYSTEM_ERROR_H
