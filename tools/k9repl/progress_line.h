// One line on the terminal that tells how far append is, rewritten in place. Silent when standard
// error is no terminal.
#ifndef K9EREPL_K9REPL_PROGRESS_LINE_H
#define K9EREPL_K9REPL_PROGRESS_LINE_H

#include <chrono>
#include <cstdint>

namespace k9repl {

class ProgressLine {
  public:
    ProgressLine();
    // Clears the line.
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // Shows the totals so far, at most five times a second.
    void Show(std::uint64_t records, std::uint64_t bytes);
    // Takes the line away, so that other output may follow.
    void Clear();

    double Seconds() const;  // since construction

  private:
    using Clock = std::chrono::steady_clock;

    const bool m_enabled;
    const Clock::time_point m_start;
    Clock::time_point m_lastShown;
    bool m_visible = false;
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_PROGRESS_LINE_H
