// Making and ending the asynchronous writer: every step that can fail, the thread's affinity, the
// last writes, and a thread that does not end. The clients' waits for the writing thread: how long,
// what ends them, and what a wait that was given up leaves behind. Nobody here waits in earnest for
// a time-out.
#include <gtest/gtest.h>
#include <k9sys/k9sys.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/thread.h"
#include "support/fixed_log.h"
#include "support/new_fault.h"
#include "writers/async_fixture.h"

namespace k9erepl::test {
namespace {

using platform::WaitResult;

constexpr const char* kNoThread = "Couldn't create async storage thread: K9ThreadCreate failed";

class AsyncConstruction : public AsyncWriterTest {
  protected:
    void ExpectFails(const std::vector<std::string>& texts, u32 code) {
        const std::size_t parserMemory = K9SysParserMemInUse();
        EXPECT_EQ(ConstructionError(), code);
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), texts);
        for (const LoggedMessage& message : m_log.Messages()) {
            EXPECT_EQ(message.module, "k9eRepl-storage");
            EXPECT_EQ(message.code, code);
        }
        EXPECT_EQ(K9SysParserMemInUse(), parserMemory);
        EXPECT_EQ(CallCount(SystemCall::kClose), CallCount(SystemCall::kOpen));
    }
};

class AsyncEnd : public AsyncWriterTest {
  protected:
    std::size_t PlaceOf(const std::string& text) const {
        const std::vector<std::string> texts = m_log.Texts();
        return static_cast<std::size_t>(std::find(texts.begin(), texts.end(), text) -
                                        texts.begin());
    }
    // The thread, which waits for work, does not hear of the end.
    void MakeDeaf() {
        RunAll();
        m_calls.RefuseToSet(WriterEvent::kNewTask, 0);
        ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
        m_calls.RefuseToSet(WriterEvent::kNewTask, 9);
    }
};

// A writer that a thread may still use: never freed, and no leak.
AsyncStorageWriter* g_abandoned = nullptr;

TEST_F(AsyncConstruction, WithoutWhatItNeedsFails) {
    const struct {
        SystemCall call;
        u32 nth;
        std::vector<std::string> errors;
        std::vector<u32> exitCodes;  // with which a thread is ended
        u32 affinity = 0;
    } faults[] = {
        {SystemCall::kCreateEvent, 1, {"Cannot create async task event"}, {}},
        {SystemCall::kCreateEvent,
         2,
         {"Cannot create new task event", "Cannot init async queue task"},
         {}},
        {SystemCall::kCreateEvent, 3, {"Cannot create release block event"}, {}},
        {SystemCall::kCreateThread, 1, {kNoThread}, {}},
        {SystemCall::kSetAffinity, 1, {kNoThread}, {1}, 1},
        {SystemCall::kResumeThread, 1, {kNoThread}, {1, 1}},
    };
    for (const auto& fault : faults) {
        m_log.Clear();
        m_options.affinity = fault.affinity;
        Fail(fault.call, fault.nth);
        ExpectFails(fault.errors, RC_SYSTEM_ERROR);
        EXPECT_EQ(m_calls.ExitCodesGiven(), fault.exitCodes);
        EXPECT_EQ(m_calls.ThreadResult(), std::nullopt);
    }
    m_log.Clear();
    m_options.bufferCapacity = 16385;
    FailAlloc(1, 16385);
    ExpectFails({"malloc failed"}, RC_NO_MEMORY);
}

TEST_F(AsyncConstruction, WithoutAnyOfItsObjectsFails) {
    RunAll();
    const FixedLog log;
    for (u32 nth = 1;; ++nth) {
        const FailNthNew fault(nth);
        const u32 rc = ConstructionError();
        if (!fault.Struck()) {
            break;
        }
        EXPECT_TRUE(rc == RC_NO_MEMORY || rc == RC_SYSTEM_ERROR) << nth << ": " << rc;
        EXPECT_EQ(CallCount(SystemCall::kClose), CallCount(SystemCall::kOpen));
    }
    EXPECT_TRUE(log.HasError("malloc failed", RC_NO_MEMORY));
}

TEST_F(AsyncConstruction, WithoutMemoryForTheThreadRecordFails) {
    K9SysSetParserMemLimit(K9SysParserMemInUse());
    ExpectFails({kNoThread}, RC_NO_MEMORY);
    K9SysSetParserMemLimit(SIZE_MAX);
}

