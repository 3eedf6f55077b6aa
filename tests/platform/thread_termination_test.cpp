// Threads that are ended from outside.
#include <atomic>
#include <mutex>

#include "platform/event.h"
#include "platform/lock.h"
#include "thread_fixture.h"

namespace k9erepl::test {
namespace {

using platform::AutoResetEvent;
using platform::kWaitForever;
using platform::WaitResult;

constexpr u32 kExitCode = 20;

class Termination : public ::testing::Test {
  protected:
    Termination() { EXPECT_TRUE(m_event.Create()); }

    AutoResetEvent m_event;
    std::atomic<bool> m_reached{false};
    std::atomic<bool> m_passed{false};
};

TEST_F(Termination, EndsAThreadThatWaitsForever) {
    TestThread thread([&] {
        m_reached = true;
        m_event.Wait(kWaitForever);
        m_passed = true;
    });
    ASSERT_TRUE(thread->Resume() && Eventually([&] { return m_reached.load(); }));
    EXPECT_TRUE(thread->Terminate(kExitCode));
    EXPECT_FALSE(thread->IsCreated());
    EXPECT_FALSE(m_passed);
}

TEST_F(Termination, EndsAThreadThatWaitsWithATimeOut) {
    TestThread thread([&] {
        m_event.Wait(kLongMs);
        m_passed = true;
    });
    ASSERT_TRUE(thread->Resume());
    EXPECT_TRUE(thread->Terminate(kExitCode));
    EXPECT_FALSE(m_passed);
}

TEST_F(Termination, EndsAThreadThatWasNeverResumed) {
    TestThread thread([&] { m_reached = true; });
    EXPECT_TRUE(thread->Terminate(1));
    EXPECT_FALSE(m_reached);
}

// Each may still be about to be set up by the system.
TEST_F(Termination, EndsThreadsThatWereJustCreated) {
    for (u32 round = 0; round < 500; ++round) {
        TestThread thread([&] { m_reached = true; });
        ASSERT_TRUE(thread->Terminate(kExitCode)) << "round " << round;
    }
    EXPECT_FALSE(m_reached);
}

TEST_F(Termination, OfAThreadThatHasEndedIsFine) {
    TestThread thread([&] { m_reached = true; });
    ASSERT_TRUE(thread->Resume() && Eventually([&] { return m_reached.load(); }));
    EXPECT_TRUE(thread->Terminate(kExitCode));
}

// The thread is about to begin, in its body, or on its way out.
TEST_F(Termination, MayComeAtAnyTime) {
    for (u32 round = 0; round < 100; ++round) {
        std::atomic<u32> steps{0};
        TestThread thread([&] { steps = 1; });
        ASSERT_TRUE(thread->Resume());
        if (round % 2 != 0) {
            ASSERT_TRUE(Eventually([&] { return steps == 1; }));
        }
        ASSERT_TRUE(thread->Terminate(kExitCode)) << "round " << round;
    }
}

#ifndef _WIN32  // Windows stops a thread wherever it is, and releases nothing

TEST_F(Termination, ReleasesTheLocksOfTheWaitingThread) {
    platform::RecursiveLock lock;
    TestThread thread([&] {
        const std::lock_guard guard(lock);
        m_reached = true;
        m_event.Wait(kWaitForever);
    });
    ASSERT_TRUE(thread->Resume() && Eventually([&] { return m_reached.load(); }));
    ASSERT_FALSE(lock.try_lock());
    ASSERT_TRUE(thread->Terminate(kExitCode));
    ASSERT_TRUE(lock.try_lock());
    lock.unlock();
}

TEST_F(Termination, PassesAHandlerOfAllExceptionsThatLetsItOn) {
    TestThread thread([&] {
        try {
            m_reached = true;
            m_event.Wait(kWaitForever);
        } catch (...) {
            platform::PassThreadEnd();
            m_passed = true;
        }
    });
    ASSERT_TRUE(thread->Resume() && Eventually([&] { return m_reached.load(); }));
    EXPECT_TRUE(thread->Terminate(kExitCode));
    EXPECT_FALSE(m_passed);
}

TEST_F(Termination, LeavesOtherExceptionsToTheHandler) {
    int caught = 0;
    try {
        throw 7;
    } catch (...) {
        platform::PassThreadEnd();
        ++caught;
    }
    EXPECT_EQ(caught, 1);
}

TEST_F(Termination, LeavesTheEventUsable) {
    std::atomic<bool> otherPassed{false};
    TestThread ended([&] { m_event.Wait(kWaitForever); });
    TestThread other([&] { otherPassed = m_event.Wait(kWaitForever) == WaitResult::kSignalled; });
    ASSERT_TRUE(ended->Resume() && other->Resume());
    ASSERT_TRUE(ended->Terminate(kExitCode));
    EXPECT_FALSE(otherPassed);
    ASSERT_TRUE(m_event.Set());
    EXPECT_EQ(other->Join(kLongMs), WaitResult::kSignalled);
    EXPECT_TRUE(otherPassed);
    EXPECT_EQ(m_event.Wait(0), WaitResult::kTimedOut);
}

TEST_F(Termination, WaitsInVainForAThreadThatDoesNotWait) {
    std::atomic<bool> goOn{false};
    TestThread thread([&] {
        m_reached = true;
        EXPECT_TRUE(Eventually([&] { return goOn.load(); }));
        m_event.Wait(kWaitForever);
        m_passed = true;
    });
    ASSERT_TRUE(thread->Resume() && Eventually([&] { return m_reached.load(); }));
    EXPECT_FALSE(thread->Terminate(kExitCode));
    EXPECT_TRUE(thread->IsCreated());
    goOn = true;
    // It ends at the first wait that it comes to.
    EXPECT_EQ(thread->Join(kLongMs), WaitResult::kSignalled);
    EXPECT_FALSE(m_passed);
}

// A part of a body whose end needs a wait of its own.
class WaitsAtItsEnd {
  public:
    explicit WaitsAtItsEnd(std::atomic<int>& ends) : m_ends(ends) {}
    ~WaitsAtItsEnd() {
        AutoResetEvent event;
        EXPECT_TRUE(event.Create());
        EXPECT_EQ(event.Wait(1), WaitResult::kTimedOut);
        ++m_ends;
    }
    WaitsAtItsEnd(const WaitsAtItsEnd&) = delete;
    WaitsAtItsEnd& operator=(const WaitsAtItsEnd&) = delete;

  private:
    std::atomic<int>& m_ends;
};

TEST_F(Termination, LetsDestructorsOfTheBodyWait) {
    std::atomic<int> ends{0};
    TestThread thread([&] {
        const WaitsAtItsEnd first(ends);
        const WaitsAtItsEnd second(ends);
        m_reached = true;
        m_event.Wait(kWaitForever);
    });
    ASSERT_TRUE(thread->Resume() && Eventually([&] { return m_reached.load(); }));
    EXPECT_TRUE(thread->Terminate(kExitCode));
    EXPECT_EQ(ends, 2);
}

#endif

}  // namespace
}  // namespace k9erepl::test
