// The test helper that makes system calls fail.
#include "support/fault_injection.h"

#include <cstring>

#include "files_fixture.h"
#include "platform/clock.h"
#include "platform/memory.h"
#include "thread_fixture.h"

namespace k9erepl::test {
namespace {

class FaultInjection : public FilesFixture {
  protected:
    FaultInjection() { EXPECT_TRUE(Create(m_file, "a")); }

    ScopedSystemCalls m_systemCalls;
    File m_file;
};

TEST_F(FaultInjection, FailsTheNthCallOnly) {
    FailWrite(2);
    EXPECT_TRUE(Write(m_file, "1"));
    EXPECT_FALSE(Write(m_file, "2"));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNoSpace));
    EXPECT_TRUE(Write(m_file, "3"));
    EXPECT_EQ(ReadText(PathOf("a")), "13");
    EXPECT_EQ(CallCount(SystemCall::kWrite), 3U);
}

TEST_F(FaultInjection, FailsFromTheNthCallUntilStopped) {
    FailFlush(2, SystemErrorKind::kInputOutput, Repeat::kFromThenOn);
    EXPECT_TRUE(m_file.FlushToDisk());
    EXPECT_FALSE(m_file.FlushToDisk());
    EXPECT_FALSE(m_file.FlushToDisk());
    StopFailing(SystemCall::kFlush);
    EXPECT_TRUE(m_file.FlushToDisk());
}

TEST_F(FaultInjection, CountsFromThePlanOn) {
    ASSERT_TRUE(Write(m_file, "1") && Write(m_file, "2"));
    FailWrite(1);
    EXPECT_FALSE(Write(m_file, "3"));
}

TEST_F(FaultInjection, AShortWriteOfNothingFailsAtOnce) {
    ShortWrite(1, 0, SystemErrorKind::kInputOutput);
    EXPECT_FALSE(Write(m_file, "1"));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kInputOutput));
    EXPECT_TRUE(Write(m_file, "2"));
    EXPECT_EQ(ReadText(PathOf("a")), "2");
}

TEST_F(FaultInjection, AShortReadOfNothingIsTheEndOfTheFileOnce) {
    ASSERT_TRUE(Write(m_file, "12") && m_file.Seek(0));
    ShortRead(1, 0);
    EXPECT_EQ(Read(m_file, 2), "");
    EXPECT_EQ(Read(m_file, 2), "12");
}

TEST_F(FaultInjection, ATransferThatIsShortAnywayHasNoSecondPart) {
    ShortWrite(1, 100);
    EXPECT_TRUE(Write(m_file, "12"));
    EXPECT_TRUE(Write(m_file, "34"));
}

TEST_F(FaultInjection, FailsLargeAllocationsOnly) {
    FailAlloc(1, 1000);
    EXPECT_NE(platform::AllocBuffer(999), nullptr);
    EXPECT_EQ(platform::AllocBuffer(1000), nullptr);
    EXPECT_NE(platform::AllocBuffer(1000), nullptr);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), 3U);
}

TEST_F(FaultInjection, ClocksStandWhereATestPutsThem) {
    SetTickCount(0xFFFFFFFF);
    EXPECT_EQ(platform::TickCountMs(), 0xFFFFFFFFU);
    AdvanceTickCount(2);
    EXPECT_EQ(platform::TickCountMs(), 1U);
    SetPerformanceCounter(5);
    AdvancePerformanceCounter(6);
    EXPECT_EQ(platform::PerformanceCounter(), 11);
    SetTimeStampCounter(7, 2);
    EXPECT_EQ(platform::TimeStampCounter(), 7U);
    EXPECT_EQ(platform::TimeStampCounter(), 9U);
}

TEST_F(FaultInjection, TheFrequencyCanBeSetOrMissing) {
    i64 frequency = 3;
    SetPerformanceFrequency(1000);
    EXPECT_TRUE(platform::PerformanceFrequency(&frequency));
    EXPECT_EQ(frequency, 1000);
    Fail(SystemCall::kPerformanceFrequency, 1);
    EXPECT_FALSE(platform::PerformanceFrequency(&frequency));
    EXPECT_EQ(frequency, 1000);
}

TEST(FaultInjectionEnd, LeavesTheTableAsItWas) {
    const platform::SystemCalls before = platform::TheSystemCalls();
    {
        const ScopedSystemCalls systemCalls;
        EXPECT_NE(platform::TheSystemCalls().writeFile, before.writeFile);
    }
    const platform::SystemCalls& after = platform::TheSystemCalls();
    EXPECT_EQ(std::memcmp(&after, &before, sizeof before), 0);
}

TEST(FaultInjectionEnd, ForgetsEveryPlanAndCount) {
    {
        const ScopedSystemCalls systemCalls;
        FailAlloc(1);
        SetTickCount(5);
    }
    const ScopedSystemCalls systemCalls;
    EXPECT_NE(platform::AllocBuffer(1), nullptr);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), 1U);
    EXPECT_TRUE(Eventually([] { return platform::TickCountMs() != 5; }));
}

}  // namespace
}  // namespace k9erepl::test
