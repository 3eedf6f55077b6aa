// Loading through an index file: a good one saves reading, and none, whatever it says, changes what
// is loaded.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <set>

#include "engine/clear_fixture.h"
#include "memory/block_notes.h"
#include "platform/file_names.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr std::string_view kDoesNotFit = "Index does not fit the storage file; loading without it";
constexpr std::string_view kLeadsAstray =
    "Index does not lead to all kept records; loading without it";

// A closed storage of 20 blocks of one record each, and its index.
class LoadThroughIndex : public ::testing::Test {
  protected:
    static constexpr i64 kCount = 20;
    static constexpr i64 OffsetOf(i64 rev) { return 1056 + (rev - 1) * (138 + 32); }

    LoadThroughIndex() {
        for (i64 rev = 1; rev <= kCount; ++rev) {
            m_entries.emplace_back(rev, OffsetOf(rev));
            m_model[rev] = OneBlock(std::to_string(rev));
            EXPECT_EQ(m_storage.Insert(m_model[rev]), RC_OK);
        }
        m_storage.Close();
    }
    void LoadWith(const IndexEntries& entries, u32 blockSize = 138) {
        WriteIndex(m_storage, entries, blockSize);
        m_log.Clear();
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
    }
    // The storage is what it is without an index, and its index is right again.
    void ExpectContent() {
        EXPECT_EQ(ModelOf(m_storage.Records()), m_model) << m_log;
        EXPECT_EQ(m_storage.NextRev(), kCount + 1);
        EXPECT_EQ(m_storage.OldestRev(), 0);
        EXPECT_EQ(ReadIndexEntries(m_storage), EntriesInMemory(m_storage));
        EXPECT_EQ(EntriesInMemory(m_storage).front(), m_entries.front());
        EXPECT_EQ(EntriesInMemory(m_storage).back(), m_entries.back());
    }
    std::size_t Loaded() const { return m_log.CountContaining("Loaded rec;rev "); }
    void ExpectUsed(i64 startOffset) {
        ExpectContent();
        EXPECT_TRUE(m_log.Has("Index test passed; start loading from offset " +
                              std::to_string(startOffset)))
            << m_log;
    }
    // `change` makes an index of which a load says this, and which it does not use.
    void ExpectDropped(const std::function<void(IndexEntries&)>& change, std::string_view warning,
                       i64 testFailedAt = 0) {
        IndexEntries entries = m_entries;
        change(entries);
        LoadWith(entries);
        ExpectContent();
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, warning)) << m_log;
        EXPECT_GE(Loaded(), static_cast<std::size_t>(kCount));
        if (testFailedAt != 0) {
            const std::string text = "Index test failed at offset " + std::to_string(testFailedAt);
            EXPECT_EQ(m_log.CodeOf(text), RC_NOT_FOUND) << m_log;
        }
        m_storage.Close();
    }
    void KeepAllInMemory() { m_storage.Use(std::string(kEachCommit) + "cache_type=AllInMem"); }

    TestStorage m_storage{SmallCache(2)};
    LogCapture m_log;
    IndexEntries m_entries;
    Model m_model;
};

TEST_F(LoadThroughIndex, ReadsTheLastBlocksOnly) {
    LoadWith(m_entries);
    ExpectUsed(OffsetOf(18));
    EXPECT_EQ(Loaded(), 3U);
    EXPECT_EQ(EntriesInMemory(m_storage), m_entries);
    EXPECT_TRUE(m_log.Has("Index test started; cnt 18")) << m_log;
    ExpectEveryRange(m_storage, m_model, kCount);
}

TEST_F(LoadThroughIndex, ReadsEverythingWhenEverythingIsKept) {
    KeepAllInMemory();
    LoadWith(m_entries);
    ExpectUsed(1056);
    EXPECT_EQ(Loaded(), 20U);
    EXPECT_TRUE(m_log.Has("Index test started; cnt 1")) << m_log;
}

TEST_F(LoadThroughIndex, OfAnotherBlockSizeReadsAsManyBytesAsTheCacheHolds) {
    for (const auto& [size, first] : {std::pair{69U, 16}, {1000U, 20}, {1U, 1}, {0xFFFFFFFF, 20}}) {
        LoadWith(m_entries, size);
        ExpectUsed(OffsetOf(first));
        m_storage.Close();
    }
}

