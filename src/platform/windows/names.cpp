// File names: one attempt of each call.
#include <string>

#include "platform/native_calls.h"
#include "platform/system_error.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform::native {
namespace {

// The most files that were replaced while somebody had them open, and that are still open.
constexpr int kReplacedMost = 100;

// Tells whether `error` may mean that the file `path` is open. A folder and a file that is
// protected from writing refuse with the same codes, so they are excluded.
bool MayBeOpen(const char* path, DWORD error) {
    constexpr DWORD kOthers = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY;
    const DWORD attributes = GetFileAttributesA(path);
    return (error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION) &&
           attributes != INVALID_FILE_ATTRIBUTES && (attributes & kOthers) == 0;
}

// Renames `path` to a name that is free. An open file allows that if everybody who has it open
// shares it for deletion.
bool MoveAside(const char* path, std::string* aside) {
    for (int number = 0; number < kReplacedMost; ++number) {
        *aside = std::string(path) + ".replaced-" + std::to_string(number);
        if (MoveFileExA(path, aside->c_str(), 0) != FALSE) {
            return true;
        }
    }
    return false;
}

// An open file cannot be replaced, only renamed, which leaves the name `to` free for a moment. Its
// bytes are deleted when the last handle on it is closed.
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

// The system itself copies a file across volumes.
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

// Not every file system of Windows has links, so callers make do with two renames here.
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

// Nothing to do: the file system's journal keeps names.
bool NameFlushDirectory(const char* /*path*/) {
    return true;
}

}  // namespace k9erepl::platform::native
