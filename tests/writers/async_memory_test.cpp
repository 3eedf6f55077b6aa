// Exhausted memory while the asynchronous writer works: on the clients' side an operation is
// refused and no more, on the writing thread's side it is a failure like any other.
#include <gtest/gtest.h>

#include "support/fixed_log.h"
#include "support/new_fault.h"
#include "writers/async_fixture.h"

namespace k9erepl::test {
namespace {

class AsyncMemory : public AsyncWriterTest {
  protected:
    AsyncMemory() {
        m_options.bufferCapacity = 100;
        Async();
    }
    // The operation finds no memory for its first C++ object.
    template <typename Operation>
    u32 WithoutMemory(Operation operation) {
        const FailNthNew fault(1);
        const u32 rc = operation();
        EXPECT_TRUE(fault.Struck());
        return rc;
    }
};

}  // namespace

TEST_F(AsyncMemory, ForAWriteElementRefusesTheWrite) {
    TestBlock& block = NewBlock(10);
    EXPECT_EQ(WithoutMemory([&] { return Queue(block); }), RC_NO_MEMORY);
    ExpectError("Cannot push write element to async queue", RC_NO_MEMORY);
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncMemory, ForACommitElementRefusesTheCommit) {
    TestBlock& block = NewBlock(10);
    EXPECT_EQ(WithoutMemory([&] { return QueueCommit(1, 2000, block.Block()); }), RC_NO_MEMORY);
    ExpectError("Cannot push commit element to async queue", RC_NO_MEMORY);
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncMemory, ForABeginElementRefusesTheBeginning) {
    EXPECT_EQ(WithoutMemory([&] { return Async().BeginTransaction(); }), RC_NO_MEMORY);
    ExpectError("Cannot push begin transaction element to async queue", RC_NO_MEMORY);
}

TEST_F(AsyncMemory, ForACompleteElementRefusesTheWait) {
    EXPECT_EQ(WithoutMemory([&] { return Async().CompleteAsyncTasks(); }), RC_NO_MEMORY);
    ExpectError("Cannot push complete element to async queue", RC_NO_MEMORY);
}

TEST_F(AsyncMemory, ForACommitCopyRefusesTheCommit) {
    FailAlloc(1);
    EXPECT_EQ(QueueCommit(1, 2000), RC_NO_MEMORY);
    EXPECT_TRUE(m_log.Has("Couldn't allocate memory for next block;block_size 32")) << m_log;
    ExpectError("Cannot push commit element to async queue", RC_NO_MEMORY);
}

TEST_F(AsyncMemory, ForACommitCopyLeavesTheDataBeforeItQueued) {
    TestBlock& block = NewBlock(10);
    FailAlloc(1);
    EXPECT_EQ(QueueRun(block, 1, 2000), RC_NO_MEMORY);
    EXPECT_EQ(block.Pending(), 1);
    RunBatch();
    EXPECT_EQ(WriteSizes(), Sizes{10});
    EXPECT_EQ(block.Pending(), 0);
}

TEST_F(AsyncMemory, OnceRefusedTheWriterGoesOn) {
    TestBlock& block = NewBlock(10);
    WithoutMemory([&] { return Queue(block); });
    FailAlloc(1);
    QueueCommit(1, 2000);
    QueueRecord(1, 3000);
    RunBatch();
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
}

TEST_F(AsyncMemory, ForARollbacksElementMakesTheCodeSticky) {
    QueueRecord(1, 2000);
    EXPECT_EQ(WithoutMemory([&] { return Async().Rollback(); }), RC_NO_MEMORY);
    EXPECT_EQ(QueueCommit(1, 2000), RC_NO_MEMORY);
    CloseWriter();
    EXPECT_EQ(WriteSizes(), Sizes{});
}

TEST_F(AsyncMemory, IsNotNeededToStopTheThread) {
    QueueRecord(1, 2000);
    RunAll();
    {
        const FixedLog log;
        const FailNthNew fault(1);
        EXPECT_TRUE(m_async->Shutdown());
    }
    CloseWriter();
    EXPECT_EQ(m_calls.ExitCodesGiven(), std::vector<u32>{});
    EXPECT_EQ(Items(m_path), "C0 R1 C1");
}

// --- On the writing thread -------------------------------------------------------------------

TEST_F(AsyncMemory, ForThePromisesOfABufferIsAFailureOfTheThread) {
    m_calls.FailThreadsNew(1);
    TestBlock& block = QueueBlock(10);
    QueueBlock(20);
    EXPECT_EQ(StickyErrorOfBatch(), RC_NO_MEMORY);
    ExpectError("Write to async buffer failed (1)", RC_NO_MEMORY);
    EXPECT_EQ(block.Pending(), 1);
    EXPECT_EQ(WriteSizes(), Sizes{});
}

TEST_F(AsyncMemory, ForThePromisesOfTheNextBufferToo) {
    const FixedLog log;    // takes no memory from the thread
    QueueCommit(1, 2000);  // promises nothing
    QueueBlock(80);
    QueueBlock(10);
    m_calls.FailThreadsNew(1);
    EXPECT_EQ(StickyErrorOfBatch(), RC_NO_MEMORY);
    EXPECT_TRUE(log.HasError("Write to async buffer failed (2)", RC_NO_MEMORY));
    EXPECT_EQ(WriteSizes(), Sizes{32});
}

}  // namespace k9erepl::test
