// Making and ending the asynchronous writer: every step that can fail, the thread's affinity, the
// last writes, and a thread that does not end.
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
#include "support/storage_exception.h"
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
        ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
        m_calls.RefuseToSet(WriterEvent::kNewTask, 9);
    }
};

// A writer that a thread may still use: never freed, and no leak.
AsyncStorageWriter* g_abandoned = nullptr;

}  // namespace

// --- Making ----------------------------------------------------------------------------------

TEST_F(AsyncConstruction, WithoutAStateIsAnInvalidArgument) {
    try {
        const AsyncStorageWriter writer(nullptr, m_options);
        ADD_FAILURE() << "it was made";
    } catch (const K9eStorageException& e) {
        EXPECT_EQ(e.Code(), RC_INVALID_ARG);
    }
}

TEST_F(AsyncConstruction, WithoutItsFileFails) {
    m_state.path = m_folder.File("missing");
    EXPECT_EQ(ConstructionError(), RC_SYSTEM_ERROR);
    ExpectError(
        "Failed to create file '" + m_state.path + "';" + SysErr(SystemErrorKind::kNotFound),
        RC_SYSTEM_ERROR);
    EXPECT_EQ(CallCount(SystemCall::kCreateThread), 0U);
}

TEST_F(AsyncConstruction, WithoutMemoryForTheBufferFails) {
    m_options.bufferCapacity = 16385;
    FailAlloc(1, 16385);
    ExpectFails({"malloc failed"}, RC_NO_MEMORY);
}

TEST_F(AsyncConstruction, WithoutTheCompleteEventFails) {
    FailCreateEvent(1);
    ExpectFails({"Cannot create async task event"}, RC_SYSTEM_ERROR);
}

TEST_F(AsyncConstruction, WithoutTheNewTaskEventFails) {
    FailCreateEvent(2);
    ExpectFails({"Cannot create new task event", "Cannot init async queue task"}, RC_SYSTEM_ERROR);
}

TEST_F(AsyncConstruction, WithoutTheReleaseEventFails) {
    FailCreateEvent(3);
    ExpectFails({"Cannot create release block event"}, RC_SYSTEM_ERROR);
}

TEST_F(AsyncConstruction, WithoutMemoryForTheThreadRecordFails) {
    K9SysSetParserMemLimit(K9SysParserMemInUse());
    ExpectFails({kNoThread}, RC_NO_MEMORY);
    K9SysSetParserMemLimit(SIZE_MAX);
}

TEST_F(AsyncConstruction, WithoutAThreadFails) {
    FailCreateThread(1);
    ExpectFails({kNoThread}, RC_SYSTEM_ERROR);
    EXPECT_EQ(m_calls.ExitCodesGiven(), std::vector<u32>{});
}

TEST_F(AsyncConstruction, WhoseAffinityCannotBeSetEndsTheThreadWith1) {
    m_options.affinity = 1;
    Fail(SystemCall::kSetAffinity, 1);
    ExpectFails({kNoThread}, RC_SYSTEM_ERROR);
    EXPECT_EQ(m_calls.ExitCodesGiven(), std::vector<u32>{1});
    EXPECT_EQ(m_calls.ThreadResult(), std::nullopt);
}

TEST_F(AsyncConstruction, WhoseThreadCannotBeResumedEndsItWith1) {
    Fail(SystemCall::kResumeThread, 1);
    ExpectFails({kNoThread}, RC_SYSTEM_ERROR);
    EXPECT_EQ(m_calls.ExitCodesGiven(), std::vector<u32>{1});
    EXPECT_EQ(m_calls.ThreadResult(), std::nullopt);
}

TEST_F(AsyncConstruction, WithoutAnyOfItsObjectsFails) {
    RunAll();
    const FixedLog log;
    for (u32 nth = 1;; ++nth) {
        u32 rc = RC_OK;
        {
            const FailNthNew fault(nth);
            try {
                const AsyncStorageWriter writer(&m_state, m_options);
            } catch (const K9eStorageException& e) {
                rc = e.Code();
            }
            if (!fault.Struck()) {
                break;
            }
        }
        EXPECT_TRUE(rc == RC_NO_MEMORY || rc == RC_SYSTEM_ERROR) << nth << ": " << rc;
        EXPECT_EQ(CallCount(SystemCall::kClose), CallCount(SystemCall::kOpen));
    }
    EXPECT_TRUE(log.HasError("malloc failed", RC_NO_MEMORY));
}

