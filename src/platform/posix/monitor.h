// A mutex with a condition variable whose waits end by the monotonic clock, so that nobody who sets
// the time of day can lengthen or cut them. Events and thread records are made of it. Private to
// this folder.
#ifndef K9EREPL_PLATFORM_POSIX_MONITOR_H
#define K9EREPL_PLATFORM_POSIX_MONITOR_H

#include <pthread.h>
#include <time.h>

#include "platform/int_types.h"

namespace k9erepl::platform::native {

// The moment at which a wait is over. Made once for a wait that may take several attempts, so that
// these share one time-out.
class Deadline {
  public:
    // `timeoutMs` is in milliseconds from now on; kWaitForever makes a deadline that never comes.
    explicit Deadline(u32 timeoutMs);
    bool IsNever() const { return m_never; }
    // By CLOCK_MONOTONIC. Means nothing when IsNever().
    const timespec& Moment() const { return m_moment; }

  private:
    bool m_never;
    timespec m_moment = {};
};

// What it guards is its owner's matter. It fits std::lock_guard, hence the small letters of lock
// and unlock; the lock is not recursive.
class Monitor {
  public:
    // Not usable before Init.
    Monitor() = default;
    ~Monitor();
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    // Makes the monitor usable. To be called once. Returns false, with errno, when the system has
    // no more of them.
    [[nodiscard]] bool Init();

    void lock();
    void unlock();

    // Wakes every waiter. REQUIRES: locked.
    void NotifyAll();
    // Unlocks, waits for a NotifyAll and locks again. It may also return without one, so the caller
    // looks again at what it waits for. Returns false when the deadline has passed.
    // REQUIRES: locked by this thread.
    [[nodiscard]] bool WaitUntil(const Deadline& deadline);

  private:
    bool m_ready = false;  // Init has succeeded: the two below exist
    pthread_mutex_t m_mutex;
    // Signalled by NotifyAll: what the monitor guards has changed.
    pthread_cond_t m_changed;
};

}  // namespace k9erepl::platform::native

#endif  // K9EREPL_PLATFORM_POSIX_MONITOR_H
