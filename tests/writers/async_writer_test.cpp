// What the asynchronous writer puts into the file, in which order, and in how many system writes.
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
    bool WroteDirectly(u32 size) const {
        return m_log.Has("Written data size " + std::to_string(size) + ", last rev 0");
    }
    bool WroteBuffer(u32 size) const {
        return m_log.Has("Written data size " + std::to_string(size));
    }
};

using AsyncWriterBuffer = AsyncWriter;

}  // namespace

// --- The buffer's limits ---------------------------------------------------------------------

TEST_F(AsyncWriterBuffer, APieceExactlyAsLargeAsTheFreeSpaceIsBuffered) {
    EXPECT_EQ(WritesOf({60, 40}), Sizes{100});
    EXPECT_TRUE(WroteBuffer(100)) << m_log;
}

TEST_F(AsyncWriterBuffer, APieceOneByteLargerThanTheFreeSpaceIsNot) {
    EXPECT_EQ(WritesOf({60, 41, 10}), (Sizes{60, 51}));
    EXPECT_TRUE(WroteBuffer(60)) << m_log;
    EXPECT_TRUE(WroteBuffer(51)) << m_log;
}

TEST_F(AsyncWriterBuffer, ThePieceThatDoesNotFitIsWrittenDirectlyWhenItIsTheLast) {
    EXPECT_EQ(WritesOf({60, 41}), (Sizes{60, 41}));
    EXPECT_TRUE(WroteDirectly(41)) << m_log;
}

TEST_F(AsyncWriterBuffer, APieceAsLargeAsTheCapacityIsBuffered) {
    EXPECT_EQ(WritesOf({100}), Sizes{100});
    EXPECT_TRUE(WroteBuffer(100)) << m_log;
}

TEST_F(AsyncWriterBuffer, APieceAsLargeAsTheCapacityIsBufferedBehindOthers) {
    EXPECT_EQ(WritesOf({1, 100, 1}), (Sizes{1, 100, 1}));
    EXPECT_TRUE(WroteBuffer(100)) << m_log;
}

TEST_F(AsyncWriterBuffer, APieceLargerThanTheCapacityIsWrittenDirectly) {
    EXPECT_EQ(WritesOf({101, 10}), (Sizes{101, 10}));
    EXPECT_TRUE(WroteDirectly(101)) << m_log;
}

TEST_F(AsyncWriterBuffer, APieceLargerThanTheCapacityComesBehindWhatIsBuffered) {
    EXPECT_EQ(WritesOf({30, 30, 101, 10, 10}), (Sizes{60, 101, 20}));
    EXPECT_TRUE(WroteDirectly(101)) << m_log;
}

TEST_F(AsyncWriterBuffer, OfNoBytesMeansOneSystemWriteForEachElement) {
    m_options.bufferCapacity = 0;
    EXPECT_EQ(WritesOf({10, 20, 30}), (Sizes{10, 20, 30}));
    ASSERT_EQ(QueueRun(NewBlock(5), 1, 2000), RC_OK);
    RunBatch();
    EXPECT_EQ(WriteSizes(), (Sizes{10, 20, 30, 5, 32}));
}

TEST_F(AsyncWriterBuffer, InsideTheObjectHolds16384Bytes) {
    m_options.bufferCapacity = AsyncBuffer::kInnerCapacity;
    EXPECT_EQ(WritesOf({16000, 384, 1}), (Sizes{16384, 1}));
}

TEST_F(AsyncWriterBuffer, OnTheHeapHoldsMore) {
    m_options.bufferCapacity = 4194304;
    EXPECT_EQ(WritesOf({16000, 16000, 384}), Sizes{32384});
}

// --- Batches ---------------------------------------------------------------------------------

TEST_F(AsyncWriter, GathersTheSmallPiecesOfABatchInOneWrite) {
    EXPECT_EQ(WritesOf({10, 20, 30}), Sizes{60});
}

TEST_F(AsyncWriter, WritesTheBufferAtTheEndOfEveryBatch) {
    EXPECT_EQ(WritesOf({10}), Sizes{10});
    EXPECT_EQ(WritesOf({20}), (Sizes{10, 20}));
}

TEST_F(AsyncWriter, LogsAWriteOfTheBuffer) {
    WritesOf({10, 20});
    EXPECT_EQ(m_log.CountContaining(" Size: 30 m_fileCurrWritePos: 1056 "), 1U) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Written data size 30")) << m_log;
}

TEST_F(AsyncWriter, WritesTheBufferBeforeACompleteInTheMiddleOfABatch) {
    QueueBlock(10);
    QueueComplete();
    QueueBlock(20);
    RunBatch();
    EXPECT_EQ(WriteSizes(), (Sizes{10, 20}));
}

TEST_F(AsyncWriter, WritesTheBufferAtABeginTransactionThatEndsABatch) {
    QueueBlock(10);
    ASSERT_EQ(Async().BeginTransaction(), RC_OK);
    RunBatch();
    EXPECT_EQ(WriteSizes(), Sizes{10});
}

