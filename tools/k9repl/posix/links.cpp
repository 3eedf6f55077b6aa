// Follows a chain of links, step by step.
#include "links.h"

#include <filesystem>
#include <system_error>

namespace k9repl {

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

}  // namespace k9repl
