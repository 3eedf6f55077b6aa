// File names: one attempt of each call.
#include <string>

#include "platform/native_calls.h"
#include "platform/system_error.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform::native {
namespace {

// Of files that were replaced while somebody had them open, and still has.
constexpr int kReplacedMost = 100;

// Folders and files that are protected from writing refuse in the same way.
bool MayBeOpen(const char* path, DWORD error) {
    constexpr DWORD kOthers = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY;
    const DWORD attributes = GetFileAttributesA(path);
    return (error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION) &&
           attributes != INVALID_FILE_ATTRIBUTES && (attributes & kOthers) == 0;
}

// Gives `path` a name that is free. An open file allows that if all who have it open share it for
// deletion.
bool MoveAside(const char* path, std::string* aside) {
    for (int number = 0; number < kReplacedMost; ++number) {
        *aside = std::string(path) + ".replaced-" + std::to_string(number);
        if (MoveFileExA(path, aside->c_str(), 0) != FALSE) {
            return true;
        }
    }
    return false;
}

// An open file cannot be replaced, only renamed, which leaves `to` free for a moment. Its bytes go
// when the last one who has it open closes it.
bool ReplaceOpenFile(const char* from, const char* to) {
    std::string aside;
    if (!MoveAside(to, &aside)) {
        return false;
    }
    if (MoveFileExA(from, to, 0) == FALSE) {
        MoveFileExA(aside.c_str(), to, 0);
        return false;
    }
    DeleteFileA(aside.c_str());
    return true;
}

}  // namespace

// The system itself copies across volumes.
bool NameRename(const char* from, const char* to) {
    if (MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED) != FALSE) {
        return true;
    }
    const DWORD error = GetLastError();
    if (MayBeOpen(to, error) && ReplaceOpenFile(from, to)) {
        return true;
    }
    SetLastError(error);
    return false;
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
