// The failures of the tool. A command throws one; main prints its sentence and ends with its exit
// status. No exception passes through the library: callbacks return codes.
#ifndef K9EREPL_K9REPL_TOOL_ERROR_H
#define K9EREPL_K9REPL_TOOL_ERROR_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <system_error>

namespace k9repl {

// Exit statuses. An interrupted command ends with kExitSignalBase plus the signal's number.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitTornEnd = 3;  // only verify: the storage file has a torn end
inline constexpr int kExitDamaged = 4;  // the storage file is damaged in the middle
inline constexpr int kExitSignalBase = 128;

// what() is one sentence without the tool's name and without a full stop.
class ToolError : public std::runtime_error {
  public:
    explicit ToolError(const std::string& sentence, int exitStatus = kExitFailure)
        : std::runtime_error(sentence), m_exitStatus(exitStatus) {}
    int ExitStatus() const { return m_exitStatus; }

  private:
    int m_exitStatus;
};

// "cannot ACTION: CAUSE (code 4, RC_SYSTEM_ERROR: MEANING)". CAUSE is what the library has logged
// about the code; it is left out if the library has logged nothing.
ToolError LibraryError(const std::string& action, std::uint32_t code);

// The same for a failure whose code the library did not return: takes code and cause from what the
// library has logged.
ToolError LoggedError(const std::string& action);

// "cannot ACTION: MEANING (system error NUMBER)".
ToolError SystemError(const std::string& action, std::error_code cause);

// "interrupted by SIGTERM" and `addition`, with the exit status of that signal.
// REQUIRES: a signal was caught.
ToolError InterruptError(const std::string& addition = {});

// "code 4, RC_SYSTEM_ERROR: a call to the operating system failed"; only "code 99" for a number
// that is no result code of the library.
std::string DescribeResult(std::uint32_t code);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_TOOL_ERROR_H
