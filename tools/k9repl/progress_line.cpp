// Writes the line with a carriage return in front and the rest of the terminal line erased.
#include "progress_line.h"

#include <fmt/format.h>

#include "message.h"
#include "terminal.h"

namespace k9repl {

namespace {

constexpr auto kShowEvery = std::chrono::milliseconds(200);
constexpr const char* kEraseLine = "\r\033[K";

double Megabytes(std::uint64_t bytes) {
    return static_cast<double>(bytes) / 1e6;
}

}  // namespace

ProgressLine::ProgressLine()
    : m_enabled(StandardErrorErasesLines()), m_start(Clock::now()), m_lastShown(m_start) {}

ProgressLine::~ProgressLine() {
    Clear();
}

void ProgressLine::Show(std::uint64_t records, std::uint64_t bytes) {
    if (IsDue()) {
        Rewrite(fmt::format("{} records, {:.1f} MB, {:.1f} MB/s", records, Megabytes(bytes),
                            Megabytes(bytes) / Seconds()));
    }
}

void ProgressLine::ShowCopied(std::uint64_t bytes, std::uint64_t total, std::string_view remark) {
    const bool atEitherEnd = bytes == 0 || bytes == total;
    if (IsDue() || (m_enabled && atEitherEnd)) {
        Rewrite(fmt::format("copied {:.1f} of {:.1f} MB{}", Megabytes(bytes), Megabytes(total),
                            remark));
    }
}

bool ProgressLine::IsDue() const {
    return m_enabled && Clock::now() - m_lastShown >= kShowEvery;
}

void ProgressLine::Rewrite(const std::string& text) {
    m_lastShown = Clock::now();
    m_visible = true;
    PrintMessage(kEraseLine + text);
}

void ProgressLine::Clear() {
    if (m_visible) {
        m_visible = false;
        PrintMessage(kEraseLine);
    }
}

double ProgressLine::Seconds() const {
    return std::chrono::duration<double>(Clock::now() - m_start).count();
}

}  // namespace k9repl
