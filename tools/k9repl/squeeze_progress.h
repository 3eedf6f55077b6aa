// How far a squeeze has copied, as a line on the terminal. Used by the clear command.
#ifndef K9EREPL_K9REPL_SQUEEZE_PROGRESS_H
#define K9EREPL_K9REPL_SQUEEZE_PROGRESS_H

#include <cstdint>
#include <string_view>

#include "progress_line.h"

namespace k9repl {

// Listens, while it lives, to what the library logs of its copying. Silent without a terminal and
// where the user steers the log. One at a time.
class SqueezeProgress {
  public:
    SqueezeProgress();
    ~SqueezeProgress();
    SqueezeProgress(const SqueezeProgress&) = delete;
    SqueezeProgress& operator=(const SqueezeProgress&) = delete;

  private:
    void OnInformation(std::string_view text) noexcept;
    void Show(std::uint64_t copied);

    ProgressLine m_line;
    std::uint64_t m_total = 0;  // bytes that are to be copied
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_SQUEEZE_PROGRESS_H
