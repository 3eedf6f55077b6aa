// Auto-reset events.
#include "platform/event.h"

#include <atomic>

#include "platform/system_error.h"
#include "support/fault_injection.h"
#include "support/new_fault.h"
#include "thread_fixture.h"

namespace k9erepl::test {
namespace {

using platform::AutoResetEvent;
using platform::kWaitForever;
using platform::WaitResult;

class EventTest : public ::testing::Test {
  protected:
    EventTest() { EXPECT_TRUE(m_event.Create()); }

    AutoResetEvent m_event;
};

TEST_F(EventTest, IsNotSetAtFirstNorWhenItIsCreatedAgain) {
    EXPECT_EQ(m_event.Wait(0), WaitResult::kTimedOut);
    EXPECT_TRUE(m_event.Set());
    m_event.Close();
    EXPECT_FALSE(m_event.IsCreated());
    ASSERT_TRUE(m_event.Create());
    EXPECT_EQ(m_event.Wait(0), WaitResult::kTimedOut);
}

TEST_F(EventTest, AWaitLastsAsLongAsItsTimeOut) {
    const i64 start = platform::PerformanceCounter();
    i64 frequency = 0;
    ASSERT_TRUE(platform::PerformanceFrequency(&frequency));
    EXPECT_EQ(m_event.Wait(30), WaitResult::kTimedOut);
    EXPECT_GE((platform::PerformanceCounter() - start) * 1000 / frequency, 29);
}

TEST_F(EventTest, SetsLetALaterWaitPassOnce) {
    for (const int sets : {1, 2}) {
        for (int set = 0; set < sets; ++set) {
            EXPECT_TRUE(m_event.Set());
        }
        EXPECT_EQ(m_event.Wait(kWaitForever), WaitResult::kSignalled);
        EXPECT_EQ(m_event.Wait(0), WaitResult::kTimedOut);
    }
}

TEST_F(EventTest, ASetWakesAWaiter) {
    for (const u32 timeoutMs : {kWaitForever, kLongMs}) {
        std::atomic<bool> waiting{false};
        std::atomic<bool> passed{false};
        TestThread waiter([&] {
            waiting = true;
            passed = m_event.Wait(timeoutMs) == WaitResult::kSignalled;
        });
        ASSERT_TRUE(waiter->Resume() && Eventually([&] { return waiting.load(); }));
        EXPECT_TRUE(m_event.Set());
        EXPECT_EQ(waiter->Join(kLongMs), WaitResult::kSignalled);
        EXPECT_TRUE(passed);
    }
}

TEST_F(EventTest, EachSetLetsExactlyOneOfTwoWaitersPass) {
    std::atomic<int> passed{0};
    const auto wait = [&] {
        m_event.Wait(kWaitForever);
        ++passed;
    };
    TestThread first(wait);
    TestThread second(wait);
    ASSERT_TRUE(first->Resume() && second->Resume() && m_event.Set());
    ASSERT_TRUE(Eventually([&] { return passed == 1; }));
    EXPECT_EQ(m_event.Wait(0), WaitResult::kTimedOut);
    EXPECT_EQ(passed, 1);
    EXPECT_TRUE(m_event.Set());
    EXPECT_TRUE(Eventually([&] { return passed == 2; }));
}

TEST(EventFaults, AnEventThatCannotBeCreatedFailsEveryUse) {
    const ScopedSystemCalls systemCalls;
    FailCreateEvent(1);
    AutoResetEvent event;
    EXPECT_FALSE(event.Create());
    EXPECT_FALSE(event.IsCreated());
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kOutOfMemory));
    EXPECT_FALSE(event.Set());
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kInvalidHandle));
    EXPECT_EQ(event.Wait(0), WaitResult::kFailed);
    event.Close();
}

#ifndef _WIN32  // whose events take no memory of the process

TEST(EventFaults, AnEventNeedsMemory) {
    const FailNthNew fault(1);
    AutoResetEvent event;
    EXPECT_FALSE(event.Create());
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kOutOfMemory));
}

#endif

TEST(EventFaults, FailedCallsAreReported) {
    const ScopedSystemCalls systemCalls;
    AutoResetEvent event;
    ASSERT_TRUE(event.Create());
    FailSetEvent(1);
    FailWaitEvent(1);
    EXPECT_FALSE(event.Set());
    EXPECT_EQ(event.Wait(0), WaitResult::kFailed);
    EXPECT_EQ(event.Wait(0), WaitResult::kTimedOut);
}

}  // namespace
}  // namespace k9erepl::test
