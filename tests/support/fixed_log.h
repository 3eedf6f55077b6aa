// Collects errors without allocating anything: for tests in which allocations fail, where a
// LogCapture would take the failures meant for the library.
#ifndef K9EREPL_TESTS_SUPPORT_FIXED_LOG_H
#define K9EREPL_TESTS_SUPPORT_FIXED_LOG_H

#include <k9sys/k9sys.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>

namespace k9erepl::test {

// While it lives, errors of all modules come to it, the first 64 of them, cut to 255 characters.
// No LogCapture may begin or end meanwhile. Messages may come from any thread.
class FixedLog {
  public:
    FixedLog();
    ~FixedLog();
    FixedLog(const FixedLog&) = delete;
    FixedLog& operator=(const FixedLog&) = delete;

    // Whether an error with this code and a text that begins so was logged.
    bool HasError(std::string_view begin, std::uint32_t code) const;
    // Forgets what was logged so far.
    void Clear();

  private:
    struct Message {
        char text[256];
        std::uint32_t code;
    };
    static void K9SYS_CALL Collect(K9SysLogLevel level, const char* module, const char* text,
                                   std::uint32_t code, void* context);

    mutable std::mutex m_mutex;
    std::array<Message, 64> m_messages{};  // guarded by m_mutex
    std::size_t m_count = 0;               // guarded by m_mutex
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_FIXED_LOG_H
