// An auto-reset event: Set lets exactly one waiter pass, now or later. The index thread is woken by
// one; the asynchronous writer uses several.
#ifndef K9EREPL_PLATFORM_EVENT_H
#define K9EREPL_PLATFORM_EVENT_H

#include "platform/int_types.h"
#include "platform/wait_result.h"

namespace k9erepl::platform {

// An event does not count: several calls of Set before a Wait let one Wait pass. Everything that
// was written before a Set is seen behind the Wait that it lets pass.
//
// Failures are false or kFailed, with LastSystemError().
class AutoResetEvent {
  public:
    AutoResetEvent() = default;
    ~AutoResetEvent() { Close(); }
    AutoResetEvent(const AutoResetEvent&) = delete;
    AutoResetEvent& operator=(const AutoResetEvent&) = delete;

    // Creates the event, which is not set at first.
    // REQUIRES: not created already.
    [[nodiscard]] bool Create();
    bool IsCreated() const { return m_event != nullptr; }
    // Does nothing when the event was not created. Create may follow.
    // REQUIRES: no thread waits for the event.
    void Close();

    // Both may be called from any thread, and fail with kInvalidHandle when the event was not
    // created. Wait waits at most `timeoutMs` milliseconds, or kWaitForever. On POSIX systems it is
    // also where a thread of ours is ended from outside: it then throws (see thread.h).
    [[nodiscard]] bool Set();
    WaitResult Wait(u32 timeoutMs);

  private:
    void* m_event = nullptr;  // the system's event; null when there is none
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_EVENT_H
