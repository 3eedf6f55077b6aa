// Loading through an index file: a good one saves reading, and none, whatever it says, changes what
// is loaded.
#include <gtest/gtest.h>

#include <limits>
#include <optional>

#include "engine/load_fixture.h"
#include "platform/file_names.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

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
        WriteIndex(m_storage, m_entries);
        m_log.Clear();
    }
    void LoadWith(const IndexEntries& entries, u32 blockSize = 138) {
        WriteIndex(m_storage, entries, blockSize);
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
    }
    // The storage is what it is without an index, and its index is right again.
    void ExpectContent() {
        EXPECT_EQ(ModelOf(m_storage.Records()), m_model) << m_log;
        EXPECT_EQ(m_storage.NextRev(), kCount + 1);
        EXPECT_EQ(StorageAccess::OldestRev(m_storage.Object()), 0);
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
    void ExpectDropped(std::string_view warning) {
        ExpectContent();
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, warning)) << m_log;
        EXPECT_GE(Loaded(), static_cast<std::size_t>(kCount));
    }
    void ExpectTestFailedAt(i64 offset) {
        ExpectContent();
        EXPECT_EQ(m_log.CodeOf("Index test failed at offset " + std::to_string(offset)),
                  RC_NOT_FOUND)
            << m_log;
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, kDoesNotFit)) << m_log;
        EXPECT_EQ(Loaded(), static_cast<std::size_t>(kCount));
    }

    static constexpr std::string_view kDoesNotFit =
        "Index does not fit the storage file; loading without it";
    static constexpr std::string_view kLeadsAstray =
        "Index does not lead to all kept records; loading without it";

    TestStorage m_storage{SmallCache(2)};
    LogCapture m_log;
    IndexEntries m_entries;
    Model m_model;
};

TEST_F(LoadThroughIndex, ReadsTheLastBlocksOnly) {
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    ExpectUsed(OffsetOf(18));
    EXPECT_EQ(Loaded(), 3U);
    EXPECT_EQ(EntriesInMemory(m_storage), m_entries);
    EXPECT_TRUE(m_log.Has("Index test started; cnt 18")) << m_log;
}

TEST_F(LoadThroughIndex, FindsTheOtherBlocksOnDisk) {
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    ExpectEveryRange(m_storage, m_model, kCount);
}

TEST_F(LoadThroughIndex, ReadsEverythingWhenEverythingIsKept) {
    m_storage.Use(std::string(kEachCommit) + "cache_type=AllInMem");
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    ExpectUsed(1056);
    EXPECT_EQ(Loaded(), 20U);
    EXPECT_TRUE(m_log.Has("Index test started; cnt 1")) << m_log;
}

TEST_F(LoadThroughIndex, OfAnotherBlockSizeReadsAsManyBytesAsTheCacheHolds) {
    LoadWith(m_entries, 69);
    ExpectUsed(OffsetOf(16));
    m_storage.Close();
    LoadWith(m_entries, 1000);
    ExpectUsed(OffsetOf(20));
}

TEST_F(LoadThroughIndex, OfAnyBlockSizeThatIsNotZeroLoadsTheSame) {
    for (const u32 size : {1U, 2U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        LoadWith(m_entries, size);
        ExpectContent();
        m_storage.Close();
    }
}

TEST_F(LoadThroughIndex, WithGapsBetweenItsEntriesLoadsTheSame) {
    LoadWith({{1, OffsetOf(1)}, {4, OffsetOf(4)}, {11, OffsetOf(11)}, {20, OffsetOf(20)}});
    ExpectUsed(OffsetOf(4));
    ExpectEveryRange(m_storage, m_model, kCount);
}

TEST_F(LoadThroughIndex, WithoutEntriesReadsTheWholeFile) {
    LoadWith({});
    ExpectContent();
    EXPECT_EQ(Loaded(), 20U);
    EXPECT_EQ(m_log.CountContaining("Index test"), 0U);
}

TEST_F(LoadThroughIndex, WithASizeFieldOfZeroLoadsWithoutIt) {
    LoadWith(m_entries, 0);
    ExpectDropped(kDoesNotFit);
}

TEST_F(LoadThroughIndex, WithAnOffsetBeyondTheFileLoadsWithoutIt) {
    for (const i64 offset : {OffsetOf(21), OffsetOf(21) - 23, kMaxI64}) {
        m_entries.back().second = offset;
        WriteIndex(m_storage, m_entries);
        m_log.Clear();
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, kDoesNotFit)) << offset;
        EXPECT_EQ(ModelOf(m_storage.Records()), m_model);
        m_storage.Close();
    }
}

