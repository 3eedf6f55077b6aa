// What clients learn of their queued blocks: the offset in the file, and that nothing of a block
// is queued any more.
#include <gtest/gtest.h>

#include "writers/async_fixture.h"

namespace k9erepl::test {
namespace {

class AsyncFillIn : public AsyncWriterTest {
  protected:
    AsyncFillIn() { m_options.bufferCapacity = 100; }
};

using AsyncPending = AsyncFillIn;

}  // namespace

TEST_F(AsyncFillIn, OffsetsAreThoseInTheFile) {
    TestBlock& first = QueueBlock(30);
    TestBlock& second = QueueBlock(40);   // in one buffer with the first
    TestBlock& direct = QueueBlock(200);  // larger than the buffer
    TestBlock& last = QueueBlock(5);
    RunBatch();
    EXPECT_EQ(first.position, kStart);
    EXPECT_EQ(second.position, kStart + 30);
    EXPECT_EQ(direct.position, kStart + 70);
    EXPECT_EQ(last.position, kStart + 270);
}

TEST_F(AsyncFillIn, OffsetsGoOnInTheNextBatch) {
    QueueBlock(30);
    RunBatch();
    TestBlock& next = QueueBlock(10);
    TestBlock& last = QueueBlock(10);
    RunBatch();
    EXPECT_EQ(next.position, kStart + 30);
    EXPECT_EQ(last.position, kStart + 40);
}

TEST_F(AsyncFillIn, OffsetsCountTheCommitBlocksBetween) {
    QueueCommit(1, 2000);
    TestBlock& block = QueueBlock(10);
    RunBatch();
    EXPECT_EQ(block.position, kStart + kCommitBlockSize);
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

TEST_F(AsyncFillIn, OfTwoPiecesOfABlockTheFirstOneTells) {
    TestBlock& block = QueueBlock(10);
    ASSERT_EQ(Queue(block), RC_OK);
    RunBatch();
    EXPECT_EQ(block.position, kStart);
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncFillIn, AnOffsetIsNotTellableBeforeTheBytesAreInTheFile) {
    RunAll();
    m_calls.m_writes.Shut();
    TestBlock& block = QueueBlock(10);
    m_calls.m_writes.WaitUntilHeld();
    EXPECT_EQ(block.position, kUnknownOffset);
    EXPECT_EQ(Async().WritePos(), kStart);
    m_calls.m_writes.Open();
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(block.position, kStart);
}

// --- Pending writes --------------------------------------------------------------------------

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

TEST_F(AsyncPending, WritesAreCountedDownOnlyWhenTheyAreInTheFile) {
    RunAll();
    m_calls.m_writes.Shut();
    TestBlock& block = QueueBlock(10);
    m_calls.m_writes.WaitUntilHeld();
    EXPECT_EQ(block.Pending(), 1);
    m_calls.m_writes.Open();
    ASSERT_EQ(Async().CompleteAsyncTasks(), RC_OK);
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncPending, ABlockOfWhichMoreIsQueuedIsNotReleased) {
    TestBlock& block = NewBlock(101);
    ASSERT_EQ(Queue(block), RC_OK);
    ASSERT_EQ(Queue(block), RC_OK);
    RunAll();
    m_calls.m_writes.Shut();
    m_calls.m_writes.LetOnePass();
    m_calls.m_writes.WaitUntilHeld();
    EXPECT_EQ(block.Pending(), 1);
    m_calls.EndNextClientWait(platform::WaitResult::kTimedOut);
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_TIMEOUT);
    m_calls.m_writes.Open();
    EXPECT_EQ(Async().WaitReleaseBlock(), RC_OK);
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncPending, WaitReleaseBlockReturnsWhenABlockIsReleased) {
    for (const u32 size : {10U, 101U}) {  // buffered, direct
        TestBlock& block = QueueBlock(size);
        RunBatch();
        EXPECT_EQ(Async().WaitReleaseBlock(), RC_OK);
        EXPECT_EQ(block.Pending(), 0);
        EXPECT_EQ(m_calls.ClientTimeout(), kAsyncWaitMs);
    }
}

TEST_F(AsyncPending, TheEventIsSetOnceForABufferOfManyBlocks) {
    QueueBlock(10);
    QueueBlock(20);
    const u32 before = CallCount(SystemCall::kSetEvent);
    RunBatch();
    EXPECT_EQ(CallCount(SystemCall::kSetEvent), before + 1);
}

TEST_F(AsyncPending, ACommitBlockWithoutAMemoryBlockReleasesNothing) {
    QueueCommit(1, 2000);
    const u32 before = CallCount(SystemCall::kSetEvent);
    RunBatch();
    EXPECT_EQ(CallCount(SystemCall::kSetEvent), before);
}

}  // namespace k9erepl::test
