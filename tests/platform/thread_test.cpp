// Threads that end by themselves, and those that are ended from outside.
#include "platform/thread.h"

#include <atomic>
#include <mutex>

#include "platform/event.h"
#include "platform/lock.h"
#include "platform/system_error.h"
#include "support/fault_injection.h"
#include "support/new_fault.h"
#include "thread_fixture.h"

namespace k9erepl::test {
namespace {

using platform::AutoResetEvent;
using platform::kWaitForever;
using platform::Thread;
using platform::WaitResult;

constexpr u32 kExitCode = 20;

u32 CountRun(void* runs) {
    ++*static_cast<int*>(runs);
    return 0;
}

class ThreadTest : public ::testing::Test {
  protected:
    ThreadTest() { EXPECT_TRUE(m_event.Create()); }

    // Resumes a thread whose body sets m_reached, and returns when it has.
    void Start(TestThread& thread) {
        ASSERT_TRUE(thread->Resume() && Eventually([&] { return m_reached.load(); }));
    }
    // The body of most threads: it waits for the event.
    void ReachAndWait(u32 timeoutMs = kWaitForever) {
        m_reached = true;
        m_event.Wait(timeoutMs);
        m_passed = true;
    }

    AutoResetEvent m_event;
    std::atomic<bool> m_reached{false};
    std::atomic<bool> m_passed{false};
};

using Termination = ThreadTest;

TEST_F(ThreadTest, RunsItsBodyWithItsArgumentAndCanBeCreatedAgainOnceJoined) {
    Thread thread;
    int runs = 0;
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(thread.Create(&CountRun, &runs) && thread.Resume());
        EXPECT_EQ(thread.Join(kLongMs), WaitResult::kSignalled);
        EXPECT_FALSE(thread.IsCreated());
        EXPECT_EQ(runs, round);
    }
}

TEST_F(ThreadTest, StaysSuspendedUntilResumedAndJoinTimesOutWhileItRuns) {
    TestThread thread([&] { ReachAndWait(); });
    EXPECT_EQ(thread->Join(30), WaitResult::kTimedOut);
    EXPECT_FALSE(m_reached);
    Start(thread);
    EXPECT_EQ(thread->Join(0), WaitResult::kTimedOut);
    EXPECT_EQ(thread->Join(20), WaitResult::kTimedOut);
    EXPECT_TRUE(thread->IsCreated());
    ASSERT_TRUE(m_event.Set());
    EXPECT_EQ(thread->Join(kWaitForever), WaitResult::kSignalled);
}

TEST_F(ThreadTest, HasAnIdOfItsOwn) {
    std::atomic<u32> id{0};
    TestThread thread([&] { id = platform::CurrentThreadId(); });
    ASSERT_TRUE(thread->Resume());
    ASSERT_EQ(thread->Join(kLongMs), WaitResult::kSignalled);
    EXPECT_NE(id, 0U);
    EXPECT_NE(id, platform::CurrentThreadId());
    EXPECT_EQ(platform::CurrentThreadId(), platform::CurrentThreadId());
}

TEST_F(ThreadTest, ADetachedThreadRunsOn) {
    AutoResetEvent gone;
    ASSERT_TRUE(gone.Create());
    AutoResetEvent* both[] = {&m_event, &gone};
    Thread thread;
    ASSERT_TRUE(thread.Create(
        [](void* argument) {
            auto* const events = static_cast<AutoResetEvent**>(argument);
            events[0]->Wait(kWaitForever);
            EXPECT_TRUE(events[1]->Set());
            return u32{0};
        },
        static_cast<void*>(both)));
    ASSERT_TRUE(thread.Resume());
    thread.Detach();
    EXPECT_FALSE(thread.IsCreated());
    ASSERT_TRUE(m_event.Set());
    EXPECT_EQ(gone.Wait(kLongMs), WaitResult::kSignalled);
}

TEST(ThreadFaults, WithoutCreationEveryUseFails) {
    Thread thread;
    EXPECT_FALSE(thread.Resume());
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kInvalidHandle));
    EXPECT_FALSE(thread.SetAffinity(1));
    EXPECT_FALSE(thread.Terminate(1));
    EXPECT_EQ(thread.Join(0), WaitResult::kFailed);
    thread.Detach();
}

