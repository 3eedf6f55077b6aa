// Paths as this operating system writes them.
#include "platform/file_names.h"

namespace k9erepl::platform {

const bool kOpenFilesCanBeRenamed = false;

bool IsPathSeparator(char c) {
    return c == '\\' || c == '/';
}

// Symbolic links to files are rare here and need a privilege: a path is taken as it stands.
std::string FollowLink(const std::string& path) {
    return path;
}

}  // namespace k9erepl::platform