TEST_F(LoadThroughIndex, WithAnOffsetBeforeTheFirstItemLoadsWithoutIt) {
    const auto first = m_entries.front();
    for (const i64 offset : {0, 1024, 1055}) {
        m_entries.front().second = offset;
        WriteIndex(m_storage, m_entries);
        m_log.Clear();
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, kDoesNotFit)) << offset;
        EXPECT_EQ(EntriesInMemory(m_storage).front(), first);
        m_storage.Close();
    }
}

TEST_F(LoadThroughIndex, WithAWrongFirstRevisionLoadsWithoutIt) {
    m_entries.erase(m_entries.begin());
    m_entries.front() = {3, OffsetOf(2)};
    m_entries.erase(m_entries.begin() + 1);
    WriteIndex(m_storage, m_entries);
    m_entries.front() = {1, OffsetOf(1)};
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    ExpectTestFailedAt(OffsetOf(2));
}

TEST_F(LoadThroughIndex, WithAWrongFirstRevisionLoadsWithoutItAlsoWhenEverythingIsKept) {
    m_storage.Use(std::string(kEachCommit) + "cache_type=AllInMem");
    m_entries.front().second = OffsetOf(1) + 24;
    WriteIndex(m_storage, m_entries);
    m_entries.front().second = OffsetOf(1);
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    ExpectTestFailedAt(OffsetOf(1) + 24);
}

TEST_F(LoadThroughIndex, WithAnEntryThatPointsToAnotherRevisionLoadsWithoutIt) {
    m_entries.erase(m_entries.begin() + 9);
    m_entries.at(9).first -= 1;
    LoadWith(m_entries);
    ExpectTestFailedAt(OffsetOf(11));
}

TEST_F(LoadThroughIndex, WithAWrongStartEntryLoadsWithoutIt) {
    m_entries.at(17).second += 24;
    LoadWith(m_entries);
    ExpectTestFailedAt(OffsetOf(18) + 24);
}

TEST_F(LoadThroughIndex, WithoutItsFirstEntriesLoadsWithoutIt) {
    LoadWith(IndexEntries(m_entries.begin() + 1, m_entries.end()));
    ExpectDropped(kLeadsAstray);
}

TEST_F(LoadThroughIndex, WithoutItsFirstEntriesLoadsWithoutItAlsoWhenEverythingIsKept) {
    m_storage.Use(std::string(kEachCommit) + "cache_type=AllInMem");
    LoadWith(IndexEntries(m_entries.begin() + 5, m_entries.end()));
    ExpectDropped(kLeadsAstray);
}

TEST_F(LoadThroughIndex, WithItsLastEntryAloneLoadsWithoutIt) {
    LoadWith({m_entries.back()});
    ExpectDropped(kLeadsAstray);
}

// The last commit block is torn off, and the index begins where only its records are left.
TEST_F(LoadThroughIndex, ThatLeadsToNoCommitBlockLoadsWithoutIt) {
    ResizeFile(m_storage.Path(), OffsetOf(21) - 32);
    WriteIndex(m_storage, m_entries, 1'000'000);
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    EXPECT_TRUE(m_log.Has("Try to delete index file")) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, kLeadsAstray)) << m_log;
    m_model.erase(20);
    EXPECT_EQ(ModelOf(m_storage.Records()), m_model);
    EXPECT_EQ(m_storage.NextRev(), 20);
    m_entries.pop_back();
    EXPECT_EQ(ReadIndexEntries(m_storage), m_entries);
}

TEST_F(LoadThroughIndex, OfAnEmptyFileLoadsWithoutIt) {
    FileBuilder().NewFile().Zeros(500).Save(m_storage.Path());
    LoadWith({{1, 1056}});
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, "Empty file detected with non-empty index"));
    EXPECT_TRUE(m_storage.Records().empty());
    EXPECT_EQ(m_storage.NextRev(), 1);
    EXPECT_TRUE(ReadIndexEntries(m_storage).empty());
}

