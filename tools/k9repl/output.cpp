// Gathers the output and hands it to the system in larger pieces.
#include "output.h"

#include "tool_error.h"

namespace k9repl {

namespace {

constexpr std::size_t kHoldAtMost = std::size_t{64} * 1024;

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

}  // namespace k9repl
