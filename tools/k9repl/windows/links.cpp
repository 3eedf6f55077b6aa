// Links to files are rare here and need a privilege: the library takes a path as it stands.
#include "links.h"

namespace k9repl {

std::string FollowLink(const std::string& path) {
    return path;
}

}  // namespace k9repl
