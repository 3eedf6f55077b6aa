// The test helpers that make system calls and operator new fail.
#include "support/fault_injection.h"

#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "files_fixture.h"
#include "platform/clock.h"
#include "platform/memory.h"
#include "support/new_fault.h"
#include "thread_fixture.h"

namespace k9erepl::test {
namespace {

class FaultInjection : public FilesFixture {
  protected:
    FaultInjection() { EXPECT_TRUE(Create(m_file, "a")); }

    ScopedSystemCalls m_systemCalls;
    File m_file;
};

TEST_F(FaultInjection, FailsTheNthCallFromThePlanOnOnceOrUntilStopped) {
    for (u32 round = 1; round <= 2; ++round) {
        FailWrite(2);
        EXPECT_TRUE(Write(m_file, "1"));
        EXPECT_FALSE(Write(m_file, "2"));
        EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNoSpace));
        EXPECT_TRUE(Write(m_file, "3"));
        EXPECT_EQ(CallCount(SystemCall::kWrite), 3 * round);
    }
    EXPECT_EQ(ReadText(PathOf("a")), "1313");
    FailFlush(2, SystemErrorKind::kInputOutput, Repeat::kFromThenOn);
    EXPECT_TRUE(m_file.FlushToDisk());
    EXPECT_FALSE(m_file.FlushToDisk());
    EXPECT_FALSE(m_file.FlushToDisk());
    StopFailing(SystemCall::kFlush);
    EXPECT_TRUE(m_file.FlushToDisk());
}

TEST_F(FaultInjection, AShortTransferOfNothingEndsAtOnceAndAShorterOneIsWhole) {
    ShortWrite(1, 0, SystemErrorKind::kInputOutput);
    EXPECT_FALSE(Write(m_file, "1"));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kInputOutput));
    ShortWrite(1, 100);
    EXPECT_TRUE(Write(m_file, "1"));
    EXPECT_TRUE(Write(m_file, "2") && m_file.Seek(0));
    ShortRead(1, 0);
    EXPECT_EQ(Read(m_file, 2), "");
    EXPECT_EQ(Read(m_file, 2), "12");
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
    AdvanceTickCount(2);
    EXPECT_EQ(platform::TickCountMs(), 1U);
    SetPerformanceCounter(5);
    AdvancePerformanceCounter(6);
    EXPECT_EQ(platform::PerformanceCounter(), 11);
    SetTimeStampCounter(7, 2);
    EXPECT_EQ(platform::TimeStampCounter(), 7U);
    EXPECT_EQ(platform::TimeStampCounter(), 9U);
    i64 frequency = 3;
    SetPerformanceFrequency(1000);
    EXPECT_TRUE(platform::PerformanceFrequency(&frequency));
    Fail(SystemCall::kPerformanceFrequency, 1);
    EXPECT_FALSE(platform::PerformanceFrequency(&frequency));
    EXPECT_EQ(frequency, 1000);
}

TEST(FaultInjectionEnd, LeavesTheTableAsItWasAndForgetsEveryPlanAndCount) {
    const platform::SystemCalls before = platform::TheSystemCalls();
    {
        const ScopedSystemCalls systemCalls;
        EXPECT_NE(platform::TheSystemCalls().writeFile, before.writeFile);
        FailAlloc(1);
        SetTickCount(5);
    }
    EXPECT_EQ(std::memcmp(&platform::TheSystemCalls(), &before, sizeof before), 0);
    const ScopedSystemCalls systemCalls;
    EXPECT_NE(platform::AllocBuffer(1), nullptr);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), 1U);
    EXPECT_TRUE(Eventually([] { return platform::TickCountMs() != 5; }));
}

struct alignas(64) Wide {
    char bytes[64];
};

const volatile void* volatile g_seen;

// A compiler may leave out an allocation that nobody sees.
template <typename Pointer>
Pointer Seen(Pointer pointer) {
    g_seen = pointer.get();
    return pointer;
}

TEST(NewFault, TheNthAllocationOfAnyFormFailsOnce) {
    {
        const FailNthNew fault(2);
        Seen(std::make_unique<int>(1));
        EXPECT_FALSE(fault.Struck());
        EXPECT_THROW(Seen(std::make_unique<int[]>(10)), std::bad_alloc);
        EXPECT_TRUE(fault.Struck());
        EXPECT_NO_THROW(Seen(std::make_unique<int>(3)));
    }
    {
        const FailNthNew fault(1);
        EXPECT_THROW(Seen(std::make_unique<Wide>()), std::bad_alloc);
    }
    const FailNthNew fault(1);
    const auto one = Seen(std::unique_ptr<int>(new (std::nothrow) int(1)));
    EXPECT_EQ(one, nullptr);
    const auto wide = Seen(std::make_unique<Wide[]>(3));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(wide.get()) % alignof(Wide), 0U);
}

TEST(NewFault, CountsTheCallsOfThisThread) {
    std::vector<int> numbers;
    const u64 before = NewCallsOfThisThread();
    numbers.reserve(10);
    numbers.push_back(1);
    EXPECT_EQ(NewCallsOfThisThread(), before + 1);
}

}  // namespace
}  // namespace k9erepl::test
