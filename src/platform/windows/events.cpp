// Auto-reset events.
#include "platform/native_calls.h"
#include "platform/windows/waiting.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform::native {

void* EventCreate() {
    constexpr BOOL kManualReset = FALSE;
    constexpr BOOL kInitiallySet = FALSE;
    return CreateEventA(nullptr, kManualReset, kInitiallySet, nullptr);
}

void EventDestroy(void* event) {
    CloseHandle(event);
}

bool EventSet(void* event) {
    return SetEvent(event) != FALSE;
}

WaitResult EventWait(void* event, u32 timeoutMs) {
    return WaitFor(event, timeoutMs);
}

}  // namespace k9erepl::platform::native
