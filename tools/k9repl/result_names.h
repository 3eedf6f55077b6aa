// The library's result codes in words. Used wherever a failure is told.
#ifndef K9EREPL_K9REPL_RESULT_NAMES_H
#define K9EREPL_K9REPL_RESULT_NAMES_H

#include <cstdint>
#include <string>

namespace k9repl {

// "code 4, RC_SYSTEM_ERROR: a call to the operating system failed"; for a number that is no result
// code of the library, "code 99".
std::string DescribeResult(std::uint32_t code);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_RESULT_NAMES_H
