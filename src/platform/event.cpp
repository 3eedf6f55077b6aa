// An auto-reset event, built on the table of system calls.
#include "platform/event.h"

#include <cassert>
#include <utility>

#include "platform/system_calls.h"
#include "platform/system_error.h"

namespace k9erepl::platform {

bool AutoResetEvent::Create() {
    assert(!IsCreated());
    m_event = TheSystemCalls().createEvent();
    return IsCreated();
}

void AutoResetEvent::Close() {
    if (IsCreated()) {
        TheSystemCalls().destroyEvent(std::exchange(m_event, nullptr));
    }
}

bool AutoResetEvent::Set() {
    if (!IsCreated()) {
        SetLastSystemError(SystemErrorOf(SystemErrorKind::kInvalidHandle));
        return false;
    }
    return TheSystemCalls().setEvent(m_event);
}

WaitResult AutoResetEvent::Wait(u32 timeoutMs) {
    if (!IsCreated()) {
        SetLastSystemError(SystemErrorOf(SystemErrorKind::kInvalidHandle));
        return WaitResult::kFailed;
    }
    return TheSystemCalls().waitEvent(m_event, timeoutMs);
}

}  // namespace k9erepl::platform
