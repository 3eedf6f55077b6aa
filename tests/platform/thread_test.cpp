// Threads that end by themselves.
#include "platform/thread.h"

#include <atomic>

#include "platform/event.h"
#include "platform/system_error.h"
#include "support/fault_injection.h"
#include "support/new_fault.h"
#include "thread_fixture.h"

namespace k9erepl::test {
namespace {

using platform::AutoResetEvent;
using platform::Thread;
using platform::WaitResult;

TEST(ThreadTest, RunsItsBodyWithItsArgument) {
    Thread thread;
    int argument = 0;
    ASSERT_TRUE(thread.Create(
        [](void* given) {
            *static_cast<int*>(given) = 7;
            return u32{0};
        },
        &argument));
    ASSERT_TRUE(thread.Resume());
    EXPECT_EQ(thread.Join(kLongMs), WaitResult::kSignalled);
    EXPECT_EQ(argument, 7);
}

TEST(ThreadTest, StaysSuspendedUntilResumed) {
    std::atomic<bool> ran{false};
    TestThread thread([&] { ran = true; });
    EXPECT_EQ(thread->Join(30), WaitResult::kTimedOut);
    EXPECT_FALSE(ran);
    ASSERT_TRUE(thread->Resume());
    EXPECT_EQ(thread->Join(kLongMs), WaitResult::kSignalled);
    EXPECT_TRUE(ran);
}

TEST(ThreadTest, JoinTimesOutWhileTheThreadRuns) {
    AutoResetEvent end;
    ASSERT_TRUE(end.Create());
    TestThread thread([&] { end.Wait(platform::kWaitForever); });
    ASSERT_TRUE(thread->Resume());
    EXPECT_EQ(thread->Join(0), WaitResult::kTimedOut);
    EXPECT_EQ(thread->Join(20), WaitResult::kTimedOut);
    EXPECT_TRUE(thread->IsCreated());
    ASSERT_TRUE(end.Set());
    EXPECT_EQ(thread->Join(platform::kWaitForever), WaitResult::kSignalled);
}

TEST(ThreadTest, IsGoneOnceJoinedAndCanBeCreatedAgain) {
    Thread thread;
    const platform::ThreadBody body = [](void* runs) {
        ++*static_cast<int*>(runs);
        return u32{0};
    };
    int runs = 0;
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(thread.Create(body, &runs) && thread.Resume());
        EXPECT_EQ(thread.Join(kLongMs), WaitResult::kSignalled);
        EXPECT_FALSE(thread.IsCreated());
        EXPECT_EQ(runs, round);
    }
}

TEST(ThreadTest, HasAnIdOfItsOwn) {
    std::atomic<u32> id{0};
    TestThread thread([&] { id = platform::CurrentThreadId(); });
    ASSERT_TRUE(thread->Resume());
    ASSERT_EQ(thread->Join(kLongMs), WaitResult::kSignalled);
    EXPECT_NE(id, 0U);
    EXPECT_NE(id, platform::CurrentThreadId());
    EXPECT_EQ(platform::CurrentThreadId(), platform::CurrentThreadId());
}

struct TwoEvents {
    AutoResetEvent goOn;
    AutoResetEvent gone;
};

TEST(ThreadTest, ADetachedThreadRunsOn) {
    TwoEvents events;
    ASSERT_TRUE(events.goOn.Create() && events.gone.Create());
    Thread thread;
    ASSERT_TRUE(thread.Create(
        [](void* argument) {
            auto& both = *static_cast<TwoEvents*>(argument);
            both.goOn.Wait(platform::kWaitForever);
            EXPECT_TRUE(both.gone.Set());
            return u32{0};
        },
        &events));
    ASSERT_TRUE(thread.Resume());
    thread.Detach();
    EXPECT_FALSE(thread.IsCreated());
    ASSERT_TRUE(events.goOn.Set());
    EXPECT_EQ(events.gone.Wait(kLongMs), WaitResult::kSignalled);
}

TEST(ThreadWithoutCreation, FailsEveryUse) {
    Thread thread;
    EXPECT_FALSE(thread.Resume());
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kInvalidHandle));
    EXPECT_FALSE(thread.SetAffinity(1));
    EXPECT_FALSE(thread.Terminate(1));
    EXPECT_EQ(thread.Join(0), WaitResult::kFailed);
    thread.Detach();
}

TEST(ThreadFaults, AThreadThatCannotBeCreatedIsNot) {
    const ScopedSystemCalls systemCalls;
    FailCreateThread(1);
    Thread thread;
    EXPECT_FALSE(thread.Create([](void*) { return u32{0}; }, nullptr));
    EXPECT_FALSE(thread.IsCreated());
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kOutOfMemory));
}

TEST(ThreadFaults, AThreadNeedsMemory) {
    const FailNthNew fault(1);
    Thread thread;
    EXPECT_FALSE(thread.Create([](void*) { return u32{0}; }, nullptr));
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kOutOfMemory));
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

TEST(SleepTest, LastsAtLeastAsLongAsAsked) {
    i64 frequency = 0;
    ASSERT_TRUE(platform::PerformanceFrequency(&frequency));
    const i64 start = platform::PerformanceCounter();
    platform::SleepMs(20);
    EXPECT_GE((platform::PerformanceCounter() - start) * 1000 / frequency, 19);
}

}  // namespace
}  // namespace k9erepl::test
