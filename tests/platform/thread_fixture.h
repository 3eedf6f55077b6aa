// Threads with lambdas as bodies, and waiting for a condition without sleeping blindly.
#ifndef K9EREPL_TESTS_PLATFORM_THREAD_FIXTURE_H
#define K9EREPL_TESTS_PLATFORM_THREAD_FIXTURE_H

#include <gtest/gtest.h>

#include <functional>

#include "platform/clock.h"
#include "platform/thread.h"

namespace k9erepl::test {

inline constexpr u32 kLongMs = 30000;  // what only a broken test waits for

// Runs `body` on a platform thread. The body must outlive the thread.
class TestThread {
  public:
    explicit TestThread(std::function<void()> body) : m_body(std::move(body)) {
        EXPECT_TRUE(m_thread.Create(Run, &m_body));
    }
    TestThread(const TestThread&) = delete;
    TestThread& operator=(const TestThread&) = delete;
    // Ends the thread's test; a thread that was not started or joined by then is a failed one.
    ~TestThread() {
        if (m_thread.IsCreated()) {
            EXPECT_EQ(m_thread.Join(kLongMs), platform::WaitResult::kSignalled);
        }
    }

    platform::Thread& operator*() { return m_thread; }
    platform::Thread* operator->() { return &m_thread; }

  private:
    static u32 Run(void* body) {
        (*static_cast<std::function<void()>*>(body))();
        return 0;
    }

    std::function<void()> m_body;
    platform::Thread m_thread;
};

// Waits until `condition` holds; false when it takes too long.
template <typename Condition>
bool Eventually(Condition condition) {
    const u32 start = platform::TickCountMs();
    while (!condition()) {
        if (platform::TickCountMs() - start > kLongMs) {
            return false;
        }
        platform::YieldThread();
    }
    return true;
}

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_PLATFORM_THREAD_FIXTURE_H
