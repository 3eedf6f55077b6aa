// Device and inode.
#include "file_identity.h"

#include <sys/stat.h>

namespace k9repl {

FileIdentity IdentityOf(const std::string& path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return {};
    }
    return {status.st_dev, status.st_ino};
}

}  // namespace k9repl
