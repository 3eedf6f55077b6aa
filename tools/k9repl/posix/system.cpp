// Identifies files by device and inode, and follows links step by step.
#include "system.h"

#include <sys/stat.h>
#include <cerrno>
#include <filesystem>

namespace k9repl {

FileIdentity IdentityOf(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return {};
    }
    return {status.st_dev, status.st_ino};
}

std::string FollowLink(const std::string& path) {
    namespace fs = std::filesystem;
    constexpr int kLinksAtMost = 40;
    fs::path reached = path;
    for (int followed = 0; followed < kLinksAtMost; ++followed) {
        std::error_code error;
        const fs::path target = fs::read_symlink(reached, error);
        if (error) {
            return reached.string();
        }
        reached = reached.parent_path() / target;
    }
    return path;
}

std::error_code LastError() {
    return {errno, std::generic_category()};
}

}  // namespace k9repl
