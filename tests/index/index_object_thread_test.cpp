// The index thread: its waits with the idle call at a time-out; requests that it makes itself in
// its idle call, as callbacks of the idle flush do, and carries out, for nobody else would; and the
// hand-over between requesters and it, thousands of times in random order.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>
#include <new>
#include <random>
#include <thread>

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

TEST_F(IndexObjectIdle, IsFollowedByFurtherSavesForWhichItIsNotCalled) {
    MakeWithTimeOuts(3, 1000);
    ASSERT_TRUE(WaitFor([this] { return m_storage.IdleCalls() == 3; }));
    m_blocks.AddMany(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    m_index->Stop();
    EXPECT_EQ(m_storage.IdleCalls(), 3U);
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

// Memory blocks given back since the fixture began.
std::atomic<u32> g_freed{0};
// Whether the next idle call has work to do. It outlives every thread of these tests.
std::atomic<bool> g_hasWork{false};

class IndexThreadItself : public IndexObjectTest {
  protected:
    IndexThreadItself() {
        g_freed = 0;
        platform::TheSystemCalls().freeMemory = [](void* memory) {
            platform::NativeSystemCalls().freeMemory(memory);
            ++g_freed;
        };
    }
    // A thread that stopped itself makes its last system call when it frees the image.
    static void WaitForTheEnd() {
        ASSERT_TRUE(WaitFor([] { return g_freed != 0; }));
    }
    // Runs `work` in the first idle call after the start, and waits until it has returned.
    void InTheIdleCall(const std::function<void()>& work) {
        g_hasWork = false;
        m_storage.onIdle = [work] {
            if (g_hasWork) {
                work();
                g_hasWork = false;
            }
        };
        MakeStarted(1);
        g_hasWork = true;
        ASSERT_TRUE(WaitFor([] { return !g_hasWork; }));
        if (m_index != nullptr) {
            WaitForThread();
            m_index->Stop();
        }
    }
};

TEST_F(IndexThreadItself, SavesAtOnceBehindAPendingSave) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        m_blocks.AddMany(2);
        EXPECT_EQ(SaveSync(), RC_OK);
        EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    });
    EXPECT_EQ(m_log.CountContaining("File rewritten ("), 1U) << m_log;
    EXPECT_EQ(m_log.CountContaining("File updated ("), 1U) << m_log;
}

TEST_F(IndexThreadItself, LeavesPendingSavesToItsNextTurn) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        EXPECT_TRUE(m_index->IsBusy());
        EXPECT_EQ(FileBytes(), IndexFileBytes({}));
        m_index->StartOver();
        m_blocks.AddMany(2);
        EXPECT_EQ(SaveAsync(), RC_OK);
    });
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexThreadItself, EmptiesTheFileBehindAPendingSave) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        EXPECT_EQ(m_index->Empty(), RC_OK);
        EXPECT_EQ(FileBytes(), IndexFileBytes({}));
    });
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
}

TEST_F(IndexThreadItself, EndsBehindTheIdleCallWhenThePendingSaveFailed) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        FailWrite(1);
        EXPECT_EQ(SaveSync(), RC_OK) << "a full write";
        EXPECT_FALSE(m_index->IsFinished());
    });
    EXPECT_EQ(m_log.CountContaining(";exit code 0x4"), 1U) << m_log;
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    EXPECT_EQ(m_index->Start(), RC_OK) << "and starts again";
}

TEST_F(IndexThreadItself, EndsBehindTheIdleCallWhenItStopsItself) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        m_index->Stop();
        EXPECT_TRUE(m_index->IsFinished());
        EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    });
    WaitForTheEnd();
    EXPECT_EQ(m_log.CountContaining(";exit code 0x0"), 1U) << m_log;
    EXPECT_EQ(m_index->Start(), RC_OK) << "with another thread";
}

TEST_F(IndexThreadItself, MayDestroyTheIndexObject) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        m_index.reset();
    });
    WaitForTheEnd();
    EXPECT_EQ(CallCount(SystemCall::kOpen), CallCount(SystemCall::kClose));
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

using IndexObjectThreads = IndexObjectTest;

TEST_F(IndexObjectThreads, NoRandomRequestIsLost) {
    std::mt19937 random(20261121);
    MakeStarted(0);  // the idle call comes all the time
    for (u32 i = 0; i < 5000; ++i) {
        m_blocks.AddMany(static_cast<u32>(random() % 3));
        ASSERT_EQ(random() % 4 == 0 ? SaveSync() : SaveAsync(), RC_OK);
        if (random() % 64 == 0) {
            m_index->StartOver();
        }
    }
    WaitForThread();
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(EntriesOf(FileBytes()), m_blocks.All());
    EXPECT_GT(m_storage.IdleCalls(), 0U);
    EXPECT_FALSE(m_index->IsFinished());
}

TEST_F(IndexObjectThreads, FlagsMayBeTestedFromAnywhereAtAnyTime) {
    Make();
    std::atomic<bool> end{false};
    std::atomic<u32> seenRunning{0};
    std::thread observer([&] {
        while (!end) {
            (void)m_index->IsBusy();
            seenRunning += m_index->IsFinished() ? 0U : 1U;
        }
    });
    for (u32 i = 0; i < 50; ++i) {
        ASSERT_EQ(m_index->Start(), RC_OK);
        m_blocks.AddMany(2);
        EXPECT_EQ(i % 2 == 0 ? SaveSync() : SaveAsync(), RC_OK);
        m_index->Stop();
        EXPECT_EQ(EntriesOf(FileBytes()), m_blocks.All());
    }
    ASSERT_EQ(m_index->Start(), RC_OK);
    EXPECT_TRUE(WaitFor([&] { return seenRunning != 0; }));
    end = true;
    observer.join();
}

}  // namespace
}  // namespace k9erepl::test
