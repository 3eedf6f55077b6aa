// The choices of a load: which entries of an index are tested, where reading begins, and what the
// test of the index samples and says.
#include "engine/load_plan.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>

#include "engine/index_test.h"
#include "engine/load_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr u32 kMaxU32 = std::numeric_limits<u32>::max();

// `count` entries, revisions 1, 11, 21 ..., offsets 1056, 2056, ...
IndexFileContent IndexOf(std::size_t count, u32 blockSize = 1000) {
    IndexFileContent index;
    index.blockSize = blockSize;
    for (std::size_t i = 0; i < count; ++i) {
        const auto n = static_cast<i64>(i);
        index.entries.push_back({.rev = 1 + 10 * n, .offset = 1056 + 1000 * n});
    }
    return index;
}

OpenSettings LastN(u32 blocks, u32 blockSize = 1000) {
    OpenSettings settings;
    settings.cacheBlocks = blocks;
    settings.blockSize = blockSize;
    return settings;
}

OpenSettings AllInMem() {
    OpenSettings settings;
    settings.cacheType = CacheType::kAllInMem;
    settings.cacheBlocks = 0;
    return settings;
}

TEST(IndexChoice, BeginsSoManyBlocksFromTheEndAsTheCacheKeepsAndOneMore) {
    struct Case {
        std::size_t entries;
        u32 indexBlockSize;
        OpenSettings settings;
        std::size_t startEntry;
    };
    const Case cases[] = {{10, 1000, LastN(2), 7},
                          {10, 1000, LastN(8), 1},
                          {10, 1000, LastN(9), 0},
                          {10, 1000, LastN(10), 0},
                          {10, 1000, LastN(kMaxU32), 0},
                          {10, 1000, AllInMem(), 0},
                          // Another block size: bytes count.
                          {20, 500, LastN(2), 15},
                          {20, 400, LastN(2), 14},
                          {20, 2000, LastN(2), 18},
                          {20, 2001, LastN(2), 19},
                          {20, kMaxU32, LastN(2), 19},
                          {20, 1, LastN(kMaxU32, kMaxU32), 0},
                          {20, kMaxU32, LastN(1, kMaxU32), 18}};
    for (const Case& wanted : cases) {
        const IndexChoice choice =
            ChooseIndexUse(IndexOf(wanted.entries, wanted.indexBlockSize), wanted.settings);
        EXPECT_EQ(choice.startEntry, wanted.startEntry) << &wanted - cases;
        EXPECT_EQ(choice.testCount, wanted.startEntry + 1) << &wanted - cases;
    }
}

TEST(IndexChoice, OfAnIndexWithoutEntriesOrWithoutBlockSizeTestsNothing) {
    EXPECT_EQ(ChooseIndexUse(IndexOf(0), LastN(2)).testCount, 0U);
    EXPECT_EQ(ChooseIndexUse(IndexOf(10, 0), LastN(2)).testCount, 0U);
    EXPECT_EQ(ChooseIndexUse(IndexOf(10, 0), AllInMem()).testCount, 0U);
}

TEST(IndexFits, AFileThatReachesFromTheFirstItemToTheEndOfTheLastHead) {
    IndexFileContent index = IndexOf(3);
    EXPECT_TRUE(IndexFitsFile(index, 3056 + 24));
    EXPECT_FALSE(IndexFitsFile(index, 3056 + 23));
    EXPECT_FALSE(IndexFitsFile(index, 0));
    EXPECT_FALSE(IndexFitsFile(IndexOf(3, 0), 1'000'000)) << "no block size";
    EXPECT_FALSE(IndexFitsFile(IndexOf(0), 1'000'000)) << "no entries";
    for (const i64 offset : {0, 1024, 1055}) {
        index.entries.front().offset = offset;
        EXPECT_FALSE(IndexFitsFile(index, 1'000'000)) << offset;
    }
    index = IndexOf(3);
    index.entries.back().offset = kMaxI64;
    EXPECT_FALSE(IndexFitsFile(index, 1'000'000));
}

TEST(LoadPlan, KeepsTheEntriesBeforeTheStartOnDisk) {
    const LoadPlan plan = MakeLoadPlan(IndexOf(10), {.startEntry = 3, .testCount = 4});
    EXPECT_TRUE(plan.UsesIndex());
    EXPECT_EQ(plan.startOffset, 4056);
    ASSERT_EQ(plan.keptOnDisk.size(), 3U);
    EXPECT_EQ(i64{plan.keptOnDisk.back().rev}, 21);
    EXPECT_EQ(i64{plan.first.rev}, 1);
    EXPECT_EQ(i64{plan.first.offset}, 1056);
    EXPECT_FALSE(LoadPlan().UsesIndex()) << "without an index it begins with the first record";
    EXPECT_EQ(LoadPlan().startOffset, 0);
}

