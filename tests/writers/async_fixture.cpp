// The vocabulary of the asynchronous writer's tests; see async_fixture.h.
#include "writers/async_fixture.h"

#include <cstring>
#include <new>

#include "support/storage_exception.h"

namespace k9erepl::test {

using platform::WaitResult;

TestBlock::TestBlock(const Bytes& data)
    : m_size(static_cast<u32>(data.size())), m_bytes(new u8[data.size() + kBlockOverhead]) {
    new (m_bytes.get()) K9eReplBlock{};
    std::memcpy(Data(), data.data(), data.size());
}

AsyncStorageWriter& AsyncWriterTest::Async() {
    if (m_async == nullptr) {
        m_async = std::make_unique<AsyncStorageWriter>(&m_state, m_options);
        EXPECT_EQ(m_async->SetWritePos(kStart, true), RC_OK);
    }
    return *m_async;
}

void AsyncWriterTest::CloseWriter() {
    m_calls.m_writes.Open();
    m_calls.m_tasks.Open();
    m_async.reset();
    m_calls.m_tasks.Shut();
}

u32 AsyncWriterTest::ConstructionError() {
    RunAll();
    try {
        const AsyncStorageWriter writer(&m_state, m_options);
    } catch (const K9eStorageException& e) {
        return e.Code();
    }
    return RC_OK;
}

u32 AsyncWriterTest::Queue(TestBlock& block, i64 lastRevision) {
    return Async().Write(block.Data(), block.Size(), nullptr, block.Block(), lastRevision,
                         &block.position);
}

u32 AsyncWriterTest::QueueRun(TestBlock& block, i64 commitRev, u32 sequence) {
    const TCommitBlock built = NewCommitBlock(sequence, commitRev);
    u8* const behind = block.Data() + block.Size();
    std::memcpy(behind, &built, kCommitBlockSize);
    const u32 rc = Async().Write(block.Data(), block.Size() + kCommitBlockSize,
                                 reinterpret_cast<TCommitBlock*>(behind), block.Block(), commitRev,
                                 &block.position);
    std::memset(behind, 0xDD, kCommitBlockSize);  // may be reused at once
    return rc;
}

u32 AsyncWriterTest::QueueCommit(i64 commitRev, u32 sequence, K9eReplBlock* block) {
    TCommitBlock built = NewCommitBlock(sequence, commitRev);
    const u32 rc = Async().Write(reinterpret_cast<u8*>(&built), kCommitBlockSize, &built, block,
                                 commitRev, nullptr);
    std::memset(&built, 0xDD, sizeof built);
    return rc;
}

TestBlock& AsyncWriterTest::NewBlock(u32 size) {
    return m_blocks.emplace_back(Bytes(size, static_cast<u8>(m_blocks.size() + 1)));
}

TestBlock& AsyncWriterTest::QueueBlock(u32 size) {
    TestBlock& block = NewBlock(size);
    EXPECT_EQ(Queue(block), RC_OK);
    return block;
}

TestBlock& AsyncWriterTest::QueueRecord(i64 rev, u32 sequence) {
    TestBlock& block = m_blocks.emplace_back(Record(rev, 10));
    EXPECT_EQ(QueueRun(block, rev, sequence), RC_OK);
    m_state.lastFlushedRev = rev;
    return block;
}

void AsyncWriterTest::QueueComplete() {
    m_calls.EndNextClientWait(WaitResult::kTimedOut);
    EXPECT_EQ(Async().CompleteAsyncTasks(), RC_TIMEOUT);
}

void AsyncWriterTest::RunBatch() {
    m_calls.m_tasks.LetOnePass();
    m_calls.m_tasks.WaitUntilHeld();
}

u32 AsyncWriterTest::StickyErrorOfBatch() {
    Async();
    m_calls.m_tasks.LetOnePass();
    u32 rc = RC_OK;
    while (rc == RC_OK) {  // a block that was released before may have set the event
        rc = m_async->WaitReleaseBlock();
    }
    return rc;
}

void AsyncWriterTest::ExpectError(const std::string& text, u32 code) {
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_ERROR, text)) << text << "\n" << m_log;
    EXPECT_EQ(m_log.CodeOf(text), code) << text;
}

void AsyncWriterTest::Listen() {
    m_state.onWritten.Set(
        [](i64 rev, void* notices) { static_cast<std::vector<i64>*>(notices)->push_back(rev); },
        &m_notices);
}

}  // namespace k9erepl::test
