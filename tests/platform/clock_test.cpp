// The clocks.
#include "platform/clock.h"

#include "platform/thread.h"
#include "thread_fixture.h"

namespace k9erepl::test {
namespace {

TEST(Clocks, TheTickCountGoesOn) {
    const u32 start = platform::TickCountMs();
    EXPECT_TRUE(Eventually([&] { return platform::TickCountMs() - start >= 20; }));
}

TEST(Clocks, TheCoarseTickCountFollowsTheTickCount) {
    u32 lowest = platform::CoarseTickCountMs();
    const u32 start = lowest;
    EXPECT_TRUE(Eventually([&] {
        const u32 coarse = platform::CoarseTickCountMs();
        EXPECT_LE(platform::TickCountMs() - coarse, platform::kCoarseTickLagMs);
        EXPECT_LE(coarse - lowest, platform::kCoarseTickLagMs) << "it went back";
        lowest = coarse;
        return coarse - start >= 20;
    }));
}

TEST(Clocks, ThePerformanceCounterGoesOnAndNeverBack) {
    i64 last = platform::PerformanceCounter();
    const i64 start = last;
    EXPECT_TRUE(Eventually([&] {
        const i64 now = platform::PerformanceCounter();
        EXPECT_GE(now, last);
        last = now;
        return now > start;
    }));
}

TEST(Clocks, TheTickCountAndThePerformanceCounterMeasureTheSameTime) {
    i64 frequency = 0;
    ASSERT_TRUE(platform::PerformanceFrequency(&frequency));
    const u32 tickStart = platform::TickCountMs();
    const i64 start = platform::PerformanceCounter();
    platform::SleepMs(100);
    const i64 elapsedMs = (platform::PerformanceCounter() - start) * 1000 / frequency;
    const i64 elapsedTicks = platform::TickCountMs() - tickStart;
    EXPECT_GE(elapsedTicks, 80);
    // The counter was read inside the ticks' interval at its beginning, outside it at its end.
    EXPECT_LE(elapsedMs, elapsedTicks + 20);
}

TEST(Clocks, TheTimeStampCounterChanges) {
    const u64 first = platform::TimeStampCounter();
    EXPECT_TRUE(Eventually([&] { return platform::TimeStampCounter() > first; }));
}

}  // namespace
}  // namespace k9erepl::test
