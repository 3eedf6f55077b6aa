// The system's errors as the tool tells them. Used by tests of failures that every system has.
#ifndef K9EREPL_TESTS_TOOLS_SYSTEM_ERRORS_H
#define K9EREPL_TESTS_TOOLS_SYSTEM_ERRORS_H

#include <string>
#include <system_error>

namespace k9erepl::test {

// "MEANING (system error NUMBER)".
inline std::string InWords(int error) {
    return std::system_category().message(error) + " (system error " + std::to_string(error) + ")";
}

// The number of the error of a write into a pipe that nobody reads from.
int BrokenPipeError();

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_SYSTEM_ERRORS_H
