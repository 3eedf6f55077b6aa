// One line on the terminal that tells how far append or a squeeze is, rewritten in place. Silent
// when standard error is no terminal.
#ifndef K9EREPL_K9REPL_PROGRESS_LINE_H
#define K9EREPL_K9REPL_PROGRESS_LINE_H

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace k9repl {

class ProgressLine {
  public:
    ProgressLine();
    // Clears the line.
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // Whether anybody sees it.
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

#endif  // K9EREPL_K9REPL_PROGRESS_LINE_H
