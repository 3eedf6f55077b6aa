// Storages that live through many openings: revisions, the chain of commit blocks and the index go
// on from one to the next. Compared with a model in memory.
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "engine/load_fixture.h"
#include "platform/file_names.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

std::string Settings(u32 cacheBlocks, u32 blockSize, u32 transNum) {
    return "cache_type=Last" + std::to_string(cacheBlocks) +
           ";block_size=" + std::to_string(blockSize) +
           ";flush_mode=PerTrans;flush_trans_num=" + std::to_string(transNum) +
           ";flush_timeout=3600000;read_buffers_count=1;index_hint=2;memory_reserve=1";
}

TEST(Reopening, ContinuesTheRevisionsAndTheChain) {
    TestStorage storage(SmallCache(1));
    for (u32 generation = 1; generation <= 10; ++generation) {
        storage.InsertMany(4);
        storage.Reopen();
        EXPECT_EQ(storage.NextRev(), 4 * generation + 1);
        EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 4 * generation));
    }
    // The chain of the whole file: a load without the index reads all of it.
    storage.Close();
    ASSERT_TRUE(platform::RemoveFile(IndexPath(storage)));
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 40));
}

TEST(Reopening, WithoutChangesLeavesTheFileAlone) {
    TestStorage storage(SmallCache(2));
    storage.InsertMany(20);
    storage.Reopen();
    const std::vector<u8> file = FileBytes(storage);
    const std::vector<u8> index = ReadBytes(IndexPath(storage));
    storage.Reopen();
    EXPECT_EQ(FileBytes(storage), file);
    EXPECT_EQ(ReadBytes(IndexPath(storage)), index);
}

TEST(Reopening, ContinuesInTheLastLoadedBlock) {
    TestStorage storage(SmallCache(2));
    storage.InsertMany(2);
    storage.Reopen();
    storage.InsertMany(3);
    EXPECT_EQ(EntriesInMemory(storage), IndexEntries({{1, 1056}}));
    EXPECT_EQ(storage.Records().size(), 5U);
}

TEST(Reopening, FlushesWhatWasCommittedButNotFlushed) {
    TestStorage storage(Settings(2, 138, 99));
    storage.InsertMany(20);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Numbered(20));
}

TEST(Reopening, LosesAnOpenTransactionOnly) {
    TestStorage storage(Settings(2, 138, 99));
    storage.InsertMany(5);
    ASSERT_EQ(storage.Begin(), RC_OK);
    storage.InsertMany(9, "open");
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Numbered(5));
    EXPECT_EQ(storage.NextRev(), 6);
}

TEST(Reopening, UsesTheIndexThatTheIndexThreadSaved) {
    SKIP_WHEN_ASYNC("a block is in the file when its save is asked for");
    TestStorage storage(Settings(2, 138, 1));
    for (u32 n = 0; n < 60; ++n) {
        ASSERT_EQ(storage.Insert(OneBlock(std::to_string(n))), RC_OK);
        while (StorageAccess::Index(storage.Object())->IsBusy()) {
            std::this_thread::yield();
        }
    }
    storage.Close();
    EXPECT_EQ(ReadIndexEntries(storage).size(), 60U);
    LogCapture log;
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_TRUE(log.Has("Index test started; cnt 58")) << log;
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 60));
}

TEST(Reopening, KeepsLifeNumberAndRevisionMark) {
    TestStorage storage(SmallCache(1));
    ASSERT_EQ(K9eReplStorageSetLifenum(storage.Handle(), 7), RC_OK);
    storage.InsertMany(9);
    storage.Reopen();
    u32 lifenum = 0;
    EXPECT_EQ(K9eReplStorageGetLifenum(storage.Handle(), &lifenum), RC_OK);
    EXPECT_EQ(lifenum, 7U);
}

// One seeded life: openings with changing settings, transactions of every kind.
class RandomLife {
  public:
    explicit RandomLife(u32 seed) : m_random(seed), m_storage(RandomSettings()) {}

    void Live(u32 generations) {
        for (u32 n = 0; n < generations && !::testing::Test::HasFailure(); ++n) {
            for (u32 transactions = Below(12); transactions > 0; --transactions) {
                Transaction();
            }
            ExpectModel();
            m_storage.Close();
            LoseTheIndexAtTimes();
            m_storage.Use(RandomSettings());
            ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
            ExpectModel();
        }
    }

  private:
    u32 Below(u32 limit) { return static_cast<u32>(m_random() % limit); }
    // All block sizes take the largest record.
    std::string RandomSettings() {
        return Settings(1 + Below(4), 138 + Below(2) * Below(500), 1 + Below(4));
    }
    std::string RandomText() { return std::string(Below(115), static_cast<char>('a' + Below(26))); }

    void Transaction() {
        Model added;
        ASSERT_EQ(m_storage.Begin(), RC_OK);
        for (u32 n = Below(7); n > 0; --n) {
            const std::string text = RandomText();
            const i64 rev = m_storage.NextRev() + (Below(4) == 0 ? Below(20) : 0);
            ASSERT_EQ(m_storage.InsertP(rev, text), RC_OK);
            added[rev] = text;
        }
        if (Below(4) == 0) {
            ASSERT_EQ(m_storage.Rollback(), RC_OK);
            return;
        }
        ASSERT_EQ(m_storage.Commit(), RC_OK);
        m_model.merge(added);
    }
    void LoseTheIndexAtTimes() {
        const u32 dice = Below(6);
        if (dice == 0) {
            EXPECT_TRUE(platform::RemoveFile(IndexPath(m_storage)));
        } else if (dice == 1) {
            ResizeFile(IndexPath(m_storage), FileSize(IndexPath(m_storage)) / 2);
        }
    }
    void ExpectModel() {
        ASSERT_EQ(ModelOf(m_storage.Records()), m_model);
        ASSERT_GT(m_storage.NextRev(), m_model.empty() ? 0 : m_model.rbegin()->first);
        const i64 from = Below(static_cast<u32>(m_storage.NextRev()));
        const i64 to = from + Below(30);
        ASSERT_EQ(ModelOf(m_storage.Records(from, to)),
                  Model(m_model.lower_bound(from), m_model.upper_bound(to)));
    }

    std::mt19937 m_random;
    TestStorage m_storage;
    Model m_model;
};

TEST(Reopening, AtRandomKeepsEverythingCommitted) {
    const LogCapture quiet({"no module"});
    for (u32 seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE(seed);
        RandomLife(seed).Live(12);
        ASSERT_FALSE(::testing::Test::HasFailure());
    }
}

}  // namespace
}  // namespace k9erepl::test
