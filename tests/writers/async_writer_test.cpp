// What the asynchronous writer puts into the file, in which order and in how many system writes,
// and what clients learn of their queued blocks: the offset in the file, and that nothing of a
// block is queued any more.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/new_fault.h"
#include "writers/async_fixture.h"

namespace k9erepl::test {
namespace {

class AsyncWriter : public AsyncWriterTest {
  protected:
    AsyncWriter() { m_options.bufferCapacity = 100; }

    // The bytes of all blocks, in the order in which they were made.
    Bytes AllData() {
        Bytes all;
        for (TestBlock& block : m_blocks) {
            all = all + Bytes(block.Data(), block.Data() + block.Size());
        }
        return all;
    }
    // One batch of pieces of these sizes, held against the file; returns the system writes.
    Sizes WritesOf(const Sizes& pieces) {
        for (const u32 size : pieces) {
            QueueBlock(size);
        }
        RunBatch();
        const Bytes expected = AllData();
        EXPECT_EQ(FileBytes(kStart, expected.size()), expected);
        EXPECT_EQ(Async().WritePos(), kStart + static_cast<i64>(expected.size()));
        return WriteSizes();
    }
};

using AsyncWriterBuffer = AsyncWriter;
using AsyncCommit = AsyncWriter;
using AsyncArguments = AsyncWriter;
using AsyncFillIn = AsyncWriter;
using AsyncPending = AsyncWriter;

TEST_F(AsyncWriterBuffer, TakesEveryPieceThatIsNotLargerThanIt) {
    const struct {
        Sizes pieces;
        Sizes writes;
        u32 direct;  // the size of the write that did not come from the buffer; 0: none
        u32 capacity = 100;
    } batches[] = {{{10, 20, 30}, {60}, 0},
                   {{60, 40}, {100}, 0},
                   {{60, 41, 10}, {60, 51}, 0},
                   {{60, 41}, {60, 41}, 41},  // the last piece, which does not fit
                   {{100}, {100}, 0},
                   {{1, 100, 1}, {1, 100, 1}, 1},
                   {{101, 10}, {101, 10}, 101},
                   {{30, 30, 101, 10, 10}, {60, 101, 20}, 101},
                   {{16000, 384, 1}, {16384, 1}, 1, AsyncBuffer::kInnerCapacity},
                   {{16000, 16000, 384}, {32384}, 0, 4194304}};
    std::size_t before = 0;
    for (const auto& batch : batches) {
        SCOPED_TRACE(::testing::PrintToString(batch.pieces));
        m_log.Clear();
        m_blocks.clear();
        m_options.bufferCapacity = batch.capacity;
        const Sizes writes = WritesOf(batch.pieces);
        EXPECT_EQ(Sizes(writes.begin() + static_cast<std::ptrdiff_t>(before), writes.end()),
                  batch.writes);
        before = writes.size();
        for (const u32 size : batch.writes) {
            const std::string text = "Written data size " + std::to_string(size);
            EXPECT_TRUE(m_log.Has(text) || size == batch.direct) << m_log;
            EXPECT_EQ(m_log.Has(text + ", last rev 0"), size == batch.direct) << m_log;
        }
        CloseWriter();
    }
}

TEST_F(AsyncWriter, LogsAWriteOfTheBuffer) {
    WritesOf({10, 20});
    EXPECT_EQ(m_log.CountContaining(" Size: 30 m_fileCurrWritePos: 1056 "), 1U) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Written data size 30")) << m_log;
}

TEST_F(AsyncWriter,
       WritesTheBufferAtTheEndOfABatchAndBeforeACompleteButNotBeforeABeginTransaction) {
    QueueBlock(10);
    QueueComplete();
    QueueBlock(20);
    RunBatch();
    EXPECT_EQ(WriteSizes(), (Sizes{10, 20}));
    QueueBlock(11);
    ASSERT_EQ(Async().BeginTransaction(), RC_OK);
    QueueBlock(22);
    RunBatch();
    QueueBlock(12);
    ASSERT_EQ(Async().BeginTransaction(), RC_OK);
    RunBatch();
    EXPECT_EQ(WriteSizes(), (Sizes{10, 20, 33, 12}));
}

TEST_F(AsyncWriter, CompletingWaitsUntilEverythingIsInTheFile) {
    RunAll();
    m_state.forceFlush = true;
    m_state.fileSizeDelta = 4096;
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(WriteSizes(), Sizes{});
    EXPECT_EQ(FileLength(), kNewFileSize);
    TestBlock& block = QueueBlock(90);
    QueueBlock(90);
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 180), AllData());
    EXPECT_EQ(block.Pending(), 0);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Wait for finish async operations - OK")) << m_log;
    EXPECT_EQ(m_calls.ClientTimeout(), kAsyncWaitMs);
    EXPECT_EQ(Async().FlushFile(), RC_OK);
    EXPECT_EQ(Flushes(), 0U);
}

