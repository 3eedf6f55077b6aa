// Ending the index thread: in good order, after a save, by force, or not at all.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>
#include <thread>

#include "index/index_fixture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

using platform::WaitResult;

constexpr const char* kTerminating = "K9ThreadWait() failed; terminating thread";

std::atomic<u32> g_exitCode{0};
std::atomic<u32> g_joinMs{0};
std::atomic<u32> g_tickCalls{0};

class IndexObjectStop : public IndexObjectTest {
  protected:
    IndexObjectStop() {
        g_exitCode = 0;
        g_joinMs = 0;
        g_tickCalls = 0;
        GateForWrites::Open();
        platform::TheSystemCalls().terminateThread = [](void* thread, u32 exitCode) {
            g_exitCode = exitCode;
            return platform::NativeSystemCalls().terminateThread(thread, exitCode);
        };
    }
    // The thread's write waits at the gate.
    void SaveUpToTheGate() {
        GateForWrites::Install();
        GateForWrites::Shut();
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        ASSERT_TRUE(WaitFor(GateForWrites::IsReached));
    }
};

TEST_F(IndexObjectStop, EndsTheThread) {
    Make();
    m_log.Clear();
    m_index->Stop();
    EXPECT_TRUE(m_log.Messages().empty()) << "there is none";
    ASSERT_EQ(m_index->Start(), RC_OK);
    m_index->Stop();
    EXPECT_TRUE(m_index->IsFinished());
    EXPECT_FALSE(m_index->IsBusy());
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Stop thread request sent")) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Stop thread request received"));
    EXPECT_EQ(m_log.CountContaining(";exit code 0x0"), 1U);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Thread closed"));
    EXPECT_EQ(CallCount(SystemCall::kOpen), CallCount(SystemCall::kClose));
    m_log.Clear();
    m_index->Stop();
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
    MakeStarted();
    m_index.reset();
    EXPECT_TRUE(m_log.Has("Thread closed")) << m_log;
}

TEST_F(IndexObjectStop, ReportsTheTimesOfTheSaves) {
    SetPerformanceFrequency(1'000'000);
    SetPerformanceCounter(1);
    MakeStarted();
    m_blocks.AddMany(1);
    EXPECT_EQ(SaveSync(), RC_OK);
    m_blocks.AddMany(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    m_index->Stop();
    EXPECT_TRUE(m_log.Has("Idx-Save: 0.00 mcs (2 x 0.00 mcs)  Idx-Sync: 0.00 mcs (2 x 0.00 mcs)  "))
        << m_log;
    ASSERT_EQ(m_index->Start(), RC_OK);
    m_index->Stop();
    EXPECT_TRUE(m_log.Has("Idx-Save: 0.00 mcs  Idx-Sync: 0.00 mcs  ")) << m_log;
    EXPECT_EQ(m_log.CountContaining("has already"), 0U) << m_log;
}

TEST_F(IndexObjectStop, OnlyFreesTheRecordAndClosesTheFileOfAThreadThatHasFinished) {
    MakeStarted();
    m_blocks.AddMany(1);
    FailWrite(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    ASSERT_TRUE(WaitFor([this] { return m_index->IsFinished(); }));
    m_index->Stop();
    EXPECT_FALSE(m_log.Has("Stop thread request sent")) << m_log;
    EXPECT_TRUE(m_log.Has("Thread closed")) << m_log;
    EXPECT_EQ(CallCount(SystemCall::kOpen), CallCount(SystemCall::kClose));
}

TEST_F(IndexObjectStop, WaitsForTheSaveInProgress) {
    MakeStarted();
    SaveUpToTheGate();
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        m_index->Stop();
        stopped = true;
    });
    for (u32 i = 0; i < 1000; ++i) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(stopped);
    EXPECT_FALSE(m_log.Has("Stop thread request sent")) << m_log;
    GateForWrites::Open();
    stopper.join();
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    EXPECT_EQ(g_exitCode, 0U);
}

// A thread in a save of 5 seconds.
class IndexObjectLongSave : public IndexObjectStop {
  protected:
    IndexObjectLongSave() {
        SetTickCount(0xFFFFFFF0);  // the tick count wraps meanwhile
        platform::TheSystemCalls().joinThread = [](void* thread, u32 timeoutMs) {
            g_joinMs = timeoutMs;
            return platform::NativeSystemCalls().joinThread(thread, timeoutMs);
        };
        MakeStarted();
        SaveUpToTheGate();
        platform::TheSystemCalls().tickCount = [] {
            const u32 call = g_tickCalls++;
            if (call == 1) {
                GateForWrites::Open();  // the save takes 5 seconds
            }
            return 0xFFFFFFF0 + (call == 0 ? 0 : 5000);
        };
    }
};

