// What a wait for an event or a thread's end came to.
#ifndef K9EREPL_PLATFORM_WAIT_RESULT_H
#define K9EREPL_PLATFORM_WAIT_RESULT_H

#include "platform/int_types.h"

namespace k9erepl::platform {

enum class WaitResult { kSignalled, kTimedOut, kFailed };

// A time-out that never runs out.
inline constexpr u32 kWaitForever = 0xFFFFFFFF;

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_WAIT_RESULT_H
