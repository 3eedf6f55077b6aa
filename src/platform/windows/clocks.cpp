// Clocks: the tick count, the performance counter, the processor's time-stamp counter.
#include <intrin.h>

#include "platform/native_calls.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform::native {

u32 ClockTickCount() {
    return GetTickCount();
}

// GetTickCount is the system's last tick already.
u32 ClockCoarseTickCount() {
    return GetTickCount();
}

bool ClockPerformanceFrequency(i64* ticksPerSecond) {
    LARGE_INTEGER frequency = {};
    if (QueryPerformanceFrequency(&frequency) == FALSE || frequency.QuadPart == 0) {
        return false;
    }
    *ticksPerSecond = frequency.QuadPart;
    return true;
}

i64 ClockPerformanceCounter() {
    LARGE_INTEGER counter = {};
    QueryPerformanceCounter(&counter);
    return counter.QuadPart;
}

u64 ClockTimeStampCounter() {
#if defined(_M_IX86) || defined(_M_X64) || defined(__i386__) || defined(__x86_64__)
    return __rdtsc();
#else
    return static_cast<u64>(ClockPerformanceCounter());
#endif
}

}  // namespace k9erepl::platform::native
