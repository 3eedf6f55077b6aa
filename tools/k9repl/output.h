// Standard output with its failures: a full disk is an error, never a silently shorter output. A
// reader that has read enough and gone away (cat | head) is none. Used by every command.
#ifndef K9EREPL_K9REPL_OUTPUT_H
#define K9EREPL_K9REPL_OUTPUT_H

#include <string>
#include <string_view>
#include <system_error>

#include "output_file.h"

namespace k9repl {

class Output {
  public:
    explicit Output(OnInterrupt onInterrupt) : m_onInterrupt(onInterrupt) {}
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // False once a write has failed; what follows is dropped.
    bool Write(std::string_view text);

    // Writes what is held. Throws ToolError when this or an earlier write failed or was
    // interrupted. Without it nothing is promised.
    void Finish();

    // True once a write has found that nobody reads any more. What follows is dropped.
    bool ReaderIsGone() const { return m_error == std::errc::broken_pipe; }

  private:
    bool WriteOut();

    const OnInterrupt m_onInterrupt;
    std::string m_held;
    std::error_code m_error;  // of the first failure
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_OUTPUT_H
