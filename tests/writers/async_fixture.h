// What the tests of the asynchronous writer share: a new storage file with such a writer on it,
// memory blocks whose bytes are queued, and batches that the writing thread takes when told to.
#ifndef K9EREPL_TESTS_WRITERS_ASYNC_FIXTURE_H
#define K9EREPL_TESTS_WRITERS_ASYNC_FIXTURE_H

#include <deque>
#include <memory>
#include <vector>

#include "memory/repl_block.h"
#include "writers/async_calls.h"
#include "writers/async_storage_writer.h"
#include "writers/writer_fixture.h"

namespace k9erepl::test {

using Sizes = std::vector<u32>;

constexpr u32 kAsyncWaitMs = 60000;

// A memory block with data in it and room for a commit block behind; the index entry's offset with
// it.
class TestBlock {
  public:
    explicit TestBlock(const Bytes& data);

    K9eReplBlock* Block() { return reinterpret_cast<K9eReplBlock*>(m_bytes.get()); }
    u8* Data() { return Block()->Data(); }
    u32 Size() const { return m_size; }
    i32 Pending() { return Block()->pendingWrites; }

    std::atomic<i64> position{kUnknownOffset};

  private:
    const u32 m_size;
    std::unique_ptr<u8[]> m_bytes;
};

class AsyncWriterTest : public WriterTest {
  protected:
    ~AsyncWriterTest() override { CloseWriter(); }

    // The writer, made at first use, so that a test sets m_state and m_options before; its
    // position is kStart. The writing thread is held before its first wait for work.
    AsyncStorageWriter& Async();
    // Everything queued is written and the thread ended; the next use makes another writer.
    void CloseWriter();
    // The code of the exception that making a writer throws.
    u32 ConstructionError();

    // One write of a block's bytes, and one of these followed by a commit block; a commit block
    // alone, `block` may be null.
    u32 Queue(TestBlock& block, i64 lastRevision = 0);
    u32 QueueRun(TestBlock& block, i64 commitRev, u32 sequence);
    u32 QueueCommit(i64 commitRev, u32 sequence, K9eReplBlock* block = nullptr);
    // A new block whose bytes are queued; all of them have another value than any block before.
    TestBlock& QueueBlock(u32 size);
    TestBlock& NewBlock(u32 size);
    // One with a record in it and a commit block behind that; the state then has its revision
    // flushed, as the storage file sees to it.
    TestBlock& QueueRecord(i64 rev, u32 sequence);
    // A kComplete in the middle of a batch: its waiter gives up at once.
    void QueueComplete();

    // The writing thread takes what is queued as one batch and is held again when that is done.
    // RunAll: what is queued and will be; the thread is never held again.
    void RunBatch();
    void RunAll() { m_calls.m_tasks.Open(); }
    Sizes WriteSizes() { return m_calls.WriteSizes(); }
    // Lets the writing thread run into a failure, which becomes sticky.
    u32 StickyErrorOfBatch();
    void ExpectError(const std::string& text, u32 code);

    // Collects what OnWriteToFile is told.
    void Listen();

    AsyncCalls m_calls;
    AsyncStorageWriter::Options m_options;
    std::unique_ptr<AsyncStorageWriter> m_async;
    std::deque<TestBlock> m_blocks;
    std::vector<i64> m_notices;  // the writing thread's until the batch is done
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_WRITERS_ASYNC_FIXTURE_H