TEST_F(AsyncWriter, GrowsTheFileByOneStepForABufferThatCrossesItsEnd) {
    m_state.fileSizeDelta = 4096;
    WritesOf({8});
    EXPECT_EQ(FileLength(), kNewFileSize);
    WritesOf({1, 2, 3});
    EXPECT_EQ(FileLength(), kNewFileSize + 4096);
    EXPECT_EQ(m_state.fileSize, kNewFileSize + 4096);
    EXPECT_EQ(SetEnds(), 1U);
}

TEST_F(AsyncWriter, AllocatesNothingForAnElementInTheSteadyState) {
    TestBlock& block = NewBlock(10);
    const auto round = [&] {
        for (u32 n = 0; n < 3; ++n) {
            EXPECT_EQ(QueueRun(block, n + 1, 2000 + n), RC_OK);
        }
        RunBatch();
    };
    LogCapture onlyErrors({"none"});
    round();
    const u64 allocations = NewCallsOfThisThread();
    const u32 blocks = CallCount(SystemCall::kAlloc);
    round();
    EXPECT_EQ(NewCallsOfThisThread(), allocations);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), blocks);
}

TEST_F(AsyncCommit, IsQueuedByItselfBehindTheDataOfItsWrite) {
    m_options.bufferCapacity = 0;
    TestBlock& block = NewBlock(10);
    ASSERT_EQ(QueueRun(block, 7, 2000), RC_OK);
    EXPECT_EQ(block.Pending(), 2);
    ASSERT_EQ(QueueCommit(8, 3000), RC_OK);
    RunBatch();
    EXPECT_EQ(WriteSizes(), (Sizes{10, 32, 32}));
    EXPECT_EQ(CommitBlockAt(kStart + 10).sequence, 2000U);
    EXPECT_EQ(CommitBlockAt(kStart + 42).commitRev, 8);
    EXPECT_EQ(CommitBlockAt(kStart + 42).prevSequence, 2000U);
}

TEST_F(AsyncCommit, IsAnnouncedOncePerWrittenBufferWithTheLastRevision) {
    Listen();
    QueueCommit(1, 2000);
    QueueCommit(2, 3000);
    QueueCommit(3, 4000);
    RunBatch();
    QueueBlock(10);
    RunBatch();
    EXPECT_EQ(m_notices, std::vector<i64>{3});
    for (u32 rev = 4; rev <= 7; ++rev) {
        QueueCommit(rev, 1000 + 1000 * rev);  // the buffer has room for three
    }
    RunBatch();
    EXPECT_EQ(m_notices, (std::vector<i64>{3, 6, 7}));
    CloseWriter();
    m_notices.clear();
    m_options.bufferCapacity = 0;
    QueueCommit(1, 2000);
    QueueCommit(2, 3000);
    RunBatch();
    EXPECT_EQ(m_notices, (std::vector<i64>{1, 2}));
}

TEST_F(AsyncCommit, IsAnnouncedOnTheWritingThreadWhenEverythingIsSettled) {
    static std::thread::id s_announcer;
    for (const u32 capacity : {100U, 0U}) {
        s_announcer = {};
        m_options.bufferCapacity = capacity;
        TestBlock& block = NewBlock(10);
        m_state.onWritten.Set(
            [](i64, void* context) {
                auto& settled = *static_cast<TestBlock*>(context);
                EXPECT_EQ(settled.Pending(), 0);
                EXPECT_EQ(settled.position, kStart);
                s_announcer = std::this_thread::get_id();
            },
            &block);
        ASSERT_EQ(QueueRun(block, 1, 2000), RC_OK);
        RunBatch();
        EXPECT_NE(s_announcer, std::thread::id());
        EXPECT_NE(s_announcer, std::this_thread::get_id());
        CloseWriter();
    }
}

TEST_F(AsyncCommit, WhoseAnnouncementThrowsIsWrittenAndStopsTheWriter) {
    const struct {
        K9eReplFlushCb announce;
        u32 code;
        const char* what;
    } throwing[] = {
        {[](i64, void*) { throw std::runtime_error("not now"); }, RC_SYSTEM_ERROR, "not now"},
        {[](i64, void*) { throw std::bad_alloc(); }, RC_NO_MEMORY, nullptr},
        {[](i64, void*) { throw 7; }, RC_SYSTEM_ERROR, "not a std::exception"}};
    for (const auto& each : throwing) {
        m_state.lastCommitSequence = kFirstSequence;
        m_state.onWritten.Set(each.announce, nullptr);
        QueueCommit(1, 2000);
        EXPECT_EQ(StickyErrorOfBatch(), each.code);
        EXPECT_EQ(Items(m_path), "C0 C1");
        if (each.what != nullptr) {
            ExpectError("OnWriteToFile threw on the writing thread: " + std::string(each.what),
                        each.code);
        }
        CloseWriter();
    }
}

