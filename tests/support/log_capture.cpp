// Receives messages through the sink of the system library's stand-in.
#include "support/log_capture.h"

#include <cassert>
#include <cstdlib>
#include <utility>

namespace k9erepl::test {

namespace {

LogCapture* g_current = nullptr;

void RestoreLevels() {
    const char* const levels = std::getenv("K9SYS_LOG");  // NOLINT(concurrency-mt-unsafe)
    if (levels == nullptr || K9SysSetLogLevels(levels) != 0) {
        K9SysSetLogLevel(nullptr, K9SYS_LOG_OFF);
    }
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const LoggedMessage& message) {
    static constexpr const char* kLevels[] = {"off", "error", "warning", "info"};
    out << kLevels[message.level] << " " << message.module << ": " << message.text;
    if (message.code != 0) {
        out << " (code " << message.code << ")";
    }
    return out;
}

LogCapture::LogCapture(std::vector<std::string> modules)
    : m_modules(std::move(modules)), m_previous(g_current) {
    Install();
}

LogCapture::~LogCapture() {
    assert(g_current == this);
    if (m_previous != nullptr) {
        m_previous->Install();
        return;
    }
    g_current = nullptr;
    RestoreLevels();
    K9SysSetLogSink(nullptr, nullptr);
}

void LogCapture::Install() {
    g_current = this;
    K9SysSetLogSink(&LogCapture::Collect, this);
    K9SysSetLogLevel(nullptr, m_modules.empty() ? K9SYS_LOG_INFO : K9SYS_LOG_OFF);
    for (const std::string& module : m_modules) {
        K9SysSetLogLevel(module.c_str(), K9SYS_LOG_INFO);
    }
}

void K9SYS_CALL LogCapture::Collect(K9SysLogLevel level, const char* module, const char* text,
                                    std::uint32_t code, void* context) {
    auto& capture = *static_cast<LogCapture*>(context);
    const std::lock_guard lock(capture.m_mutex);
    capture.m_messages.push_back({level, module, text, code});
}

std::optional<std::uint32_t> LogCapture::CodeOf(std::string_view text) const {
    const std::lock_guard lock(m_mutex);
    for (const LoggedMessage& message : m_messages) {
        if (message.text == text) {
            return message.code;
        }
    }
    return std::nullopt;
}

std::vector<LoggedMessage> LogCapture::Messages() const {
    const std::lock_guard lock(m_mutex);
    return m_messages;
}

std::vector<std::string> LogCapture::Texts(std::optional<K9SysLogLevel> level) const {
    std::vector<std::string> texts;
    for (LoggedMessage& message : Messages()) {
        if (!level || message.level == *level) {
            texts.push_back(std::move(message.text));
        }
    }
    return texts;
}

void LogCapture::Clear() {
    const std::lock_guard lock(m_mutex);
    m_messages.clear();
}

std::ostream& operator<<(std::ostream& out, const LogCapture& capture) {
    out << "logged:\n";
    for (const LoggedMessage& message : capture.Messages()) {
        out << "  " << message << "\n";
    }
    return out;
}

}  // namespace k9erepl::test
