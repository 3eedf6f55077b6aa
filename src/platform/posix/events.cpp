// Auto-reset events: a flag under a monitor. A thread of ours that is told to end leaves its wait
// here, by an exception (thread_termination.h).
#include <cerrno>
#include <memory>
#include <mutex>
#include <new>

#include "platform/native_calls.h"
#include "platform/posix/monitor.h"
#include "platform/posix/thread_termination.h"

namespace k9erepl::platform::native {
namespace {

struct Event {
    Monitor monitor;
    bool isSet = false;  // guarded by the monitor
};

// Takes the event if it is set, or as soon as it is. Returns false when the time is over. An event
// that is set at the last moment is still taken.
bool Take(Event& event, const Deadline& deadline, const InterruptibleWait& wait) {
    const std::lock_guard lock(event.monitor);
    bool inTime = true;
    for (;;) {
        if (wait.MustEnd()) {
            throw ThreadTermination();
        }
        if (event.isSet) {
            event.isSet = false;
            return true;
        }
        if (!inTime) {
            return false;
        }
        inTime = event.monitor.WaitUntil(deadline);
    }
}

}  // namespace

void* EventCreate() {
    std::unique_ptr<Event> event(new (std::nothrow) Event);
    if (event == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    return event->monitor.Init() ? event.release() : nullptr;
}

void EventDestroy(void* event) {
    delete static_cast<Event*>(event);
}

bool EventSet(void* event) {
    Event& target = *static_cast<Event*>(event);
    const std::lock_guard lock(target.monitor);
    target.isSet = true;
    // Wakes all waiters: a single one might be a thread that ends without taking the event.
    target.monitor.NotifyAll();
    return true;
}

WaitResult EventWait(void* event, u32 timeoutMs) {
    Event& source = *static_cast<Event*>(event);
    const Deadline deadline(timeoutMs);
    const InterruptibleWait wait(source.monitor);
    return Take(source, deadline, wait) ? WaitResult::kSignalled : WaitResult::kTimedOut;
}

}  // namespace k9erepl::platform::native