TEST_F(AsyncWriter, GathersAcrossABeginTransactionInTheMiddleOfABatch) {
    QueueBlock(10);
    ASSERT_EQ(Async().BeginTransaction(), RC_OK);
    QueueBlock(20);
    RunBatch();
    EXPECT_EQ(WriteSizes(), Sizes{30});
}

TEST_F(AsyncWriter, AcceptsWorkWhileItWrites) {
    RunAll();
    m_calls.m_writes.Shut();
    QueueBlock(10);
    m_calls.m_writes.WaitUntilHeld();
    QueueBlock(20);
    QueueBlock(30);
    m_calls.m_writes.Open();
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 60), AllData());
}

TEST_F(AsyncWriter, CompletingWaitsUntilEverythingIsInTheFile) {
    RunAll();
    TestBlock& block = QueueBlock(90);
    QueueBlock(90);
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 180), AllData());
    EXPECT_EQ(block.Pending(), 0);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Wait for finish async operations - OK")) << m_log;
    EXPECT_EQ(m_calls.ClientTimeout(), kAsyncWaitMs);
}

TEST_F(AsyncWriter, CompletingWritesNothingOfItsOwn) {
    RunAll();
    m_state.fileSizeDelta = 4096;
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(WriteSizes(), Sizes{});
    EXPECT_EQ(FileLength(), kNewFileSize);
}

TEST_F(AsyncWriter, MayBeCompletedManyTimes) {
    RunAll();
    for (u32 size = 1; size <= 50; ++size) {
        QueueBlock(size);
        ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
        ASSERT_EQ(FileLength(), std::max<i64>(kNewFileSize, Async().WritePos()));
    }
    EXPECT_EQ(FileBytes(kStart, 50 * 51 / 2), AllData());
}

