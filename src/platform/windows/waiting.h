// Waiting for a handle: events and ended threads. Private to this folder.
#ifndef K9EREPL_PLATFORM_WINDOWS_WAITING_H
#define K9EREPL_PLATFORM_WINDOWS_WAITING_H

#include "platform/wait_result.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform::native {

static_assert(kWaitForever == INFINITE);

inline WaitResult WaitFor(HANDLE handle, u32 timeoutMs) {
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
