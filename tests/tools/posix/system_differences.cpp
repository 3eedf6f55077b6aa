// This system's numbers and names.
#include "tools/system_differences.h"

#include <cerrno>

namespace k9erepl::test {

// Opening it succeeds.
std::string FolderAsInputFailure(const std::string& folder) {
    return "cannot read the input '" + folder + "': " + InWords(EISDIR) + "; nothing is stored";
}

std::string NullDevice() {
    return "/dev/null";
}

}  // namespace k9erepl::test