TEST_F(LoadThroughIndex, WithGapsBetweenItsEntriesLoadsTheSame) {
    LoadWith({{1, OffsetOf(1)}, {4, OffsetOf(4)}, {11, OffsetOf(11)}, {20, OffsetOf(20)}});
    ExpectUsed(OffsetOf(4));
    ExpectEveryRange(m_storage, m_model, kCount);
}

TEST_F(LoadThroughIndex, WithoutEntriesOrWithoutItReadsTheWholeFile) {
    LoadWith({});
    ExpectContent();
    m_storage.Close();
    ASSERT_TRUE(platform::RemoveFile(IndexPath(m_storage)));
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    ExpectContent();
    EXPECT_EQ(Loaded(), 2 * 20U);
    EXPECT_EQ(m_log.CountContaining("Index test"), 0U);
}

TEST_F(LoadThroughIndex, ThatDoesNotFitTheFileIsDropped) {
    LoadWith(m_entries, 0);
    ExpectContent();
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, kDoesNotFit)) << m_log;
    m_storage.Close();
    for (const i64 offset : {OffsetOf(21), OffsetOf(21) - 23, kMaxI64}) {
        ExpectDropped([=](auto& entries) { entries.back().second = offset; }, kDoesNotFit);
    }
    for (const i64 offset : {0, 1024, 1055}) {
        ExpectDropped([=](auto& entries) { entries.front().second = offset; }, kDoesNotFit);
    }
}

TEST_F(LoadThroughIndex, WhoseTestFailsIsDropped) {
    ExpectDropped(
        [](auto& entries) {
            entries.erase(entries.begin(), entries.begin() + 3);
            entries.insert(entries.begin(), {3, OffsetOf(2)});
        },
        kDoesNotFit, OffsetOf(2));
    ExpectDropped(
        [](auto& entries) {
            entries.erase(entries.begin() + 9);
            entries.at(9).first -= 1;
        },
        kDoesNotFit, OffsetOf(11));
    ExpectDropped([](auto& entries) { entries.at(17).second += 24; }, kDoesNotFit,
                  OffsetOf(18) + 24);
    KeepAllInMemory();
    ExpectDropped([](auto& entries) { entries.front().second += 24; }, kDoesNotFit,
                  OffsetOf(1) + 24);
}

TEST_F(LoadThroughIndex, ThatHidesRecordsIsDropped) {
    ExpectDropped([](auto& entries) { entries.erase(entries.begin()); }, kLeadsAstray);
    ExpectDropped([](auto& entries) { entries = {entries.back()}; }, kLeadsAstray);
    KeepAllInMemory();
    ExpectDropped([](auto& entries) { entries.erase(entries.begin(), entries.begin() + 5); },
                  kLeadsAstray);
}

// The last commit block is torn off, and the index begins where only its records are left.
TEST_F(LoadThroughIndex, ThatLeadsToNoCommitBlockIsDropped) {
    ResizeFile(m_storage.Path(), OffsetOf(21) - 32);
    LoadWith(m_entries, 1'000'000);
    EXPECT_TRUE(m_log.Has("Try to delete index file")) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, kLeadsAstray)) << m_log;
    m_model.erase(20);
    EXPECT_EQ(ModelOf(m_storage.Records()), m_model);
    EXPECT_EQ(m_storage.NextRev(), 20);
    m_entries.pop_back();
    EXPECT_EQ(ReadIndexEntries(m_storage), m_entries);
}

TEST_F(LoadThroughIndex, OfAFileWithoutItsRecordsIsDropped) {
    FileBuilder().NewFile().Zeros(500).Save(m_storage.Path());
    LoadWith({{1, 1056}});
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, "Empty file detected with non-empty index"));
    EXPECT_TRUE(m_storage.Records().empty());
    EXPECT_EQ(m_storage.NextRev(), 1);
    EXPECT_TRUE(ReadIndexEntries(m_storage).empty());
    m_storage.Close();
    FileBuilder().Header().Commit(0, 5).Record(3, "below").Commit(0, 6).Save(m_storage.Path());
    LoadWith({{3, 1056}});
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, "Revision check failed before load")) << m_log;
    EXPECT_TRUE(m_storage.Records().empty());
    EXPECT_EQ(m_storage.NextRev(), 6);
}

