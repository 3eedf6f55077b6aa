// Stopwatches over a performance counter that the tests move.
#include "support/timing_set.h"

#include <gtest/gtest.h>

#include <new>
#include <string>
#include <vector>

#include "support/fault_injection.h"
#include "support/log.h"
#include "support/log_capture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

constexpr i64 kTicksPerSecond = 10'000'000;
constexpr i64 kTicksPerMicrosecond = 10;

class TimingSetTest : public ::testing::Test {
  protected:
    static TimingSet WithTestClock() {
        SetPerformanceFrequency(kTicksPerSecond);
        SetPerformanceCounter(1000);
        return TimingSet();
    }
    // Intervals of that many microseconds.
    void Measure(u32 index, const std::vector<i64>& microseconds) {
        for (const i64 interval : microseconds) {
            m_timing.Start(index);
            AdvancePerformanceCounter(interval * kTicksPerMicrosecond);
            m_timing.Stop(index);
        }
    }
    void ExpectError(const std::string& text) {
        EXPECT_EQ(m_log.Messages(),
                  (std::vector<LoggedMessage>{{K9SYS_LOG_ERROR, kLogTiming, text, 0}}));
    }
    // What is reported from here on is this one line.
    void ExpectReport(const std::string& line) { ExpectReport(m_timing, line); }
    void ExpectReport(TimingSet& timing, const std::string& line) {
        m_log.Clear();
        timing.Report();
        EXPECT_EQ(m_log.Messages(),
                  (std::vector<LoggedMessage>{{K9SYS_LOG_INFO, kLogTiming, line, 0}}));
    }

    const ScopedSystemCalls m_systemCalls;
    LogCapture m_log;
    TimingSet m_timing = WithTestClock();
};

TEST_F(TimingSetTest, CountersAreNumberedInTheOrderOfRegistration) {
    EXPECT_EQ(m_timing.Register("Flush"), 0U);
    EXPECT_EQ(m_timing.Register("OnFlushCb"), 1U);
    EXPECT_EQ(m_timing.Register("flush"), 2U);
    EXPECT_TRUE(m_log.Messages().empty());
    EXPECT_EQ(m_timing.Register("OnFlushCb"), 1U);
    ExpectError("Counter 'OnFlushCb' has already registered");
}

TEST_F(TimingSetTest, AReportHasSumCountAndMeanOfEveryCounterInOrder) {
    const u32 save = m_timing.Register("Idx-Save");
    const u32 sync = m_timing.Register("Idx-Sync");
    m_timing.Register("Flush");
    Measure(sync, {25});
    Measure(save, {1, 2});
    ExpectReport("Idx-Save: 3.00 mcs (2 x 1.50 mcs)  Idx-Sync: 25.00 mcs  Flush: 0.00 mcs  ");
}

TEST_F(TimingSetTest, PartsOfAMicrosecondHaveTwoDecimals) {
    const u32 flush = m_timing.Register("Flush");
    m_timing.Start(flush);
    AdvancePerformanceCounter(123);
    m_timing.Stop(flush);
    ExpectReport("Flush: 12.30 mcs  ");
}

TEST_F(TimingSetTest, AfterAReportEveryCounterReadsZero) {
    const u32 flush = m_timing.Register("Flush");
    Measure(flush, {10});
    ExpectReport("Flush: 10.00 mcs  ");
    ExpectReport("Flush: 0.00 mcs  ");
    Measure(flush, {7});
    ExpectReport("Flush: 7.00 mcs  ");
}

TEST_F(TimingSetTest, StartingTwiceIsLoggedAndLosesWhatWasGathered) {
    const u32 flush = m_timing.Register("Flush");
    Measure(flush, {100});
    m_timing.Start(flush);
    AdvancePerformanceCounter(50 * kTicksPerMicrosecond);
    Measure(flush, {8});
    ExpectError("Counter 'Flush' has already started");
    ExpectReport("Flush: 8.00 mcs  ");
}

TEST_F(TimingSetTest, ARunningCounterIsNotReportedAndEndsWithTheReport) {
    const u32 flush = m_timing.Register("Flush");
    m_timing.Start(flush);
    AdvancePerformanceCounter(50 * kTicksPerMicrosecond);
    ExpectReport("Flush: 0.00 mcs  ");
    m_timing.Stop(flush);
    ExpectReport("Flush: 0.00 mcs  ");
    m_log.Clear();
    m_timing.Start(flush);
    EXPECT_TRUE(m_log.Messages().empty());
}

TEST_F(TimingSetTest, ResettingKeepsTheCountersOrRemovesThem) {
    Measure(m_timing.Register("Flush"), {10});
    m_timing.Reset(false);
    ExpectReport("Flush: 0.00 mcs  ");
    m_timing.Reset(true);
    ExpectReport("");
    EXPECT_EQ(m_timing.Register("WriteData1"), 0U);
}

TEST_F(TimingSetTest, ACountersTextIsCutToItsRoom) {
    const std::string fits(110, 'n');
    m_timing.Register(std::string(200, 'x').c_str());
    Measure(m_timing.Register(fits.c_str()), {10, 20});
    ExpectReport(std::string(127, 'x') + "  " + fits + ": 30.00 mcs (2 x   ");
}

TEST_F(TimingSetTest, WithoutAFrequencyDurationsAreNegative) {
    Fail(SystemCall::kPerformanceFrequency, 1);
    TimingSet timing;
    ExpectError("QueryPerformanceFrequency() failed");
    const u32 flush = timing.Register("Flush");
    timing.Start(flush);
    AdvancePerformanceCounter(100);
    timing.Stop(flush);
    ExpectReport(timing, "Flush: -100.00 mcs  ");
}

TEST_F(TimingSetTest, MeasuringAndReportingAllocateNothing) {
    for (const char* name : {"Flush", "OnFlushCb", "ForcedFlush", "FlushOnIdle"}) {
        m_timing.Register((name + std::string(100, 'n')).c_str());
    }
    K9SysSetLogLevel(kLogTiming, K9SYS_LOG_OFF);
    m_timing.Report();
    const std::vector<i64> intervals(10, 10);
    const u64 before = NewCallsOfThisThread();
    Measure(0, intervals);
    m_timing.Report();
    EXPECT_EQ(NewCallsOfThisThread(), before);
}

TEST_F(TimingSetTest, RegisteringWithoutMemoryThrowsAndAddsNothing) {
    const std::string longName(100, 'n');
    bool struck = true;
    for (u32 nth = 1; struck; ++nth) {
        TimingSet timing;
        timing.Register("Flush");
        bool threw = false;
        {
            const FailNthNew fault(nth);
            try {
                timing.Register(longName.c_str());
            } catch (const std::bad_alloc&) {
                threw = true;
            }
            struck = fault.Struck();
        }
        EXPECT_EQ(threw, struck);
        ExpectReport(timing, "Flush: 0.00 mcs  " + (struck ? "" : longName + ": 0.00 mcs  "));
    }
}

}  // namespace
}  // namespace k9erepl::test
