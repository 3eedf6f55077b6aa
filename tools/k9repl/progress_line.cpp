// Writes the line with a carriage return in front and the rest of the terminal line erased.
#include "progress_line.h"

#include <fmt/format.h>

#include "message.h"
#include "terminal.h"

namespace k9repl {

namespace {

constexpr auto kShowEvery = std::chrono::milliseconds(200);
constexpr const char* kEraseLine = "\r\033[K";

}  // namespace

ProgressLine::ProgressLine()
    : m_enabled(StandardErrorIsTerminal()), m_start(Clock::now()), m_lastShown(m_start) {}

ProgressLine::~ProgressLine() {
    Clear();
}

void ProgressLine::Show(std::uint64_t records, std::uint64_t bytes) {
    if (!m_enabled) {
        return;
    }
    const Clock::time_point now = Clock::now();
    if (now - m_lastShown < kShowEvery) {
        return;
    }
    m_lastShown = now;
    m_visible = true;
    const double megabytes = static_cast<double>(bytes) / 1e6;
    PrintMessage(fmt::format("{}{} records, {:.1f} MB, {:.1f} MB/s", kEraseLine, records, megabytes,
                             megabytes / Seconds()));
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
