// The outcome of a wait for an event or for the end of a thread. Time-outs are milliseconds.
#ifndef K9EREPL_PLATFORM_WAIT_RESULT_H
#define K9EREPL_PLATFORM_WAIT_RESULT_H

#include "platform/int_types.h"

namespace k9erepl::platform {

// kSignalled: the event was set, or the thread has ended. kTimedOut: neither happened in time.
// kFailed: the system refused to wait; LastSystemError() says why.
enum class WaitResult { kSignalled, kTimedOut, kFailed };

// A time-out that never ends.
inline constexpr u32 kWaitForever = 0xFFFFFFFF;

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_WAIT_RESULT_H