TEST_F(LoadThroughIndex, ThatBeginsBelowTheFilesLowestRevisionLoadsWithoutIt) {
    FileBuilder().Header().Commit(0, 5).Record(3, "below").Commit(0, 6).Save(m_storage.Path());
    LoadWith({{3, 1056}});
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, "Revision check failed before load")) << m_log;
    EXPECT_TRUE(m_storage.Records().empty());
    EXPECT_EQ(m_storage.NextRev(), 6);
}

TEST_F(LoadThroughIndex, OfAnotherStorageLoadsWithoutIt) {
    TestStorage other(SmallCache(2));
    other.InsertMany(200);
    WriteBytes(IndexPath(m_storage), ReadBytes(IndexPath(other)));
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    ExpectContent();
}

TEST_F(LoadThroughIndex, ThatIsMissingReadsTheWholeFile) {
    ASSERT_TRUE(platform::RemoveFile(IndexPath(m_storage)));
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    ExpectContent();
    EXPECT_EQ(Loaded(), 20U);
}

// --- Damaged index files

TEST_F(LoadThroughIndex, CutAnywhereLoadsTheSame) {
    const std::vector<u8> bytes = IndexBytes({m_entries.begin(), m_entries.begin() + 5});
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        WriteBytes(IndexPath(m_storage), {bytes.data(), size});
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << size;
        ExpectContent();
        m_storage.Close();
        ASSERT_FALSE(HasFailure()) << size;
    }
}

TEST_F(LoadThroughIndex, WithAnyBitFlippedLoadsTheSame) {
    const std::vector<u8> good = IndexBytes({m_entries.begin(), m_entries.begin() + 3});
    for (std::size_t bit = 0; bit < good.size() * 8; bit += RunsAsynchronously() ? 23 : 1) {
        std::vector<u8> bytes = good;
        bytes[bit / 8] = static_cast<u8>(bytes[bit / 8] ^ (1U << bit % 8));
        WriteBytes(IndexPath(m_storage), bytes);
        m_log.Clear();
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << bit;
        ExpectContent();
        m_storage.Close();
        ASSERT_FALSE(HasFailure()) << bit;
    }
}

// --- What it saves

TEST(LoadOfALargeFile, ReadsOnlyItsTailThroughAnIndex) {
    ReadMeter meter;
    TestStorage storage(
        "block_size=100000;cache_type=Last2;flush_mode=PerTrans;"
        "flush_trans_num=1;read_buffers_count=1");
    for (u32 n = 0; n < 200; ++n) {
        ASSERT_EQ(storage.Insert(std::string(49000, 'x')), RC_OK);
    }
    storage.Reopen();  // saves the whole index
    storage.Close();
    meter.Restart();
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    const u64 withIndex = meter.Bytes();
    EXPECT_GT(withIndex, 3U * 98000);
    EXPECT_LT(withIndex, 3U * 100000 + 20000);
    storage.Close();
    ASSERT_TRUE(platform::RemoveFile(IndexPath(storage)));
    meter.Restart();
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_GT(meter.Bytes(), 200U * 49000);
}

TEST(LoadOfALargeFile, HoldsNoMoreThanItsCacheWithoutAnIndex) {
    std::optional<BlockMeter> meter(1000);
    TestStorage storage(
        "block_size=1000;cache_type=Last3;memory_reserve=1;"
        "flush_mode=PerTrans;flush_trans_num=1;read_buffers_count=1");
    for (u32 n = 0; n < 500; ++n) {
        storage.InsertCommitted({std::string(900, 'a'), std::string(900, 'b')});
    }
    storage.Close();
    ASSERT_EQ(meter->Live(), 0U);
    ASSERT_TRUE(platform::RemoveFile(IndexPath(storage)));
    meter.reset();  // one of a kind at a time
    meter.emplace(1000);
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_LE(meter->MostLive(), 3U + 2U + 1U);
    EXPECT_EQ(EntriesInMemory(storage).size(), 1000U);
    EXPECT_EQ(storage.Records().size(), 1000U);
    storage.Close();  // ends its thread, which uses the calls that the meter puts back
}

}  // namespace
}  // namespace k9erepl::test