// Cut anywhere and with any bit turned over.
TEST_F(LoadThroughIndex, WhoseFileIsDamagedLoadsTheSame) {
    const std::vector<u8> good = IndexBytes({m_entries.begin(), m_entries.begin() + 3});
    for (std::size_t bit = 0; bit < good.size() * 8; bit += RunsAsynchronously() ? 23 : 1) {
        std::vector<u8> bytes = good;
        if (bit % 8 == 0) {
            bytes.resize(bit / 8);
        } else {
            bytes[bit / 8] = static_cast<u8>(bytes[bit / 8] ^ (1U << bit % 8));
        }
        WriteBytes(IndexPath(m_storage), bytes);
        m_log.Clear();
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << bit;
        ExpectContent();
        m_storage.Close();
        ASSERT_FALSE(HasFailure()) << bit;
    }
}

// --- After a clear into a gap: the index begins above the clear revision -------------------------

// Blocks of one record each: 1 to 5, then, behind a gap, 11 to 20.
class LoadBehindAGap : public ::testing::Test {
  protected:
    LoadBehindAGap() {
        for (i64 rev = 1; rev <= 20; rev += rev == 5 ? 6 : 1) {
            EXPECT_EQ(m_storage.InsertP(rev, OneBlock(std::to_string(rev))), RC_OK);
        }
    }

    TestStorage m_storage{SmallCache(2)};
    LogCapture m_log;
};

TEST_F(LoadBehindAGap, UsesTheIndexWhenNoRecordLiesInTheGap) {
    ASSERT_EQ(m_storage.Clear(8, kLogical), RC_OK);
    m_storage.Reopen();  // makes the index afresh
    m_log.Clear();
    m_storage.Reopen();
    EXPECT_FALSE(m_log.Has(kLeadsAstray)) << m_log;
    EXPECT_EQ(m_log.CountContaining("Loaded rec;rev "), 3U) << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(11, 20));
    EXPECT_EQ(m_storage.OldestRev(), 8);
}

TEST_F(LoadBehindAGap, LoadsWithoutTheIndexWhenARecordLiesThere) {
    ASSERT_EQ(m_storage.Clear(5, kLogical), RC_OK);
    m_storage.Close();
    IndexEntries entries = ReadIndexEntries(m_storage);
    ASSERT_EQ(entries.front().first, 5);
    entries.erase(entries.begin());
    WriteIndex(m_storage, entries);
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, kLeadsAstray)) << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), Revs({5, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20}));
}

// --- An index that is older than the last clear, over a damaged file -----------------------------

// A closed storage of 12 records, two in each block, cleared to revision 4, with the index of
// before the clear. The second block begins with the record 3, which is cleared, and goes on with
// the first one that is kept.
class LoadWithAStaleIndex : public ::testing::Test {
  protected:
    LoadWithAStaleIndex() {
        for (i64 rev = 1; rev <= 12; ++rev) {
            EXPECT_EQ(m_storage.Insert(ClearableStorage::TextOf(rev)), RC_OK);
        }
        m_storage.Reopen();  // saves the whole index
        m_fourth = EntriesInMemory(m_storage).at(1).second + 64 + kCommitBlockSize;
        m_stale = ReadBytes(IndexPath(m_storage));
        EXPECT_EQ(m_storage.Clear(4, kLogical), RC_OK);
        m_storage.Close();
        WriteBytes(IndexPath(m_storage), m_stale);
        m_log.Clear();
    }
    // The size of the record 4.
    void DamageTheFirstKeptRecord() {
        std::vector<u8> bytes = ReadBytes(m_storage.Path());
        bytes.at(static_cast<std::size_t>(m_fourth) + kSignatureSize) ^= 0x80;
        WriteBytes(m_storage.Path(), bytes);
    }

