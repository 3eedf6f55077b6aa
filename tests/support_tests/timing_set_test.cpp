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

constexpr i64 kTicksPerSecond = 10'000'000;  // ten a microsecond
constexpr i64 kTicksPerMicrosecond = 10;

class TimingSetTest : public ::testing::Test {
  protected:
    TimingSetTest() {
        SetPerformanceFrequency(kTicksPerSecond);
        SetPerformanceCounter(1000);
    }

    static void Measure(TimingSet& timing, u32 index, i64 microseconds) {
        timing.Start(index);
        AdvancePerformanceCounter(microseconds * kTicksPerMicrosecond);
        timing.Stop(index);
    }

    // The line that a report logs.
    std::string Report(TimingSet& timing) {
        m_log.Clear();
        timing.Report();
        const auto messages = m_log.Messages();
        EXPECT_EQ(messages.size(), 1U) << m_log;
        EXPECT_EQ(messages.at(0).level, K9SYS_LOG_INFO);
        EXPECT_EQ(messages.at(0).module, kLogTiming);
        return messages.at(0).text;
    }

    const ScopedSystemCalls m_systemCalls;
    LogCapture m_log;
};

}  // namespace

TEST_F(TimingSetTest, CountersAreNumberedInTheOrderOfRegistration) {
    TimingSet timing;
    EXPECT_EQ(timing.Register("Flush"), 0U);
    EXPECT_EQ(timing.Register("OnFlushCb"), 1U);
    EXPECT_EQ(timing.Register("flush"), 2U);
    EXPECT_EQ(m_log.Messages(), std::vector<LoggedMessage>());
}

TEST_F(TimingSetTest, RegisteringANameTwiceIsLoggedAndReturnsTheFirstIndex) {
    TimingSet timing;
    timing.Register("Idx-Save");
    const u32 first = timing.Register("Flush");
    EXPECT_EQ(timing.Register("Flush"), first);
    EXPECT_EQ(m_log.Messages(),
              (std::vector<LoggedMessage>{
                  {K9SYS_LOG_ERROR, kLogTiming, "Counter 'Flush' has already registered", 0}}));
}

TEST_F(TimingSetTest, SeveralIntervalsReportTheirSumCountAndMean) {
    TimingSet timing;
    const u32 flush = timing.Register("Flush");
    Measure(timing, flush, 10);
    Measure(timing, flush, 20);
    Measure(timing, flush, 30);
    EXPECT_EQ(Report(timing), "Flush: 60.00 mcs (3 x 20.00 mcs)  ");
}

TEST_F(TimingSetTest, OneIntervalReportsNoParenthesis) {
    TimingSet timing;
    Measure(timing, timing.Register("Flush"), 25);
    EXPECT_EQ(Report(timing), "Flush: 25.00 mcs  ");
}

TEST_F(TimingSetTest, ACounterNeverMeasuredReportsZero) {
    TimingSet timing;
    timing.Register("Flush");
    EXPECT_EQ(Report(timing), "Flush: 0.00 mcs  ");
}

TEST_F(TimingSetTest, PartsOfAMicrosecondHaveTwoDecimals) {
    TimingSet timing;
    const u32 flush = timing.Register("Flush");
    timing.Start(flush);
    AdvancePerformanceCounter(123);
    timing.Stop(flush);
    EXPECT_EQ(Report(timing), "Flush: 12.30 mcs  ");
}

TEST_F(TimingSetTest, AReportHasEveryCounterInOrder) {
    TimingSet timing;
    const u32 save = timing.Register("Idx-Save");
    const u32 sync = timing.Register("Idx-Sync");
    Measure(timing, sync, 5);
    Measure(timing, save, 1);
    Measure(timing, save, 2);
    EXPECT_EQ(Report(timing), "Idx-Save: 3.00 mcs (2 x 1.50 mcs)  Idx-Sync: 5.00 mcs  ");
}

TEST_F(TimingSetTest, AfterAReportEveryCounterReadsZero) {
    TimingSet timing;
    const u32 flush = timing.Register("Flush");
    timing.Register("WriteData1");
    Measure(timing, flush, 10);
    Report(timing);
    EXPECT_EQ(Report(timing), "Flush: 0.00 mcs  WriteData1: 0.00 mcs  ");
    Measure(timing, flush, 7);
    EXPECT_EQ(Report(timing), "Flush: 7.00 mcs  WriteData1: 0.00 mcs  ");
}

