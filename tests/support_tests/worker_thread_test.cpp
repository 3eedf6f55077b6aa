// The thread of one object, from its start to its end, and what is left when a step fails.
#include "support/worker_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>

#include "platform/event.h"
#include "platform/system_error.h"
#include "support/fault_injection.h"

namespace k9erepl::test {
namespace {

constexpr u32 kLongMs = 30000;  // only a broken test waits for it

class Worker : public ::testing::Test {
  protected:
    Worker() { EXPECT_TRUE(m_goOn.Create() && m_leaves.Create()); }
    // Whatever came of the thread, its record is gone.
    ~Worker() override {
        K9SysSetParserMemLimit(SIZE_MAX);
        EXPECT_FALSE(m_thread.IsThere());
        EXPECT_EQ(K9SysParserMemInUse(), m_parserMemory);
    }

    u32 Start(u32 affinity = 0) { return m_thread.Start(&Body, this, affinity); }
    // Notes in m_told what is told of a thread that does not end by itself.
    u32 End(u32 timeoutMs) {
        return m_thread.End(timeoutMs, [this](u32 code) { m_told = code; });
    }

    static u32 Body(void* worker) {
        auto& self = *static_cast<Worker*>(worker);
        self.m_ran = true;
        self.m_goOn.Wait(platform::kWaitForever);
        EXPECT_TRUE(self.m_leaves.Set());
        return 0;
    }

    ScopedSystemCalls m_calls;  // before the thread, and until it is gone
    const std::size_t m_parserMemory = K9SysParserMemInUse();
    platform::AutoResetEvent m_goOn;
    platform::AutoResetEvent m_leaves;
    std::atomic<bool> m_ran{false};
    std::optional<u32> m_told;
    WorkerThread m_thread;
};

TEST_F(Worker, IsThereFromItsStartToItsEnd) {
    EXPECT_FALSE(m_thread.IsThere());
    ASSERT_EQ(Start(0), RC_OK);
    EXPECT_TRUE(m_thread.IsThere());
    EXPECT_GT(K9SysParserMemInUse(), m_parserMemory);
    EXPECT_TRUE(m_goOn.Set());
    EXPECT_EQ(End(kLongMs), RC_OK);
    EXPECT_TRUE(m_ran);
    EXPECT_EQ(m_told, std::nullopt);
    EXPECT_FALSE(m_thread.MayStillRun());
    EXPECT_EQ(CallCount(SystemCall::kSetAffinity), 0U) << "it is left to the system";
}

TEST_F(Worker, NeedsParserMemoryForItsRecord) {
    K9SysSetParserMemLimit(m_parserMemory);
    EXPECT_EQ(Start(), RC_NO_MEMORY);
    EXPECT_EQ(CallCount(SystemCall::kCreateThread), 0U);
    EXPECT_TRUE(m_thread.CallOff());
}

TEST_F(Worker, WhoseStartFailsNeverRunsAndIsCalledOff) {
    for (const SystemCall call :
         {SystemCall::kCreateThread, SystemCall::kSetAffinity, SystemCall::kResumeThread}) {
        Fail(call, 1);
        EXPECT_EQ(Start(1), RC_SYSTEM_ERROR);
        EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kInputOutput));
        EXPECT_TRUE(m_thread.CallOff());
        EXPECT_FALSE(m_thread.IsThere());
        EXPECT_EQ(K9SysParserMemInUse(), m_parserMemory);
    }
    EXPECT_FALSE(m_ran);
}

TEST_F(Worker, ThatIsOverdueIsToldAndTerminated) {
    ASSERT_EQ(Start(1), RC_OK);
    EXPECT_EQ(End(1), RC_OK);
    EXPECT_EQ(m_told, RC_TIMEOUT);
    EXPECT_FALSE(m_thread.MayStillRun());
    EXPECT_EQ(CallCount(SystemCall::kTerminateThread), 1U);
}

TEST_F(Worker, ThatCannotBeWaitedForIsToldAndTerminated) {
    ASSERT_EQ(Start(), RC_OK);
    Fail(SystemCall::kJoinThread, 1);
    EXPECT_EQ(End(kLongMs), RC_OK);
    EXPECT_EQ(m_told, RC_SYSTEM_ERROR);
    EXPECT_FALSE(m_thread.MayStillRun());
}

TEST_F(Worker, ThatCannotBeTerminatedStaysUntilItIsLetGoAndRunsOn) {
    ASSERT_EQ(Start(), RC_OK);
    Fail(SystemCall::kTerminateThread, 1);
    EXPECT_EQ(End(1), RC_TIMEOUT);
    EXPECT_TRUE(m_thread.IsThere());
    m_thread.LetGo();
    EXPECT_FALSE(m_thread.IsThere());
    EXPECT_TRUE(m_thread.MayStillRun());
    EXPECT_EQ(K9SysParserMemInUse(), m_parserMemory);
    EXPECT_TRUE(m_goOn.Set());
    ASSERT_EQ(m_leaves.Wait(kLongMs), platform::WaitResult::kSignalled);
    // There is room for a new one.
    ASSERT_EQ(Start(), RC_OK);
    EXPECT_TRUE(m_goOn.Set());
    EXPECT_EQ(End(kLongMs), RC_OK);
    EXPECT_FALSE(m_thread.MayStillRun());
}

}  // namespace
}  // namespace k9erepl::test
