// An auto-reset event: Set lets exactly one waiter pass, now or later. The index thread's wake-up
// and the asynchronous writer's events.
#ifndef K9EREPL_PLATFORM_EVENT_H
#define K9EREPL_PLATFORM_EVENT_H

#include "platform/int_types.h"
#include "platform/wait_result.h"

namespace k9erepl::platform {

// Failures are false or kFailed, with LastSystemError().
class AutoResetEvent {
  public:
    AutoResetEvent() = default;
    ~AutoResetEvent() { Close(); }
    AutoResetEvent(const AutoResetEvent&) = delete;
    AutoResetEvent& operator=(const AutoResetEvent&) = delete;

    // Creates the event, not set.
    // REQUIRES: not created already.
    bool Create();
    bool IsCreated() const { return m_event != nullptr; }
    void Close();

    // Set and Wait may be called from any thread. A Wait on an event that was not created fails.
    bool Set();
    WaitResult Wait(u32 timeoutMs);

  private:
    void* m_event = nullptr;
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_EVENT_H
