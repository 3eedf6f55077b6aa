// This system's numbers and names.
#include "tools/system_differences.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace k9erepl::test {

std::string FolderAsInputFailure(const std::string& folder) {
    return "cannot open the input '" + folder + "': " + InWords(ERROR_ACCESS_DENIED);
}

std::string NullDevice() {
    return "NUL";
}

}  // namespace k9erepl::test