TEST_F(AsyncEnd, StopsTheThreadBehindWhatIsQueued) {
    const std::size_t parserMemory = K9SysParserMemInUse();
    QueueRecord(1, 2000);
    EXPECT_GT(K9SysParserMemInUse(), parserMemory);
    CloseWriter();
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
    EXPECT_EQ(Flushes(), 0U);
    EXPECT_EQ(K9SysParserMemInUse(), parserMemory);
    EXPECT_EQ(m_calls.ThreadResult(), RC_OK);
    EXPECT_EQ(m_calls.JoinTimeouts(), std::vector<u32>{kAsyncWaitMs});
    for (const char* text : {"Writing thread received stop task",
                             "Writing thread processed stop task", "Writing thread - exit"}) {
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, text)) << m_log;
    }
    EXPECT_EQ(CallCount(SystemCall::kClose), CallCount(SystemCall::kOpen));
}

TEST_F(AsyncEnd, ShutdownEndsOnce) {
    RunAll();
    EXPECT_TRUE(Async().MayStillWrite());
    EXPECT_TRUE(Async().Shutdown());
    EXPECT_FALSE(Async().MayStillWrite());
    EXPECT_TRUE(Async().Shutdown());
    CloseWriter();
    EXPECT_EQ(m_log.Count("Writing thread received stop task"), 1U);
}

TEST_F(AsyncEnd, ForcesTheFileToTheDiskOnceWithForceFlush) {
    m_state.forceFlush = true;
    QueueRecord(5, 2000);
    RunBatch();
    EXPECT_EQ(Flushes(), 0U);
    CloseWriter();
    EXPECT_EQ(Flushes(), 1U);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "FlushFile flushedRev 5")) << m_log;
    EXPECT_LT(PlaceOf("Writing thread - exit"), PlaceOf("FlushFile flushedRev 5"));
    Async();
    FailFlush(1);
    CloseWriter();
    ExpectError("FlushFileBuffers failed;" + SysErr(SystemErrorKind::kInputOutput),
                RC_SYSTEM_ERROR);
}

TEST_F(AsyncEnd, ForcesNoFileThatIsClosed) {
    m_state.forceFlush = true;
    Async().CloseFile();
    CloseWriter();
    EXPECT_EQ(Flushes(), 0U);
    EXPECT_EQ(m_calls.ThreadResult(), RC_OK);
}

TEST_F(AsyncEnd, TerminatesAThreadThatDoesNotEndIn60SecondsAndDropsWhatItLeft) {
    for (const bool timedOut : {true, false}) {
        MakeDeaf();
        QueueRecord(1, 2000);  // the sanitizers look for leaks
        m_calls.EndNextJoin(timedOut ? WaitResult::kTimedOut : WaitResult::kFailed);
        m_log.Clear();
        CloseWriter();
        ExpectError("K9ThreadWait() failed; terminating thread",
                    timedOut ? RC_TIMEOUT : RC_SYSTEM_ERROR);
        EXPECT_EQ(m_calls.JoinTimeouts().front(), kAsyncWaitMs);
        EXPECT_EQ(m_calls.ExitCodesGiven().back(), 20U);
        EXPECT_EQ(m_calls.ThreadResult(), std::nullopt);
        EXPECT_EQ(Items(m_path), "C0");
    }
}

TEST_F(AsyncEnd, OfAThreadThatCannotBeEndedFreesNothing) {
    m_state.forceFlush = true;
    RunAll();
    Async();
    m_calls.m_writes.Shut();
    TestBlock& block = QueueBlock(10);
    m_calls.m_writes.WaitUntilHeld();
    m_calls.EndNextJoin(WaitResult::kTimedOut);
    m_calls.RefuseToTerminate();
    EXPECT_FALSE(Async().Shutdown());
    ExpectError("Cannot terminate writing thread; its memory stays allocated", RC_TIMEOUT);
    EXPECT_EQ(Flushes(), 0U);
    g_abandoned = m_async.release();
    EXPECT_TRUE(g_abandoned->MayStillWrite());
    // The write comes back after all, and finds everything in its place.
    m_calls.m_writes.Open();
    while (!m_calls.ThreadResult()) {
        platform::YieldThread();
    }
    EXPECT_EQ(block.Pending(), 0);
    EXPECT_EQ(FileBytes(kStart, 10), Bytes(10, 1));
}

using platform::WaitResult;

class AsyncWait : public AsyncWriterTest {
  protected:
    // Everything queued goes to the writing thread when a client waits for the nth time.
    void RunAtClientWait(u32 nth) {
        m_calls.AtClientWait(nth, [this] { RunAll(); });
    }
    // A writing thread inside a write that does not return until Release.
    TestBlock& Hang() {
        RunAll();
        Async();
        m_calls.m_writes.Shut();
        TestBlock& block = QueueBlock(10);
        m_calls.m_writes.WaitUntilHeld();
        return block;
    }
    void Release() { m_calls.m_writes.Open(); }
    u32 RollbackThatTimesOut() {
        m_calls.EndNextClientWait(WaitResult::kTimedOut);
        return Async().Rollback();
    }
};