TEST(ThreadFaults, AThreadNeedsTheSystemAndMemory) {
    const ScopedSystemCalls systemCalls;
    FailCreateThread(1);
    for (const bool noMemory : {false, true}) {
        Thread thread;
        {
            const FailNthNew fault(noMemory ? 1 : 1000);
            EXPECT_FALSE(thread.Create(&CountRun, nullptr));
        }
        EXPECT_FALSE(thread.IsCreated());
        EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kOutOfMemory));
    }
}

TEST(ThreadFaults, FailedCallsAreReportedAndTheThreadStays) {
    const ScopedSystemCalls systemCalls;
    TestThread thread([] {});
    Fail(SystemCall::kSetAffinity, 1);
    Fail(SystemCall::kResumeThread, 1);
    Fail(SystemCall::kJoinThread, 1);
    Fail(SystemCall::kTerminateThread, 1);
    EXPECT_FALSE(thread->SetAffinity(1));
    EXPECT_FALSE(thread->Resume());
    EXPECT_EQ(thread->Join(0), WaitResult::kFailed);
    EXPECT_FALSE(thread->Terminate(20));
    EXPECT_TRUE(thread->IsCreated());
    EXPECT_TRUE(thread->Resume());
}

TEST_F(Termination, EndsAThreadThatWaits) {
    for (const u32 timeoutMs : {kWaitForever, kLongMs}) {
        m_reached = false;
        TestThread thread([&] { ReachAndWait(timeoutMs); });
        Start(thread);
        EXPECT_TRUE(thread->Terminate(kExitCode));
        EXPECT_FALSE(thread->IsCreated());
        EXPECT_FALSE(m_passed);
    }
}

// Each may still be about to be set up by the system.
TEST_F(Termination, EndsThreadsThatWereJustCreated) {
    for (u32 round = 0; round < 500; ++round) {
        TestThread thread([&] { m_reached = true; });
        ASSERT_TRUE(thread->Terminate(kExitCode)) << "round " << round;
    }
    EXPECT_FALSE(m_reached);
}

// The thread is about to begin, in its body, on its way out, or has ended.
TEST_F(Termination, MayComeAtAnyTime) {
    for (u32 round = 0; round < 100; ++round) {
        m_reached = false;
        TestThread thread([&] { m_reached = true; });
        ASSERT_TRUE(thread->Resume());
        if (round % 2 != 0) {
            ASSERT_TRUE(Eventually([&] { return m_reached.load(); }));
        }
        ASSERT_TRUE(thread->Terminate(kExitCode)) << "round " << round;
    }
}

#ifndef _WIN32  // Windows stops a thread wherever it is, and releases nothing

TEST_F(Termination, ReleasesTheLocksOfTheWaitingThread) {
    platform::RecursiveLock lock;
    TestThread thread([&] {
        const std::lock_guard guard(lock);
        ReachAndWait();
    });
    Start(thread);
    ASSERT_FALSE(lock.try_lock());
    ASSERT_TRUE(thread->Terminate(kExitCode));
    ASSERT_TRUE(lock.try_lock());
    lock.unlock();
}

TEST_F(Termination, PassesAHandlerOfAllExceptionsThatLetsItOn) {
    TestThread thread([&] {
        try {
            ReachAndWait();
        } catch (...) {
            platform::PassThreadEnd();
            m_passed = true;
        }
    });
    Start(thread);
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
    TestThread ended([&] { m_event.Wait(kWaitForever); });
    TestThread other([&] { ReachAndWait(); });
    ASSERT_TRUE(ended->Resume() && other->Resume());
    ASSERT_TRUE(ended->Terminate(kExitCode));
    EXPECT_FALSE(m_passed);
    ASSERT_TRUE(m_event.Set());
    EXPECT_EQ(other->Join(kLongMs), WaitResult::kSignalled);
    EXPECT_TRUE(m_passed);
    EXPECT_EQ(m_event.Wait(0), WaitResult::kTimedOut);
}

TEST_F(Termination, WaitsInVainForAThreadThatDoesNotWait) {
    std::atomic<bool> goOn{false};
    TestThread thread([&] {
        m_reached = true;
        EXPECT_TRUE(Eventually([&] { return goOn.load(); }));
        ReachAndWait();
    });
    Start(thread);
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
        ReachAndWait();
    });
    Start(thread);
    EXPECT_TRUE(thread->Terminate(kExitCode));
    EXPECT_EQ(ends, 2);
}

#endif

}  // namespace
}  // namespace k9erepl::test
