// File names: one attempt of each call.
#include "platform/native_calls.h"
#include "platform/system_error.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform::native {

// The system itself copies across volumes.
bool NameRename(const char* from, const char* to) {
    return MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED) != FALSE;
}

// Not on every file system of this system: whoever would link does with two moves here.
bool NameLink(const char* /*existing*/, const char* /*name*/) {
    SetLastSystemError(SystemErrorOf(SystemErrorKind::kNotSupported));
    return false;
}

bool NameRemove(const char* path) {
    return DeleteFileA(path) != FALSE;
}

bool NameMakeDirectory(const char* path) {
    return CreateDirectoryA(path, nullptr) != FALSE;
}

// The file system's journal keeps names.
bool NameFlushDirectory(const char* /*path*/) {
    return true;
}

}  // namespace k9erepl::platform::native
