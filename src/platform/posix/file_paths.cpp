// Paths as this operating system writes them.
#include <unistd.h>

#include <climits>

#include "platform/file_names.h"

namespace k9erepl::platform {
namespace {

// The target of the symbolic link `path`, as a path from the same starting point as `path`. Empty
// for anything else.
std::string LinkTarget(const std::string& path) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length <= 0) {
        return {};
    }
    const std::string text(target, static_cast<std::size_t>(length));
    const std::size_t nameAt = path.rfind('/') + 1;  // 0 when there is no separator
    return IsPathSeparator(text.front()) ? text : path.substr(0, nameAt) + text;
}

}  // namespace

const bool kOpenFilesCanBeRenamed = true;

bool IsPathSeparator(char c) {
    return c == '/';
}

bool SameName(const std::string& one, const std::string& other) {
    return one == other;
}

std::string FollowLink(const std::string& path) {
    constexpr int kLinksAtMost = 40;  // as many as the system follows when it opens a path
    std::string reached = path;
    for (int followed = 0; followed < kLinksAtMost; ++followed) {
        std::string target = LinkTarget(reached);
        if (target.empty()) {
            return reached;
        }
        reached.swap(target);
    }
    return path;  // the links lead in a circle, and opening the path will fail
}

}  // namespace k9erepl::platform
