// Prints for every command: results on standard output; failures, notes and the progress line on
// standard error.
#ifndef K9EREPL_K9REPL_OUTPUT_H
#define K9EREPL_K9REPL_OUTPUT_H

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

#include "streams.h"

namespace k9repl {

// Standard output with its failures: a full disk is an error, never a silently shorter output. A
// reader that has read enough and gone away (cat | head) is none.
class Output {
  public:
    explicit Output(OnInterrupt onInterrupt) : m_onInterrupt(onInterrupt) {}
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // False once a write has failed; what follows is dropped.
    bool Write(std::string_view text);

    // Writes what is held. Throws ToolError when this or an earlier write failed or was
    // interrupted. Text may be lost when it is not called.
    void Finish();

    // True once a write has found that nobody reads any more. What follows is dropped.
    bool ReaderIsGone() const { return m_error == std::errc::broken_pipe; }

  private:
    bool WriteOut();

    const OnInterrupt m_onInterrupt;
    std::string m_held;
    std::error_code m_error;  // of the first failure
};

// Prints `text` on standard error as it stands, at once. Never fails: where nobody can be told,
// nothing is.
void PrintMessage(std::string_view text);

// One line on the terminal that tells how far append or a squeeze is, rewritten in place. Silent
// when standard error is no terminal.
class ProgressLine {
  public:
    ProgressLine();
    // Clears the line.
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // True when standard error is a terminal, so that somebody may see the line.
    bool IsVisible() const { return m_enabled; }

    // Shows the totals so far, at most five times a second.
    void Show(std::uint64_t records, std::uint64_t bytes);
    // The same for a copy of `total` bytes, with a remark behind it. Its begin and its end are
    // always shown.
    void ShowCopied(std::uint64_t bytes, std::uint64_t total, std::string_view remark);
    // Takes the line away, so that other output may follow.
    void Clear();

    double Seconds() const;  // since construction

  private:
    using Clock = std::chrono::steady_clock;

    bool IsDue() const;
    void Rewrite(const std::string& text);

    const bool m_enabled;
    const Clock::time_point m_start;
    Clock::time_point m_lastShown;
    bool m_visible = false;
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_OUTPUT_H
