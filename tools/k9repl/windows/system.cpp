// Identifies files by the serial number of their volume and their number on it.
#include "system.h"
#include "platform/windows/win32.h"

namespace k9repl {

// Opens the file without any access, which conflicts with no other open handle.
FileIdentity IdentityOf(const std::string& path) {
    constexpr DWORD kNoAccess = 0;
    const HANDLE file =
        CreateFileA(path.c_str(), kNoAccess, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return {};
    }
    BY_HANDLE_FILE_INFORMATION facts = {};
    const BOOL known = GetFileInformationByHandle(file, &facts);
    CloseHandle(file);
    if (known == FALSE) {
        return {};
    }
    const std::uint64_t high = facts.nFileIndexHigh;
    return {facts.dwVolumeSerialNumber, high << 32 | facts.nFileIndexLow};
}

// Symbolic links to files are rare on Windows and need a privilege. The library does not follow
// them, so the tool does not, either.
std::string FollowLink(const std::string& path) {
    return path;
}

std::error_code LastError() {
    return {static_cast<int>(GetLastError()), std::system_category()};
}

}  // namespace k9repl