TEST_F(AsyncWriter, FlushFileDoesNothing) {
    m_state.forceFlush = true;
    RunAll();
    QueueBlock(10);
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
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

// --- Commit blocks ---------------------------------------------------------------------------

using AsyncCommit = AsyncWriter;

TEST_F(AsyncCommit, AWriteOfExactly32BytesQueuesOneCommitAndNoWrite) {
    m_options.bufferCapacity = 0;
    ASSERT_EQ(QueueCommit(7, 2000), RC_OK);
    RunBatch();
    EXPECT_EQ(WriteSizes(), Sizes{32});
    EXPECT_EQ(CommitBlockAt(kStart).commitRev, 7);
}

TEST_F(AsyncCommit, ALongerWriteQueuesTheDataAndTheCommit) {
    m_options.bufferCapacity = 0;
    TestBlock& block = NewBlock(10);
    ASSERT_EQ(QueueRun(block, 7, 2000), RC_OK);
    EXPECT_EQ(block.Pending(), 2);
    RunBatch();
    EXPECT_EQ(WriteSizes(), (Sizes{10, 32}));
    EXPECT_EQ(CommitBlockAt(kStart + 10).sequence, 2000U);
}

TEST_F(AsyncCommit, NeedsNoMemoryBlock) {
    ASSERT_EQ(QueueCommit(7, 2000, nullptr), RC_OK);
    RunBatch();
    EXPECT_EQ(Items(m_path), "C0 C7");
}

TEST_F(AsyncCommit, IsCopiedWhenItIsQueued) {  // the vocabulary overwrites it at once
    QueueRecord(1, 2000);
    QueueRecord(2, 3000);
    RunBatch();
    EXPECT_EQ(Items(m_path), "C0 R1 C1 R2 C2");
}

TEST_F(AsyncCommit, LinksToTheOneBeforeInFileOrder) {
    for (const u32 capacity : {100U, 0U}) {
        m_options.bufferCapacity = capacity;
        QueueRecord(1, 2000);
        QueueCommit(1, 3000);
        RunBatch();
        const i64 first = Async().WritePos() - 2 * i64{kCommitBlockSize};
        EXPECT_EQ(CommitBlockAt(first).prevSequence, kFirstSequence);
        EXPECT_EQ(CommitBlockAt(first + kCommitBlockSize).prevSequence, 2000U);
        EXPECT_EQ(m_state.lastCommitSequence, 3000U);
        CloseWriter();
        m_state.lastCommitSequence = kFirstSequence;
    }
}

TEST_F(AsyncCommit, CarriesTheClearRevisionOfTheTimeWhenItWasQueued) {
    for (const u32 capacity : {100U, 0U}) {
        m_options.bufferCapacity = capacity;
        m_state.clearRev = 3;
        QueueCommit(9, 2000);
        m_state.clearRev = 5;
        QueueCommit(9, 3000);
        RunBatch();
        EXPECT_EQ(CommitBlockAt(kStart).clearRev, 3) << capacity;
        EXPECT_EQ(CommitBlockAt(kStart + kCommitBlockSize).clearRev, 5) << capacity;
        CloseWriter();
    }
}

TEST_F(AsyncCommit, IsAnnouncedOncePerWrittenBufferWithTheLastRevision) {
    Listen();
    QueueCommit(1, 2000);
    QueueCommit(2, 3000);
    QueueCommit(3, 4000);
    RunBatch();
    EXPECT_EQ(m_notices, std::vector<i64>{3});
    QueueCommit(4, 5000);
    QueueCommit(5, 6000);
    QueueCommit(6, 7000);
    QueueCommit(7, 8000);  // the buffer has room for three
    RunBatch();
    EXPECT_EQ(m_notices, (std::vector<i64>{3, 6, 7}));
}

TEST_F(AsyncCommit, WrittenDirectlyIsAnnouncedByItself) {
    m_options.bufferCapacity = 0;
    Listen();
    QueueCommit(1, 2000);
    QueueCommit(2, 3000);
    RunBatch();
    EXPECT_EQ(m_notices, (std::vector<i64>{1, 2}));
}

TEST_F(AsyncCommit, IsAnnouncedOnceOnly) {
    Listen();
    QueueCommit(1, 2000);
    RunBatch();
    QueueBlock(10);
    RunBatch();
    EXPECT_EQ(m_notices, std::vector<i64>{1});
}

TEST_F(AsyncCommit, IsAnnouncedOnTheWritingThread) {
    std::thread::id announcer;
    m_state.onWritten.Set(
        [](i64, void* id) { *static_cast<std::thread::id*>(id) = std::this_thread::get_id(); },
        &announcer);
    QueueCommit(1, 2000);
    RunBatch();
    EXPECT_NE(announcer, std::thread::id());
    EXPECT_NE(announcer, std::this_thread::get_id());
}

TEST_F(AsyncCommit, IsAnnouncedWhenEverythingIsSettled) {
    for (const u32 capacity : {100U, 0U}) {
        m_options.bufferCapacity = capacity;
        TestBlock& block = NewBlock(10);
        m_state.onWritten.Set(
            [](i64, void* context) {
                auto& settled = *static_cast<TestBlock*>(context);
                EXPECT_EQ(settled.Pending(), 0);
                EXPECT_EQ(settled.position, kStart);
            },
            &block);
        ASSERT_EQ(QueueRun(block, 1, 2000), RC_OK);
        RunBatch();
        CloseWriter();
    }
}

TEST_F(AsyncCommit, WhoseAnnouncementThrowsIsWrittenAndStopsTheWriter) {
    m_state.onWritten.Set([](i64, void*) { throw std::runtime_error("not now"); }, nullptr);
    QueueCommit(1, 2000);
    EXPECT_EQ(StickyErrorOfBatch(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Items(m_path), "C0 C1");
    ExpectError("OnWriteToFile threw on the writing thread: not now", RC_SYSTEM_ERROR);
}

TEST_F(AsyncCommit, WhoseAnnouncementFindsNoMemoryStopsTheWriterSo) {
    m_state.onWritten.Set([](i64, void*) { throw std::bad_alloc(); }, nullptr);
    QueueCommit(1, 2000);
    EXPECT_EQ(StickyErrorOfBatch(), RC_NO_MEMORY);
}

TEST_F(AsyncCommit, WhoseAnnouncementThrowsAnythingStopsTheWriter) {
    m_state.onWritten.Set([](i64, void*) { throw 7; }, nullptr);
    QueueCommit(1, 2000);
    EXPECT_EQ(StickyErrorOfBatch(), RC_SYSTEM_ERROR);
    ExpectError("OnWriteToFile threw on the writing thread: not a std::exception", RC_SYSTEM_ERROR);
}

// --- Arguments -------------------------------------------------------------------------------

using AsyncArguments = AsyncWriter;

TEST_F(AsyncArguments, AWriteWithoutAPositionFillInIsRefusedWith2) {
    TestBlock& block = NewBlock(10);
    EXPECT_EQ(Async().Write(block.Data(), 10, nullptr, block.Block(), 0, nullptr), 2U);
    ExpectError("Cannot push write element to async queue", RC_INVALID_ARG);
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncArguments, AWriteWithoutABlockOrBytesIsRefused) {
    TestBlock& block = NewBlock(10);
    EXPECT_EQ(Async().Write(block.Data(), 10, nullptr, nullptr, 0, &block.position),
              RC_INVALID_ARG);
    EXPECT_EQ(Async().Write(nullptr, 10, nullptr, block.Block(), 0, &block.position),
              RC_INVALID_ARG);
    EXPECT_EQ(Async().Write(block.Data(), 0, nullptr, block.Block(), 0, &block.position),
              RC_INVALID_ARG);
    EXPECT_EQ(block.Pending(), 0);
    EXPECT_EQ(m_log.Count("Cannot push write element to async queue"), 3U) << m_log;
}

TEST_F(AsyncArguments, ARefusedWriteDoesNoHarm) {
    TestBlock& block = NewBlock(10);
    ASSERT_EQ(Async().Write(block.Data(), 10, nullptr, block.Block(), 0, nullptr), RC_INVALID_ARG);
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

}  // namespace k9erepl::test
