// Collects errors without allocating anything: for tests in which allocations fail, where a
// LogCapture would take the failures meant for the library.
#ifndef K9EREPL_TESTS_SUPPORT_FIXED_LOG_H
#define K9EREPL_TESTS_SUPPORT_FIXED_LOG_H

#include <k9sys/k9sys.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string_view>

namespace k9erepl::test {

// While it lives, errors of all modules come to it, the first 64 of them, cut to 255 characters.
// No LogCapture may begin or end meanwhile. Messages may come from any thread.
class FixedLog {
  public:
    FixedLog() {
        K9SysSetLogSink(&FixedLog::Collect, this);
        K9SysSetLogLevel(nullptr, K9SYS_LOG_ERROR);
    }
    ~FixedLog() {
        K9SysSetLogLevel(nullptr, K9SYS_LOG_OFF);
        K9SysSetLogSink(nullptr, nullptr);
    }
    FixedLog(const FixedLog&) = delete;
    FixedLog& operator=(const FixedLog&) = delete;

    // Whether an error with this code and a text that begins so was logged.
    bool HasError(std::string_view begin, std::uint32_t code) const {
        const std::lock_guard lock(m_mutex);
        return std::any_of(
            m_messages.begin(), m_messages.begin() + m_count, [&](const Message& message) {
                return message.code == code && std::string_view(message.text).starts_with(begin);
            });
    }
    // Forgets what was logged so far.
    void Clear() {
        const std::lock_guard lock(m_mutex);
        m_count = 0;
    }

  private:
    struct Message {
        char text[256];
        std::uint32_t code;
    };
    static void K9SYS_CALL Collect(K9SysLogLevel /*level*/, const char* /*module*/,
                                   const char* text, std::uint32_t code, void* context) {
        auto& log = *static_cast<FixedLog*>(context);
        const std::lock_guard lock(log.m_mutex);
        if (log.m_count < std::ptrdiff_t{kMessagesMax}) {
            Message& message = log.m_messages.at(static_cast<std::size_t>(log.m_count++));
            std::strncpy(message.text, text, sizeof(message.text) - 1);
            message.code = code;
        }
    }

    static constexpr int kMessagesMax = 64;
    mutable std::mutex m_mutex;
    std::array<Message, kMessagesMax> m_messages{};  // guarded by m_mutex
    std::ptrdiff_t m_count = 0;                      // guarded by m_mutex
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_FIXED_LOG_H