// --- The test of an index ------------------------------------------------------------------------

// A file of records without data, and the entry that each of them would have.
class IndexSampling : public ::testing::Test {
  protected:
    void MakeFile(i64 count) {
        const std::string path = m_folder.File("data");
        m_file.emplace();
        m_entries.clear();
        FileBuilder file;
        file.NewFile();
        for (i64 rev = 1; rev <= count; ++rev) {
            m_entries.push_back({.rev = rev, .offset = file.Size()});
            file.Record(rev);
        }
        file.Commit(0, count).Save(path);
        ASSERT_EQ(m_file->Open(path, "read_buffers_count=1"), RC_OK);
        m_log.Clear();
    }
    TIndexEntry& Entry(std::size_t n) { return m_entries.at(n); }
    u32 Test() { return TestIndex(*m_file, m_entries); }
    std::size_t Samples() const { return m_log.CountContaining("Checked rec rev "); }
    bool Sampled(i64 rev) const {
        return m_log.Has("Checked rec rev " + std::to_string(rev) + " at offset " +
                         std::to_string(1032 + 24 * rev));
    }
    void ExpectFailure(u32 rc, i64 offset) {
        m_log.Clear();
        EXPECT_EQ(Test(), rc);
        EXPECT_EQ(m_log.CodeOf("Index test failed at offset " + std::to_string(offset)), rc)
            << m_log;
    }

    ScopedSystemCalls m_systemCalls;
    TempFolder m_folder;
    LogCapture m_log;
    std::optional<CSolidStorage> m_file;
    std::vector<TIndexEntry> m_entries;
};

TEST_F(IndexSampling, LooksAtEveryEntryOfASmallSet) {
    MakeFile(5);
    SetPerformanceFrequency(1'000'000);
    SetPerformanceCounter(1);
    EXPECT_EQ(Test(), RC_OK);
    EXPECT_TRUE(m_log.Has("Index test started; cnt 5")) << m_log;
    EXPECT_EQ(Samples(), 5U);
    EXPECT_TRUE(Sampled(1) && Sampled(5)) << m_log;
    EXPECT_EQ(m_log.Messages().back().module, "***TP***");
    EXPECT_TRUE(m_log.Has("IndexTest-Total: 0.00 mcs  IndexTest-Rec: 0.00 mcs (5 x 0.00 mcs)  "))
        << m_log;
    Entry(0).rev = 9;
    m_log.Clear();
    EXPECT_EQ(Test(), RC_NOT_FOUND);
    EXPECT_EQ(m_log.CountContaining("IndexTest-Total"), 1U);
}

TEST_F(IndexSampling, LooksAtAboutThreeThousandOfALargeSet) {
    for (const auto& [count, samples] : {std::pair{3000, 3000U}, {3001, 3001U}, {6000, 3001U}}) {
        MakeFile(count);
        EXPECT_EQ(Test(), RC_OK);
        EXPECT_EQ(Samples(), samples);
    }
    EXPECT_TRUE(Sampled(1) && Sampled(2) && !Sampled(3) && Sampled(4));
    MakeFile(10000);
    EXPECT_EQ(Test(), RC_OK);
    EXPECT_NEAR(static_cast<double>(Samples()), 3000.0, 2.0);
    for (i64 rev = 1; rev <= 9997; rev += 501) {
        EXPECT_TRUE(Sampled(rev) || Sampled(rev + 1) || Sampled(rev + 2) || Sampled(rev + 3))
            << rev;
    }
}

TEST_F(IndexSampling, FailsAtADamagedEntryThatIsSampled) {
    MakeFile(6000);
    Entry(2).rev += 1;
    EXPECT_EQ(Test(), RC_OK) << "it is not sampled";
    Entry(5999).rev += 1;
    ExpectFailure(RC_NOT_FOUND, 1032 + 24 * 6000);
    Entry(3).rev += 1;
    ExpectFailure(RC_NOT_FOUND, 1128);
    EXPECT_EQ(Samples(), 2U);
    Entry(0).rev += 1;
    ExpectFailure(RC_NOT_FOUND, 1056);
}

TEST_F(IndexSampling, FailsWhereNoRecordLiesAndWithTheSystem) {
    MakeFile(5);
    FailRead(3);
    ExpectFailure(RC_SYSTEM_ERROR, 1104);
    FailSeek(1);
    ExpectFailure(RC_SYSTEM_ERROR, 1056);
    ShortRead(3, 10);
    ExpectFailure(RC_SHORT_READ, 1104);
    for (const i64 offset : {1024, 1057, 1055, 1176, 1176 + 31, 5000, -1}) {
        Entry(2).offset = offset;
        ExpectFailure(RC_NOT_FOUND, offset);
    }
}

}  // namespace
}  // namespace k9erepl::test
