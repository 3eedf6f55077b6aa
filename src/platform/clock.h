// The clocks: the tick count for time-outs and for what was used last, the performance counter for
// timing reports, the processor's time-stamp counter for the stamps of commit blocks. None of them
// is the time of day, and none fails once PerformanceFrequency has succeeded. Any thread may read
// them.
#ifndef K9EREPL_PLATFORM_CLOCK_H
#define K9EREPL_PLATFORM_CLOCK_H

#include "platform/int_types.h"
#include "platform/system_calls.h"

namespace k9erepl::platform {

// Milliseconds of a clock that is never set back. It wraps around after 49.7 days, so only
// differences of unsigned 32-bit numbers mean something, never which of two counts is larger.
inline u32 TickCountMs() {
    return TheSystemCalls().tickCount();
}

// The same count as it was at the system's last tick: never above TickCountMs, and below it by a
// few milliseconds, kCoarseTickLagMs at the very most. Reading it costs a third.
inline u32 CoarseTickCountMs() {
    return TheSystemCalls().coarseTickCount();
}
inline constexpr u32 kCoarseTickLagMs = 1000;

// Writes how many ticks of the performance counter make a second. Returns false when the system has
// no such counter; *ticksPerSecond is then unchanged.
[[nodiscard]] inline bool PerformanceFrequency(i64* ticksPerSecond) {
    return TheSystemCalls().performanceFrequency(ticksPerSecond);
}
// Ticks since some moment in the past; only differences mean something.
inline i64 PerformanceCounter() {
    return TheSystemCalls().performanceCounter();
}

// A number that changes with every few instructions, so two commit blocks hardly ever get the same
// stamp. On a processor without such a counter, another clock of the system stands in.
inline u64 TimeStampCounter() {
    return TheSystemCalls().timeStampCounter();
}

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_CLOCK_H
