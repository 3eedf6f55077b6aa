// What every system has and calls by another name. Used by tests that run on each of them.
#ifndef K9EREPL_TESTS_TOOLS_SYSTEM_DIFFERENCES_H
#define K9EREPL_TESTS_TOOLS_SYSTEM_DIFFERENCES_H

#include <string>
#include <system_error>

namespace k9erepl::test {

// "MEANING (system error NUMBER)".
inline std::string InWords(int error) {
    return std::system_category().message(error) + " (system error " + std::to_string(error) + ")";
}

// How append tells that its input `folder` is a folder.
std::string FolderAsInputFailure(const std::string& folder);

// The device that is empty and takes everything.
std::string NullDevice();

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_SYSTEM_DIFFERENCES_H