// Otherwise a storage whose index file hangs would close only after twice that time.
TEST_F(IndexObjectLongSave, IsWaitedForOnceWhichLeavesTheRestOf20SecondsForTheThreadsEnd) {
    m_index->EndWriting();
    m_index->Stop();
    EXPECT_EQ(g_joinMs, 15000U);
}

TEST_F(IndexObjectStop, TerminatesAThreadThatDoesNotEndInTimeAndAllowsANewStart) {
    Make();
    for (const WaitResult first : {WaitResult::kTimedOut, WaitResult::kFailed}) {
        static WaitResult s_first;
        s_first = first;
        g_joinMs = 0;
        m_log.Clear();
        m_blocks.AddMany(3);
        ASSERT_EQ(m_index->Start(), RC_OK);
        EXPECT_EQ(SaveSync(), RC_OK);
        EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
        FailSetEvent(1);
        platform::TheSystemCalls().joinThread = [](void* thread, u32 timeoutMs) {
            return g_joinMs.exchange(timeoutMs) == 0
                       ? s_first
                       : platform::NativeSystemCalls().joinThread(thread, timeoutMs);
        };
        m_index->Stop();
        EXPECT_EQ(m_log.CodeOf(kTerminating),
                  first == WaitResult::kTimedOut ? RC_TIMEOUT : RC_SYSTEM_ERROR)
            << m_log;
        EXPECT_EQ(g_exitCode, 20U);
        EXPECT_TRUE(m_log.Has("Thread closed"));
        EXPECT_FALSE(m_log.Has("Stop thread request received"));
        EXPECT_TRUE(m_index->IsFinished());
        EXPECT_EQ(CallCount(SystemCall::kOpen), CallCount(SystemCall::kClose));
    }
}

// A thread that hangs in a write to the disk and cannot be ended.
class IndexObjectGiveUp : public IndexObjectStop {
  protected:
    IndexObjectGiveUp() {
        {
            const LeaksAllowed leaksAllowed;
            Make();
            EXPECT_EQ(m_index->Start(), RC_OK);
        }
        SaveUpToTheGate();
        platform::TheSystemCalls().tickCount = [] {
            static std::atomic<u32> s_ticks{0};
            return s_ticks += 1000;
        };
        platform::TheSystemCalls().joinThread = [](void* thread, u32 timeoutMs) {
            if (GateForWrites::IsOpen()) {
                return platform::NativeSystemCalls().joinThread(thread, timeoutMs);
            }
            g_joinMs = timeoutMs;
            return WaitResult::kTimedOut;
        };
        platform::TheSystemCalls().terminateThread = [](void* /*thread*/, u32 exitCode) {
            g_exitCode = exitCode;
            return false;
        };
    }
    ~IndexObjectGiveUp() override {
        LetTheThreadEnd();
        m_index.reset();
    }
    // Its last call of the system closes the file.
    void LetTheThreadEnd() {
        const u32 closed = CallCount(SystemCall::kClose);
        if (!GateForWrites::IsOpen()) {
            GateForWrites::Open();
            EXPECT_TRUE(WaitFor([closed] { return CallCount(SystemCall::kClose) > closed; }));
        }
    }
};

TEST_F(IndexObjectGiveUp, LeavesTheThreadAndWhatItUses) {
    m_index->Stop();
    EXPECT_EQ(g_joinMs, 1000U) << "the save took all time";
    EXPECT_EQ(m_log.CodeOf(kTerminating), RC_TIMEOUT) << m_log;
    EXPECT_EQ(g_exitCode, 20U);
    EXPECT_TRUE(m_log.Has("Cannot terminate thread; its memory stays allocated")) << m_log;
    EXPECT_FALSE(m_log.Has("Thread closed"));
    EXPECT_TRUE(m_index->IsFinished());
    EXPECT_FALSE(m_index->IsBusy());
    m_index.reset();
    LetTheThreadEnd();
    EXPECT_EQ(m_log.CountContaining("File rewritten ("), 1U) << m_log;
}

TEST_F(IndexObjectGiveUp, AnswersAnErrorUntilTheNextStart) {
    m_index->Stop();
    EXPECT_EQ(SaveAsync(), RC_OK);
    EXPECT_EQ(SaveSync(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CountContaining("Couldn't write file '" + Path() + "' (full); sysErr "), 1U);
    m_index->StartOver();
    LetTheThreadEnd();
    ASSERT_EQ(m_index->Start(), RC_OK);
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectGiveUp, NeedsMemoryForTheNextStart) {
    m_index->Stop();
    LetTheThreadEnd();
    FailAlloc(1);
    EXPECT_EQ(m_index->Start(), RC_NO_MEMORY);
    EXPECT_EQ(m_log.CodeOf("Couldn't allocate buffer"), RC_NO_MEMORY) << m_log;
    {
        const FailNthNew fault(1);
        EXPECT_EQ(m_index->Start(), RC_NO_MEMORY);
    }
    EXPECT_EQ(m_index->Start(), RC_OK);
}

}  // namespace
}  // namespace k9erepl::test
