// The same operations through the synchronous and the asynchronous writer: the same file, byte for
// byte, the same offsets told, the same state. Commit blocks get their stamps from the test.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "writers/async_fixture.h"
#include "writers/sync_storage_writer.h"

namespace k9erepl::test {
namespace {

constexpr int kOperations = 300;

// A storage file with a writer on it, to which the operations are given.
class Side {
  public:
    Side(const std::string& path, const Bytes& file, i64 growthStep) {
        WriteBytes(path, file);
        m_state.path = path;
        m_state.fileSize = static_cast<i64>(file.size());
        m_state.fileSizeDelta = growthStep;
        m_state.lastCommitSequence = kFirstSequence;
        m_state.onWritten.Set(
            [](i64 rev, void* last) { *static_cast<std::atomic<i64>*>(last) = rev; },
            &m_lastNotice);
    }
    void MakeSync() { Take(std::make_unique<SyncStorageWriter>(&m_state)); }
    void MakeAsync(u32 capacity) {
        Take(std::make_unique<AsyncStorageWriter>(
            &m_state, AsyncStorageWriter::Options{.bufferCapacity = capacity}));
    }

    void Write(u32 size, u8 fill) {
        TestBlock& block = m_blocks.emplace_back(Bytes(size, fill));
        ASSERT_EQ(m_writer->Write(block.Data(), size, nullptr, block.Block(), 0, &block.position),
                  RC_OK);
    }
    // `size` 0: the commit block alone.
    void Commit(u32 size, u8 fill, u32 sequence) {
        TestBlock& block = m_blocks.emplace_back(Bytes(size, fill) + Bytes(kCommitBlockSize));
        u8* const last = block.Data() + size;
        const TCommitBlock built = NewCommitBlock(sequence, ++m_rev);
        std::memcpy(last, &built, sizeof built);
        ASSERT_EQ(m_writer->Write(block.Data(), block.Size(), reinterpret_cast<TCommitBlock*>(last),
                                  block.Block(), m_rev, &block.position),
                  RC_OK);
        m_state.lastFlushedRev = m_rev;
        if (size == 0) {
            // A commit block alone is not data, of which the offset would be told.
            block.position = 0;
        }
    }
    void Begin() { ASSERT_EQ(m_writer->BeginTransaction(), RC_OK); }
    void Rollback() {
        ASSERT_EQ(m_writer->Rollback(), RC_OK);
        m_rev = m_state.lastFlushedRev;
    }
    void Complete() { ASSERT_EQ(m_writer->CompleteAsyncTasks(), RC_OK); }
    void RaiseClearRev() { ++m_state.clearRev; }
    void Close() { m_writer.reset(); }

    // What is to be the same, but for the file.
    std::vector<i64> Look() {
        Complete();
        std::vector<i64> values{m_writer->WritePos(), m_state.lastCommitSequence,
                                m_state.lastFlushedRev, m_lastNotice};
        for (TestBlock& block : m_blocks) {
            values.push_back(block.position);
        }
        return values;
    }
    Bytes File() const { return ReadBytes(m_state.path); }
    // The file without what lies behind the data.
    Bytes Data() {
        Bytes bytes = File();
        bytes.resize(static_cast<std::size_t>(m_writer->WritePos()));
        return bytes;
    }

  private:
    void Take(std::unique_ptr<StorageWriter> writer) {
        m_writer = std::move(writer);
        ASSERT_EQ(m_writer->SetWritePos(kFirstItemOffset, true), RC_OK);
    }

    StorageFileState m_state;
    std::atomic<i64> m_lastNotice{0};
    std::deque<TestBlock> m_blocks;
    i64 m_rev = 0;
    std::unique_ptr<StorageWriter> m_writer;
};

class Equivalence : public WriterTest {
  protected:
    template <typename Operation>
    void Both(Operation operation) {
        operation(*m_sync);
        operation(*m_asyncSide);
    }
    u32 Random(u32 limit) { return static_cast<u32>(m_random() % limit); }
    void Make(u32 seed, u32 capacity, i64 growthStep = 0) {
        m_random.seed(seed);
        m_sync = std::make_unique<Side>(m_folder.File("sync"), FileBytes(), growthStep);
        m_asyncSide = std::make_unique<Side>(m_folder.File("async"), FileBytes(), growthStep);
        m_sync->MakeSync();
        m_asyncSide->MakeAsync(capacity);
    }
    // Mostly small, now and then larger than any buffer here but the largest.
    u32 RandomSize() { return 1 + (Random(20) == 0 ? Random(40000) : Random(200)); }

    void OneOperation() {
        const auto fill = static_cast<u8>(Random(256));
        const u32 sequence = static_cast<u32>(m_random());
        const u32 size = RandomSize();
        switch (Random(10)) {
            case 0:
                Both([](Side& side) { side.Begin(); });
                break;
            case 1:
                Both([](Side& side) { side.Rollback(); });
                break;
            case 2:
                Both([](Side& side) { side.RaiseClearRev(); });
                Both([&](Side& side) { side.Commit(0, 0, sequence); });
                break;
            case 3:
            case 4:
            case 5:
                Both([&](Side& side) { side.Commit(size, fill, sequence); });
                break;
            default:
                Both([&](Side& side) { side.Write(size, fill); });
        }
    }
    void RunAll(u32 seed) {
        for (int n = 0; n < kOperations; ++n) {
            OneOperation();
        }
        EXPECT_EQ(m_asyncSide->Look(), m_sync->Look()) << "seed " << seed;
    }

    std::mt19937 m_random;
    std::unique_ptr<Side> m_sync;
    std::unique_ptr<Side> m_asyncSide;
};

}  // namespace

TEST_F(Equivalence, TheSameOperationsGiveTheSameFile) {
    u32 seed = 1;
    for (const u32 capacity : {0U, 50U, 1000U, 16384U, 100000U}) {
        Make(++seed, capacity);
        RunAll(seed);
        Both([](Side& side) { side.Close(); });
        EXPECT_TRUE(m_asyncSide->File() == m_sync->File()) << "capacity " << capacity;
    }
}

// Fewer writes cross the end of the file less often: how far it has grown ahead may differ.
TEST_F(Equivalence, TheSameOperationsGiveTheSameDataInAFileThatGrows) {
    u32 seed = 10;
    for (const u32 capacity : {50U, 16384U}) {
        Make(++seed, capacity, 4096);
        RunAll(seed);
        EXPECT_TRUE(m_asyncSide->Data() == m_sync->Data()) << "capacity " << capacity;
    }
}

}  // namespace k9erepl::test
