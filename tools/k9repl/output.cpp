// Gathers the output and hands it to the C library in large pieces.
#include "output.h"

#include <cerrno>
#include <cstdio>

#include "interrupts.h"
#include "tool_error.h"

namespace k9repl {

namespace {

constexpr std::size_t kHoldAtMost = std::size_t{1024} * 1024;

}  // namespace

bool Output::Write(std::string_view text) {
    if (m_error == 0) {
        m_held.append(text);
    }
    return m_error == 0 && (m_held.size() < kHoldAtMost || WriteOut());
}

void Output::Finish() {
    if (m_error == 0 && (!WriteOut() || std::fflush(stdout) != 0)) {
        m_error = m_error != 0 ? m_error : errno;
    }
    if (m_error == EINTR && InterruptSignal() != 0) {
        throw InterruptError();
    }
    if (m_error != 0) {
        throw SystemError("write to standard output", {m_error, std::generic_category()});
    }
}

bool Output::WriteOut() {
    if (std::fwrite(m_held.data(), 1, m_held.size(), stdout) != m_held.size()) {
        m_error = errno != 0 ? errno : EIO;
    }
    m_held.clear();
    return m_error == 0;
}

}  // namespace k9repl