using AsyncFailedRollback = AsyncWait;

TEST_F(AsyncWait, GivesUpAfter60SecondsOrWhenItFails) {
    TestBlock& block = Hang();
    for (const WaitResult result : {WaitResult::kTimedOut, WaitResult::kFailed}) {
        const u32 code = result == WaitResult::kTimedOut ? RC_TIMEOUT : RC_SYSTEM_ERROR;
        m_log.Clear();
        m_calls.EndNextClientWait(result);
        EXPECT_EQ(Async().CompleteAsyncTasks(), code);
        ExpectError("Wait for CompleteAsyncTasksEvent failed", code);
        EXPECT_EQ(m_calls.ClientTimeout(), kAsyncWaitMs);
        m_calls.EndNextClientWait(result);
        EXPECT_EQ(Async().WaitReleaseBlock(), code);
        ExpectError("Wait for release block failed", code);
        EXPECT_EQ(m_calls.ClientTimeout(), kAsyncWaitMs);
    }
    EXPECT_EQ(block.Pending(), 1);
}

TEST_F(AsyncWait, ThatWasGivenUpIsNoFailureOfTheWriter) {
    TestBlock& block = Hang();
    m_calls.EndNextClientWait(WaitResult::kTimedOut);
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_TIMEOUT);
    Release();
    QueueRecord(1, 2000);
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(block.Pending(), 0);
    EXPECT_EQ(FileLength(), Async().WritePos());
}

TEST_F(AsyncWait, TheEventOfOneThatWasGivenUpEndsNoLaterOne) {
    Async();
    QueueComplete();
    RunBatch();  // sets the event that nobody waits for any more
    TestBlock& block = QueueBlock(10);
    RunAtClientWait(2);
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncWait, ThatGoesOnHasWhatIsLeftOfThe60Seconds) {
    SetTickCount(0xFFFFFF00);  // wraps meanwhile
    Async();
    QueueComplete();
    RunBatch();
    m_calls.AtClientWait(1, [&] {
        AdvanceTickCount(20000);
        RunAtClientWait(1);
    });
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(m_calls.ClientTimeout(), 40000U);
}

TEST_F(AsyncWait, ThatGoesOnPast60SecondsIsOver) {
    SetTickCount(0);
    Async();
    QueueComplete();
    RunBatch();
    m_calls.AtClientWait(1, [&] { AdvanceTickCount(kAsyncWaitMs + 1); });
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_TIMEOUT);
    EXPECT_EQ(m_calls.ClientTimeout(), 0U);
}

TEST_F(AsyncFailedRollback, IsStickyAndNothingThatIsQueuedIsWrittenAnyMore) {
    QueueRecord(1, 2000);
    EXPECT_EQ(RollbackThatTimesOut(), RC_TIMEOUT);
    EXPECT_EQ(Queue(NewBlock(10)), RC_TIMEOUT);
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_TIMEOUT);
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_TIMEOUT);
    CloseWriter();
    EXPECT_EQ(WriteSizes(), Sizes{});
    EXPECT_EQ(Items(m_path), "C0");
    EXPECT_EQ(m_calls.ThreadResult(), RC_BAD_DATA);
}

TEST_F(AsyncFailedRollback, NothingIsWrittenBehindAWriteThatHangs) {
    TestBlock& hung = Hang();
    QueueBlock(20);
    EXPECT_EQ(RollbackThatTimesOut(), RC_TIMEOUT);
    EXPECT_TRUE(Async().MayStillWrite());
    Release();
    CloseWriter();
    EXPECT_EQ(WriteSizes(), Sizes{10});
    EXPECT_EQ(hung.Pending(), 0);
    EXPECT_EQ(m_blocks.back().Pending(), 1);
}

TEST_F(AsyncFailedRollback, OfAnIdleWriterLetsItCloseAtOnce) {
    RunAll();
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    m_calls.RefuseToSet(WriterEvent::kNewTask);  // the thread does not hear of it
    EXPECT_EQ(RollbackThatTimesOut(), RC_TIMEOUT);
    CloseWriter();
    EXPECT_EQ(m_calls.ExitCodesGiven(), std::vector<u32>{});
    EXPECT_EQ(m_calls.ThreadResult(), RC_BAD_DATA);
    ExpectError("PushToAsyncQueue(CAsyncQueueElem::STOP) return error 25", RC_TIMEOUT);
}

}  // namespace
}  // namespace k9erepl::test
