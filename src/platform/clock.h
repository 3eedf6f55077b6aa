// The clocks: the tick count for time-outs and recency, the performance counter for
// timing reports, the processor's time-stamp counter for the stamps of commit blocks.
#ifndef K9EREPL_PLATFORM_CLOCK_H
#define K9EREPL_PLATFORM_CLOCK_H

#include "platform/int_types.h"
#include "platform/system_calls.h"

namespace k9erepl::platform {

// Milliseconds of a clock that never stands still or goes back; wraps after 49.7 days, so only
// unsigned differences mean something.
inline u32 TickCountMs() {
    return TheSystemCalls().tickCount();
}

// False when the system has no performance counter; *ticksPerSecond is then unchanged.
inline bool PerformanceFrequency(i64* ticksPerSecond) {
    return TheSystemCalls().performanceFrequency(ticksPerSecond);
}
inline i64 PerformanceCounter() {
    return TheSystemCalls().performanceCounter();
}

// A number that changes with every few instructions.
inline u64 TimeStampCounter() {
    return TheSystemCalls().timeStampCounter();
}

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_CLOCK_H
