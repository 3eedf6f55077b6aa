// Tells which case was running when the process crashes or hangs.
#ifndef K9EREPL_TESTS_RELIABILITY_WATCHDOG_H
#define K9EREPL_TESTS_RELIABILITY_WATCHDOG_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace k9erepl::reliability {

// While it lives a fatal signal, or a case that takes longer than two minutes, prints the command
// that replays the case, and ends the process. One at a time.
class Watchdog {
  public:
    Watchdog();
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void Running(const std::string& command);

  private:
    void Watch();

    std::atomic<unsigned> m_case{0};
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_end = false;  // guarded by m_mutex
    std::thread m_thread;
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_WATCHDOG_H
