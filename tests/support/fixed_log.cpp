// Receives errors through the sink of the system library's stand-in, into memory of its own.
#include "support/fixed_log.h"

#include <cstring>

namespace k9erepl::test {

FixedLog::FixedLog() {
    K9SysSetLogSink(&FixedLog::Collect, this);
    K9SysSetLogLevel(nullptr, K9SYS_LOG_ERROR);
}

FixedLog::~FixedLog() {
    K9SysSetLogLevel(nullptr, K9SYS_LOG_OFF);
    K9SysSetLogSink(nullptr, nullptr);
}

void K9SYS_CALL FixedLog::Collect(K9SysLogLevel /*level*/, const char* /*module*/, const char* text,
                                  std::uint32_t code, void* context) {
    auto& log = *static_cast<FixedLog*>(context);
    const std::lock_guard lock(log.m_mutex);
    if (log.m_count == log.m_messages.size()) {
        return;
    }
    Message& message = log.m_messages.at(log.m_count++);
    std::strncpy(message.text, text, sizeof(message.text) - 1);
    message.code = code;
}

bool FixedLog::HasError(std::string_view begin, std::uint32_t code) const {
    const std::lock_guard lock(m_mutex);
    for (std::size_t i = 0; i < m_count; ++i) {
        const Message& message = m_messages.at(i);
        if (message.code == code && std::string_view(message.text).starts_with(begin)) {
            return true;
        }
    }
    return false;
}

void FixedLog::Clear() {
    const std::lock_guard lock(m_mutex);
    m_count = 0;
}

}  // namespace k9erepl::test