TEST_F(AsyncArguments, AWriteWithoutABlockBytesOrAPositionFillInIsRefusedAndDoesNoHarm) {
    TestBlock& block = NewBlock(10);
    AsyncStorageWriter& writer = Async();
    std::atomic<i64>* const position = &block.position;
    EXPECT_EQ(writer.Write(block.Data(), 10, nullptr, block.Block(), 0, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(writer.Write(block.Data(), 10, nullptr, nullptr, 0, position), RC_INVALID_ARG);
    EXPECT_EQ(writer.Write(nullptr, 10, nullptr, block.Block(), 0, position), RC_INVALID_ARG);
    EXPECT_EQ(writer.Write(block.Data(), 0, nullptr, block.Block(), 0, position), RC_INVALID_ARG);
    EXPECT_EQ(block.Pending(), 0);
    EXPECT_EQ(m_log.Count("Cannot push write element to async queue"), 4U) << m_log;
    ExpectError("Cannot push write element to async queue", RC_INVALID_ARG);
    QueueRecord(1, 2000);
    RunBatch();
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
}

TEST_F(AsyncArguments, AClosedFileAnswersNoWriter) {
    Async().CloseFile();
    TestBlock& block = NewBlock(10);
    EXPECT_EQ(Queue(block), RC_NO_WRITER);
    EXPECT_EQ(QueueCommit(1, 2000), RC_NO_WRITER);
    EXPECT_EQ(Async().BeginTransaction(), RC_NO_WRITER);
    EXPECT_EQ(block.Pending(), 0);
    RunAll();
    EXPECT_EQ(Async().Rollback(), RC_NO_WRITER);
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_OK);
}

TEST_F(AsyncFillIn, AnOffsetThatIsKnownStays) {
    TestBlock& buffered = NewBlock(10);
    TestBlock& direct = NewBlock(101);
    buffered.position = 77;
    direct.position = 78;
    ASSERT_EQ(Queue(buffered), RC_OK);
    ASSERT_EQ(Queue(direct), RC_OK);
    RunBatch();
    EXPECT_EQ(buffered.position, 77);
    EXPECT_EQ(direct.position, 78);
}

TEST_F(AsyncFillIn, NothingIsToldBeforeTheBytesAreInTheFile) {
    RunAll();
    m_calls.m_writes.Shut();
    TestBlock& block = QueueBlock(10);
    m_calls.m_writes.WaitUntilHeld();
    EXPECT_EQ(block.position, kUnknownOffset);
    EXPECT_EQ(block.Pending(), 1);
    EXPECT_EQ(Async().WritePos(), kStart);
    m_calls.m_writes.Open();
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(block.position, kStart);
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncPending, WritesAreCountedWhenTheyAreQueued) {
    TestBlock& block = QueueBlock(10);
    EXPECT_EQ(block.Pending(), 1);
    ASSERT_EQ(Queue(block), RC_OK);
    EXPECT_EQ(block.Pending(), 2);
    ASSERT_EQ(QueueCommit(1, 2000, block.Block()), RC_OK);
    EXPECT_EQ(block.Pending(), 3);
    RunBatch();
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncPending, ABlockOfWhichMoreIsQueuedIsNotReleased) {
    TestBlock& block = NewBlock(101);
    ASSERT_EQ(Queue(block), RC_OK);
    ASSERT_EQ(Queue(block), RC_OK);
    m_calls.m_writes.Shut();
    m_calls.m_writes.LetOnePass();
    RunAll();
    m_calls.m_writes.WaitUntilHeld();
    EXPECT_EQ(block.Pending(), 1);
    m_calls.EndNextClientWait(platform::WaitResult::kTimedOut);
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_TIMEOUT);
    m_calls.m_writes.Open();
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_OK);
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncPending, TheEventIsSetOnceForABufferOfManyBlocksAndNotForNone) {
    QueueBlock(10);
    QueueBlock(20);
    u32 before = CallCount(SystemCall::kSetEvent);
    RunBatch();
    EXPECT_EQ(CallCount(SystemCall::kSetEvent), before + 1);
    QueueCommit(1, 2000);
    before = CallCount(SystemCall::kSetEvent);
    RunBatch();
    EXPECT_EQ(CallCount(SystemCall::kSetEvent), before);
}

}  // namespace
}  // namespace k9erepl::test
