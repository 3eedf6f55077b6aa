// Holes come by themselves, where the file system has any; a file that is longer than its data
// shows it.
#include "portability/sparse_file.h"

#include <sys/stat.h>
#include <unistd.h>

namespace k9erepl::test {

bool LetHaveHoles(const std::string& path) {
    constexpr off_t kTrialSize = 64 * 1024 * 1024;
    constexpr blkcnt_t kStatBlock = 512;
    struct stat info = {};
    return truncate(path.c_str(), kTrialSize) == 0 && stat(path.c_str(), &info) == 0 &&
           info.st_blocks * kStatBlock < kTrialSize / 2 && truncate(path.c_str(), 0) == 0;
}

}  // namespace k9erepl::test
