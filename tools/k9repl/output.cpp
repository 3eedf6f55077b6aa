// Collects standard output and writes it to the system in larger pieces; writes messages through
// the C library. The progress line is rewritten in place: a carriage return, then the sequence that
// erases the rest of the line, then the text.
#include "output.h"

#include <fmt/format.h>

#include <cstdio>

#include "tool_error.h"

namespace k9repl {

namespace {

constexpr std::size_t kHoldAtMost = std::size_t{64} * 1024;
constexpr auto kShowEvery = std::chrono::milliseconds(200);
constexpr const char* kEraseLine = "\r\033[K";

double Megabytes(std::uint64_t bytes) {
    return static_cast<double>(bytes) / 1e6;
}

}  // namespace

bool Output::Write(std::string_view text) {
    if (!m_error) {
        m_held.append(text);
    }
    return !m_error && (m_held.size() < kHoldAtMost || WriteOut());
}

void Output::Finish() {
    if (!m_error) {
        WriteOut();
    }
    if (m_error == std::errc::interrupted) {
        throw InterruptError();
    }
    if (m_error && !ReaderIsGone()) {
        throw SystemError("write to standard output", m_error);
    }
}

bool Output::WriteOut() {
    m_error = WriteToStandardOutput(m_held, m_onInterrupt);
    m_held.clear();
    return !m_error;
}

// Ignores the results of the C library: there is nowhere to report a failure.
void PrintMessage(std::string_view text) {
    (void)std::fwrite(text.data(), 1, text.size(), stderr);
    (void)std::fflush(stderr);
}

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
