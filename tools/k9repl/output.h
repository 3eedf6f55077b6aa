// Prints for every command: results on standard output, and failures, notes and the progress line
// on standard error.
#ifndef K9EREPL_K9REPL_OUTPUT_H
#define K9EREPL_K9REPL_OUTPUT_H

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

#include "streams.h"

namespace k9repl {

// Standard output that reports failures: a full disk is an error and never silently shortens the
// output. If the reader has closed the pipe, as in "cat | head", that is no error.
class Output {
  public:
    explicit Output(OnInterrupt onInterrupt) : m_onInterrupt(onInterrupt) {}
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Returns false once a write has failed; from then on all text is dropped.
    bool Write(std::string_view text);

    // Writes the text that is still held. Throws ToolError if this or an earlier write failed or
    // was interrupted. Without this call text may be lost.
    void Finish();

    // True once a write has found that the reader is gone. From then on all text is dropped.
    bool ReaderIsGone() const { return m_error == std::errc::broken_pipe; }

  private:
    bool WriteOut();

    const OnInterrupt m_onInterrupt;
    std::string m_held;       // text that is not written yet; less than 64 KiB between two calls
    std::error_code m_error;  // of the first failure; 0 if there is none
};

// Prints `text` on standard error as it stands, at once. If that is not possible, does nothing.
void PrintMessage(std::string_view text);

// A line on the terminal, rewritten in place, that shows the progress of append or of a squeeze.
// Prints nothing if standard error is no terminal.
class ProgressLine {
  public:
    ProgressLine();
    // Clears the line.
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // True if standard error is a terminal, so that somebody may see the line.
    bool IsVisible() const { return m_enabled; }

    // Shows the totals so far, at most five times a second.
    void Show(std::uint64_t records, std::uint64_t bytes);
    // The same for a copy of `total` bytes, followed by `remark`. Always shows the beginning and
    // the end of the copy.
    void ShowCopied(std::uint64_t bytes, std::uint64_t total, std::string_view remark);
    // Erases the line, so that other output can follow.
    void Clear();

    double Seconds() const;  // since construction

  private:
    using Clock = std::chrono::steady_clock;

    bool IsDue() const;
    void Rewrite(const std::string& text);

    const bool m_enabled;
    const Clock::time_point m_start;
    Clock::time_point m_lastShown;
    bool m_visible = false;  // the line is on the terminal now
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_OUTPUT_H
