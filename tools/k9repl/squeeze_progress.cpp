// Reads the sizes out of the library's information messages.
#include "squeeze_progress.h"

#include <charconv>
#include <optional>
#include <string>

#include "interrupts.h"
#include "library_log.h"

namespace k9repl {

namespace {

constexpr std::string_view kCopying = "Copying data to temporary file; from offset ";
constexpr std::string_view kSizeToWrite = "size to write ";
constexpr std::string_view kWritten = "Written ";

std::optional<std::uint64_t> LeadingNumber(std::string_view text) {
    std::uint64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() ? std::optional(number) : std::nullopt;
}

std::string InterruptRemark() {
    const int signal = InterruptSignal();
    return signal == 0 ? std::string()
                       : std::string("; ") + InterruptName(signal) +
                             ": finishing the squeeze, once more ends it here";
}

}  // namespace

SqueezeProgress::SqueezeProgress() {
    if (m_line.IsVisible()) {
        LibraryLog::Instance().Listen([this](std::string_view text) { OnInformation(text); });
    }
}

SqueezeProgress::~SqueezeProgress() {
    if (m_line.IsVisible()) {
        LibraryLog::Instance().Listen({});
    }
}

void SqueezeProgress::OnInformation(std::string_view text) noexcept {
    if (text.starts_with(kCopying)) {
        const std::size_t at = text.find(kSizeToWrite);
        if (at != std::string_view::npos) {
            m_total = LeadingNumber(text.substr(at + kSizeToWrite.size())).value_or(0);
            Show(0);
        }
    } else if (text.starts_with(kWritten) && m_total != 0) {
        if (const auto copied = LeadingNumber(text.substr(kWritten.size()))) {
            Show(*copied);
        }
    }
}

// The copy counts only once it is on the disk, which may take as long as the copying.
void SqueezeProgress::Show(std::uint64_t copied) {
    const std::string waiting = copied == m_total ? ", waiting for the disk" : "";
    m_line.ShowCopied(copied, m_total, waiting + InterruptRemark());
}

}  // namespace k9repl
