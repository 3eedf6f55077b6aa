// Clocks: the monotonic clock, and the processor's time-stamp counter where there is one.
#include <time.h>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#define K9EREPL_HAS_TIME_STAMP_COUNTER
#endif

#include "platform/native_calls.h"

namespace k9erepl::platform::native {
namespace {

constexpr i64 kNanosecondsPerSecond = 1'000'000'000;
constexpr u32 kNanosecondsPerMillisecond = 1'000'000;
constexpr u32 kMillisecondsPerSecond = 1000;

i64 MonotonicNanoseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return i64{now.tv_sec} * kNanosecondsPerSecond + now.tv_nsec;
}

// Counts modulo 2^32, so seconds that do not fit do no harm.
u32 Milliseconds(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<u32>(now.tv_sec) * kMillisecondsPerSecond +
           static_cast<u32>(now.tv_nsec) / kNanosecondsPerMillisecond;
}

}  // namespace

u32 ClockTickCount() {
    return Milliseconds(CLOCK_MONOTONIC);
}

u32 ClockCoarseTickCount() {
#ifdef CLOCK_MONOTONIC_COARSE
    return Milliseconds(CLOCK_MONOTONIC_COARSE);
#else
    return Milliseconds(CLOCK_MONOTONIC);
#endif
}

bool ClockPerformanceFrequency(i64* ticksPerSecond) {
    *ticksPerSecond = kNanosecondsPerSecond;
    return true;
}

i64 ClockPerformanceCounter() {
    return MonotonicNanoseconds();
}

u64 ClockTimeStampCounter() {
#ifdef K9EREPL_HAS_TIME_STAMP_COUNTER
    return __rdtsc();
#else
    return static_cast<u64>(MonotonicNanoseconds());
#endif
}

}  // namespace k9erepl::platform::native
