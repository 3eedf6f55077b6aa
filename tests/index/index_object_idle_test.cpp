// The index thread's waits: the idle call at a time-out, and its end when something goes wrong.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>
#include <new>

#include "index/index_fixture.h"

namespace k9erepl::test {
namespace {

using platform::WaitResult;

// Waits that run out at once, as many as are left, and then last.
std::atomic<u32> g_timeOutsLeft{0};
std::atomic<u32> g_lastWaitMs{0};

WaitResult RunOut(void* event, u32 timeoutMs) {
    g_lastWaitMs = timeoutMs;
    if (g_timeOutsLeft != 0) {
        --g_timeOutsLeft;
        return WaitResult::kTimedOut;
    }
    return platform::NativeSystemCalls().waitEvent(event, kNoIdle);
}

class IndexObjectIdle : public IndexObjectTest {
  protected:
    void MakeWithTimeOuts(u32 count, u32 waitMs) {
        g_timeOutsLeft = count;
        platform::TheSystemCalls().waitEvent = RunOut;
        MakeStarted(waitMs);
    }
    void WaitForEnd() {
        ASSERT_TRUE(WaitFor([this] { return m_index->IsFinished(); }));
        WaitForThread();
    }
};

TEST_F(IndexObjectIdle, IsCalledOnceForEachFlushTimeoutWithoutRequest) {
    MakeWithTimeOuts(5, 1000);
    ASSERT_TRUE(WaitFor([this] { return m_storage.IdleCalls() == 5; }));
    EXPECT_EQ(g_lastWaitMs, 1000U);
    m_index->Stop();
    EXPECT_EQ(m_storage.IdleCalls(), 5U);
}

TEST_F(IndexObjectIdle, ComesWithTheRealClockToo) {
    MakeStarted(1);
    EXPECT_TRUE(WaitFor([this] { return m_storage.IdleCalls() >= 3; }));
}

TEST_F(IndexObjectIdle, IsNotCalledForARequest) {
    MakeStarted();
    m_blocks.AddMany(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    m_index->Stop();
    EXPECT_EQ(m_storage.IdleCalls(), 0U);
}

TEST_F(IndexObjectIdle, IsFollowedByFurtherSaves) {
    MakeWithTimeOuts(3, 1000);
    ASSERT_TRUE(WaitFor([this] { return m_storage.IdleCalls() == 3; }));
    m_blocks.AddMany(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectIdle, EndsTheThreadWithCode4WhenAWaitFails) {
    Make();
    FailWaitEvent(1);
    const u32 started = m_index->Start();  // the end may come before or after the return
    EXPECT_TRUE(started == RC_OK || started == RC_SYSTEM_ERROR);
    WaitForEnd();
    EXPECT_EQ(m_log.CountContaining(";exit code 0x4"), 1U) << m_log;
    EXPECT_EQ(m_index->Start(), RC_OK);
}

TEST_F(IndexObjectIdle, EndsTheThreadWithCode1WhenMemoryRunsOut) {
    std::atomic<bool> started{false};  // an end that comes sooner would fail the start
    m_storage.onIdle = [&started] {
        if (started) {
            throw std::bad_alloc();
        }
    };
    MakeStarted(1);
    started = true;
    WaitForEnd();
    EXPECT_EQ(m_log.CountContaining(";exit code 0x1"), 1U) << m_log;
    m_index->Stop();
    EXPECT_TRUE(m_log.Has("Thread closed")) << m_log;
}

}  // namespace
}  // namespace k9erepl::test
