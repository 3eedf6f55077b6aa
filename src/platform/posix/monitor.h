// A mutex with a condition, whose waits end by the monotonic clock: what events and thread records
// are made of. Private to this folder.
#ifndef K9EREPL_PLATFORM_POSIX_MONITOR_H
#define K9EREPL_PLATFORM_POSIX_MONITOR_H

#include <pthread.h>
#include <time.h>

#include "platform/int_types.h"

namespace k9erepl::platform::native {

// The moment at which a wait is over; never, for kWaitForever.
class Deadline {
  public:
    explicit Deadline(u32 timeoutMs);
    bool IsNever() const { return m_never; }
    const timespec& Moment() const { return m_moment; }

  private:
    bool m_never;
    timespec m_moment = {};
};

class Monitor {
  public:
    Monitor() = default;
    ~Monitor();
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    // Makes the monitor usable. False, with errno, when the system has no more of them.
    bool Init();

    void lock();
    void unlock();

    // Wakes every waiter. REQUIRES: locked.
    void NotifyAll();
    // Waits for one NotifyAll; may return without any. False when the deadline has passed.
    // REQUIRES: locked once.
    bool WaitUntil(const Deadline& deadline);

  private:
    bool m_ready = false;
    pthread_mutex_t m_mutex;
    pthread_cond_t m_changed;
};

}  // namespace k9erepl::platform::native

#endif  // K9EREPL_PLATFORM_POSIX_MONITOR_H