TEST_F(AsyncConstruction, SetsNoAffinityUnlessOneIsAskedFor) {
    Async();
    EXPECT_EQ(m_calls.Affinities(), std::vector<u64>{});
    CloseWriter();
    m_options.affinity = 3;
    Async();
    EXPECT_EQ(m_calls.Affinities(), std::vector<u64>{3});
}

TEST_F(AsyncConstruction, BeginsWritingAtTheRecordedSize) {
    const AsyncStorageWriter& writer =
        *(m_async = std::make_unique<AsyncStorageWriter>(&m_state, m_options));
    EXPECT_EQ(writer.WritePos(), kNewFileSize);
    QueueBlock(10);
    RunBatch();
    EXPECT_EQ(FileLength(), kNewFileSize + 10);
}

// --- Ending ----------------------------------------------------------------------------------

TEST_F(AsyncEnd, WritesWhatIsQueued) {
    QueueRecord(1, 2000);
    QueueRecord(2, 3000);
    CloseWriter();
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 C2");
    EXPECT_EQ(m_blocks.back().Pending(), 0);
}

TEST_F(AsyncEnd, StopsTheThread) {
    Async();
    CloseWriter();
    EXPECT_EQ(m_calls.ThreadResult(), RC_OK);
    EXPECT_EQ(m_calls.JoinTimeouts(), std::vector<u32>{kAsyncWaitMs});
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Writing thread received stop task")) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Writing thread processed stop task")) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Writing thread - exit")) << m_log;
    EXPECT_EQ(CallCount(SystemCall::kClose), CallCount(SystemCall::kOpen));
}

TEST_F(AsyncEnd, GivesTheThreadRecordBack) {
    const std::size_t parserMemory = K9SysParserMemInUse();
    Async();
    EXPECT_GT(K9SysParserMemInUse(), parserMemory);
    CloseWriter();
    EXPECT_EQ(K9SysParserMemInUse(), parserMemory);
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
}

TEST_F(AsyncEnd, ForcesNothingWithoutForceFlush) {
    QueueRecord(5, 2000);
    CloseWriter();
    EXPECT_EQ(Flushes(), 0U);
}

TEST_F(AsyncEnd, SaysWhenForcingFails) {
    m_state.forceFlush = true;
    FailFlush(1);
    Async();
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

TEST_F(AsyncEnd, TerminatesAThreadThatDoesNotEndIn60SecondsWith20) {
    MakeDeaf();
    m_calls.EndNextJoin(WaitResult::kTimedOut);
    CloseWriter();
    ExpectError("K9ThreadWait() failed; terminating thread", RC_TIMEOUT);
    EXPECT_EQ(m_calls.JoinTimeouts().front(), kAsyncWaitMs);
    EXPECT_EQ(m_calls.ExitCodesGiven(), std::vector<u32>{20});
    EXPECT_EQ(m_calls.ThreadResult(), std::nullopt);
}

TEST_F(AsyncEnd, TerminatesAThreadThatCannotBeWaitedForWith20) {
    MakeDeaf();
    m_calls.EndNextJoin(WaitResult::kFailed);
    CloseWriter();
    ExpectError("K9ThreadWait() failed; terminating thread", RC_SYSTEM_ERROR);
    EXPECT_EQ(m_calls.ExitCodesGiven(), std::vector<u32>{20});
}

TEST_F(AsyncEnd, DropsWhatATerminatedThreadLeft) {  // the sanitizers look for leaks
    MakeDeaf();
    QueueRecord(1, 2000);
    m_calls.EndNextJoin(WaitResult::kTimedOut);
    CloseWriter();
    EXPECT_EQ(Items(m_path), "C0");
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

}  // namespace k9erepl::test