TEST_F(TimingSetTest, StartingTwiceIsLoggedAndLosesWhatWasGathered) {
    TimingSet timing;
    const u32 flush = timing.Register("Flush");
    Measure(timing, flush, 100);
    timing.Start(flush);
    AdvancePerformanceCounter(50 * kTicksPerMicrosecond);
    Measure(timing, flush, 8);
    EXPECT_EQ(m_log.Messages(),
              (std::vector<LoggedMessage>{
                  {K9SYS_LOG_ERROR, kLogTiming, "Counter 'Flush' has already started", 0}}));
    EXPECT_EQ(Report(timing), "Flush: 8.00 mcs  ");
}

TEST_F(TimingSetTest, ARunningCounterIsNotReported) {
    TimingSet timing;
    const u32 flush = timing.Register("Flush");
    timing.Start(flush);
    AdvancePerformanceCounter(50 * kTicksPerMicrosecond);
    EXPECT_EQ(Report(timing), "Flush: 0.00 mcs  ");
}

TEST_F(TimingSetTest, AReportEndsWhatIsRunning) {
    TimingSet timing;
    const u32 flush = timing.Register("Flush");
    timing.Start(flush);
    timing.Report();
    m_log.Clear();
    timing.Start(flush);
    EXPECT_EQ(m_log.Messages(), std::vector<LoggedMessage>());
}

TEST_F(TimingSetTest, ResettingKeepsTheCounters) {
    TimingSet timing;
    Measure(timing, timing.Register("Flush"), 10);
    timing.Reset(false);
    EXPECT_EQ(Report(timing), "Flush: 0.00 mcs  ");
}

TEST_F(TimingSetTest, ResettingAllRemovesTheCounters) {
    TimingSet timing;
    timing.Register("Flush");
    timing.Reset(true);
    EXPECT_EQ(Report(timing), "");
    EXPECT_EQ(timing.Register("WriteData1"), 0U);
}

TEST_F(TimingSetTest, ALongNameIsCutToTheCountersText) {
    TimingSet timing;
    const std::string name(200, 'n');
    timing.Register(name.c_str());
    EXPECT_EQ(Report(timing), std::string(127, 'n') + "  ");
}

TEST_F(TimingSetTest, TheMeanIsCutToTheRoomThatIsLeft) {
    TimingSet timing;
    const std::string name(110, 'n');
    const u32 index = timing.Register(name.c_str());
    Measure(timing, index, 10);
    Measure(timing, index, 20);
    EXPECT_EQ(Report(timing), name + ": 30.00 mcs (2 x   ");
}

TEST_F(TimingSetTest, WithoutAFrequencyDurationsAreNegative) {
    Fail(SystemCall::kPerformanceFrequency, 1);
    TimingSet timing;
    EXPECT_EQ(m_log.Messages(),
              (std::vector<LoggedMessage>{
                  {K9SYS_LOG_ERROR, kLogTiming, "QueryPerformanceFrequency() failed", 0}}));
    Measure(timing, timing.Register("Flush"), 10);
    EXPECT_EQ(Report(timing), "Flush: -100.00 mcs  ");
}

TEST_F(TimingSetTest, MeasuringAndReportingAllocateNothing) {
    TimingSet timing;
    for (const char* name : {"Flush", "OnFlushCb", "ForcedFlush", "FlushOnIdle"}) {
        timing.Register((name + std::string(100, 'n')).c_str());
    }
    K9SysSetLogLevel(kLogTiming, K9SYS_LOG_OFF);
    timing.Report();
    const u64 before = NewCallsOfThisThread();
    for (int i = 0; i < 10; ++i) {
        Measure(timing, 0, 10);
    }
    timing.Report();
    EXPECT_EQ(NewCallsOfThisThread(), before);
}

TEST_F(TimingSetTest, StoppingACounterThatDoesNotRunDoesNothing) {
    TimingSet timing;
    const u32 flush = timing.Register("Flush");
    timing.Stop(flush);
    EXPECT_EQ(Report(timing), "Flush: 0.00 mcs  ");
    timing.Start(flush);
    Report(timing);
    timing.Stop(flush);
    EXPECT_EQ(Report(timing), "Flush: 0.00 mcs  ");
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
        EXPECT_EQ(Report(timing),
                  struck ? "Flush: 0.00 mcs  " : "Flush: 0.00 mcs  " + longName + ": 0.00 mcs  ");
    }
}

}  // namespace k9erepl::test
