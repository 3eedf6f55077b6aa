// A gate for threads, for tests that need one of them to stand still at a certain place.
#ifndef K9EREPL_TESTS_SUPPORT_GATE_H
#define K9EREPL_TESTS_SUPPORT_GATE_H

#include <condition_variable>
#include <mutex>

#include "platform/int_types.h"

namespace k9erepl::test {

// A place that a thread passes, and at which it is held while the gate is shut.
class Gate {
  public:
    explicit Gate(bool open) : m_open(open) {}

    void Shut() {
        const std::lock_guard guard(m_mutex);
        m_open = false;
        m_permits = 0;
    }
    void Open() {
        const std::lock_guard guard(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    // Lets the thread pass once, now or when it comes.
    void LetOnePass() {
        const std::lock_guard guard(m_mutex);
        ++m_permits;
        m_changed.notify_all();
    }
    bool IsHeld() {
        const std::lock_guard guard(m_mutex);
        return HoldsOne();
    }
    void WaitUntilHeld() {
        std::unique_lock guard(m_mutex);
        m_changed.wait(guard, [&] { return HoldsOne(); });
    }
    // The thread comes by.
    void Pass() {
        std::unique_lock guard(m_mutex);
        ++m_waiting;
        m_changed.notify_all();
        m_changed.wait(guard, [&] { return m_open || m_permits > 0; });
        --m_waiting;
        if (!m_open) {
            --m_permits;
        }
    }

  private:
    bool HoldsOne() const { return m_waiting > 0 && m_permits == 0; }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open;
    u32 m_permits = 0;
    u32 m_waiting = 0;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_GATE_H
