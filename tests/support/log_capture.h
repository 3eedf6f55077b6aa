// Collects what the library logs, so that a test compares exact texts. Used by every module's
// tests.
//
//   LogCapture log;
//   ...
//   EXPECT_TRUE(log.Has("Failed to begin trans;state 1")) << log;
//   EXPECT_EQ(log.CodeOf("Failed to begin trans;state 1"), 27u);
#ifndef K9EREPL_TESTS_SUPPORT_LOG_CAPTURE_H
#define K9EREPL_TESTS_SUPPORT_LOG_CAPTURE_H

#include <k9sys/k9sys.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace k9erepl::test {

struct LoggedMessage {
    K9SysLogLevel level = K9SYS_LOG_OFF;
    std::string module;
    std::string text;
    std::uint32_t code = 0;  // 0: the message carries none

    bool operator==(const LoggedMessage&) const = default;
};

std::ostream& operator<<(std::ostream& out, const LoggedMessage& message);

// While it lives, messages of all levels come to it and nowhere else. At its end the levels and
// the capture that were there before hold again; with no capture left, messages go to the log file
// at the levels of K9SYS_LOG, and nothing is logged when that is not set. Captures end in the
// reverse order of their beginning. Messages may come from any thread.
class LogCapture {
  public:
    // All modules, or only the given ones.
    explicit LogCapture(std::vector<std::string> modules = {});
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Whether, and how often, a message with exactly this text was logged.
    bool Has(std::string_view text) const { return Count(text) != 0; }
    bool Has(K9SysLogLevel level, std::string_view text) const {
        return CountIf([&](const LoggedMessage& message) {
                   return message.level == level && message.text == text;
               }) != 0;
    }
    std::size_t Count(std::string_view text) const {
        return CountIf([&](const LoggedMessage& message) { return message.text == text; });
    }
    // How many messages have `part` in their text.
    std::size_t CountContaining(std::string_view part) const {
        return CountIf([&](const LoggedMessage& message) {
            return message.text.find(part) != std::string::npos;
        });
    }
    // The code of the first message with exactly this text; none when there is no such message.
    std::optional<std::uint32_t> CodeOf(std::string_view text) const;

    // What was logged since the beginning or the last Clear, oldest first; texts of all levels or
    // of one.
    std::vector<LoggedMessage> Messages() const;
    std::vector<std::string> Texts(std::optional<K9SysLogLevel> level = {}) const;
    void Clear();

  private:
    static void K9SYS_CALL Collect(K9SysLogLevel level, const char* module, const char* text,
                                   std::uint32_t code, void* context);
    void Install();
    template <typename Condition>
    std::size_t CountIf(Condition condition) const {
        const std::lock_guard lock(m_mutex);
        return static_cast<std::size_t>(
            std::count_if(m_messages.begin(), m_messages.end(), condition));
    }

    const std::vector<std::string> m_modules;  // empty: all
    LogCapture* const m_previous;
    mutable std::mutex m_mutex;
    std::vector<LoggedMessage> m_messages;  // guarded by m_mutex
};

// All messages, one a line.
std::ostream& operator<<(std::ostream& out, const LogCapture& capture);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_LOG_CAPTURE_H
