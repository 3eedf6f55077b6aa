// Paths as this operating system writes them.
#include "platform/file_names.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform {

const bool kOpenFilesCanBeRenamed = false;

bool IsPathSeparator(char c) {
    return c == '\\' || c == '/';
}

bool SameName(const std::string& one, const std::string& other) {
    constexpr int kWhole = -1;
    return CompareStringA(LOCALE_INVARIANT, NORM_IGNORECASE, one.c_str(), kWhole, other.c_str(),
                          kWhole) == CSTR_EQUAL;
}

// Symbolic links to files are rare on Windows and need a privilege, so a path is taken as it
// stands.
std::string FollowLink(const std::string& path) {
    return path;
}

}  // namespace k9erepl::platform