    const ScopedSystemCalls m_systemCalls;
    TestStorage m_storage{SmallCache(1)};
    i64 m_fourth = 0;  // file offset of the record
    std::vector<u8> m_stale;
    LogCapture m_log;
};

TEST_F(LoadWithAStaleIndex, LoadsWithoutItWhenTheBlockOfTheClearRevisionIsDamaged) {
    DamageTheFirstKeptRecord();
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
    EXPECT_TRUE(
        m_log.Has(K9SYS_LOG_WARNING, "Load with the index failed; loading without it;code 3"))
        << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 3)) << "as far as the file is sound";
    EXPECT_EQ(m_storage.NextRev(), 4);
    m_storage.InsertCommitted({"four"});
    m_storage.Reopen();
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 4));
}

TEST_F(LoadWithAStaleIndex, LoadsWithoutItInMemoryToo) {
    DamageTheFirstKeptRecord();
    m_storage.Use("cache_type=AllInMem;flush_mode=NoFlush;file=" + m_storage.Path() +
                  ";index_file=" + IndexPath(m_storage));
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 3));
}

TEST_F(LoadWithAStaleIndex, FailsWhenTheSystemFails) {
    ASSERT_EQ(m_storage.TryOpen(), RC_OK);
    const u32 before = CallCount(SystemCall::kRead);
    ASSERT_EQ(m_storage.TryLoad(), RC_OK);
    const u32 reads = CallCount(SystemCall::kRead) - before;
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(4, 12)) << "a sound file loads through it";
    EXPECT_EQ(m_log.CountContaining("loading without it"), 0U) << m_log;
    m_storage.Close();
    WriteBytes(IndexPath(m_storage), m_stale);
    m_log.Clear();
    ASSERT_EQ(m_storage.TryOpen(), RC_OK);
    Fail(SystemCall::kRead, reads - 1,  // behind it the old index is read
         SystemErrorKind::kInputOutput);
    ASSERT_EQ(m_storage.TryLoad(), RC_SYSTEM_ERROR) << m_log;
    EXPECT_EQ(m_log.CountContaining("Load with the index failed"), 0U) << m_log;
    EXPECT_EQ(m_storage.TryLoad(), RC_OK);
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(4, 12));
}

// --- What it saves -------------------------------------------------------------------------------

// Counts the memory blocks for 1000 bytes that are in use, and how many were at once.
class BlockMeter : CallLayer<BlockMeter> {
  public:
    BlockMeter() {
        Take<&CallTable::allocMemory, &BlockMeter::Alloc>();
        Take<&CallTable::freeMemory, &BlockMeter::Free>();
    }
    void Restart() { m_most = 0; }
    std::size_t MostLive() const { return m_most; }

  private:
    friend CallLayer<BlockMeter>;
    void* Alloc(std::size_t size) {
        void* const memory = Below().allocMemory(size);
        const std::lock_guard lock(m_mutex);
        if (size == 1000 + kBlockOverhead + BlockNotes::MemorySize(1000)) {
            m_live.insert(memory);
            m_most = std::max(m_most, m_live.size());
        }
        return memory;
    }
    void Free(void* memory) {
        {
            const std::lock_guard lock(m_mutex);
            m_live.erase(memory);
        }
        Below().freeMemory(memory);
    }

    std::mutex m_mutex;
    std::set<void*> m_live;
    std::size_t m_most = 0;
};

TEST(LoadOfALargeFile, HoldsNoMoreThanItsCacheWithoutAnIndex) {
    BlockMeter meter;
    TestStorage storage(
        "block_size=1000;cache_type=Last3;memory_reserve=1;"
        "flush_mode=PerTrans;flush_trans_num=1;read_buffers_count=1");
    for (u32 n = 0; n < 500; ++n) {
        storage.InsertCommitted({std::string(900, 'a'), std::string(900, 'b')});
    }
    storage.Close();
    ASSERT_TRUE(platform::RemoveFile(IndexPath(storage)));
    meter.Restart();
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_LE(meter.MostLive(), 3U + 2U + 1U);
    EXPECT_EQ(EntriesInMemory(storage).size(), 1000U);
    EXPECT_EQ(storage.Records().size(), 1000U);
}

}  // namespace
}  // namespace k9erepl::test
