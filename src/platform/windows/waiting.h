// Waits for a handle: an event, or a thread that ends. Private to this folder.
#ifndef K9EREPL_PLATFORM_WINDOWS_WAITING_H
#define K9EREPL_PLATFORM_WINDOWS_WAITING_H

#include "platform/wait_result.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform::native {

static_assert(kWaitForever == INFINITE);

// Waits at most `timeoutMs` milliseconds, or kWaitForever, which the assertion above lets us pass
// on as it is. An auto-reset event that lets the caller pass is no longer set. kFailed leaves the
// cause in GetLastError.
[[nodiscard]] inline WaitResult WaitFor(HANDLE handle, u32 timeoutMs) {
    switch (WaitForSingleObject(handle, timeoutMs)) {
        case WAIT_OBJECT_0:
            return WaitResult::kSignalled;
        case WAIT_TIMEOUT:
            return WaitResult::kTimedOut;
        default:
            return WaitResult::kFailed;
    }
}

}  // namespace k9erepl::platform::native

#endif  // K9EREPL_PLATFORM_WINDOWS_WAITING_H
