// The image of the index file: what a save takes in, and which bytes it must write. Random growth,
// clearing and saving of a block index: after every save the file is what a save from nothing would
// have made of it.
#include "index/index_image.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <random>

#include "index/index_fixture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

class IndexImageTest : public ::testing::Test {
  protected:
    IndexUpdate Update() { return m_image.Update(m_blocks.Index()); }

    void Write(IndexImage& image) {
        WriteImage(image, &m_file);
        image.MarkSaved();
    }
    void Save() {
        ASSERT_EQ(Update(), IndexUpdate::kChanged);
        Write(m_image);
    }

    ScopedSystemCalls m_systemCalls;
    Blocks m_blocks;
    IndexImage m_image{kBlockSize};
    std::vector<u8> m_file = IndexFileBytes({});
};

TEST_F(IndexImageTest, BeginsAsAHeaderWithoutEntriesAndStandsForThatAfterReset) {
    for (const bool reset : {false, true}) {
        if (reset) {
            m_blocks.AddMany(3);
            Save();
            m_image.Reset();
        }
        EXPECT_TRUE(m_image.IsWhole());
        m_file.assign(m_image.Whole(), m_image.Whole() + m_image.WholeSize());
        EXPECT_EQ(m_file, IndexFileBytes({}));
    }
    Save();
    EXPECT_EQ(EntriesOf(m_file), m_blocks.All());
}

TEST_F(IndexImageTest, WritesFromTheLastSavedEntryOnAtLaterSaves) {
    m_blocks.Add(1, 1056).Add(40, 66000);
    ASSERT_EQ(Update(), IndexUpdate::kChanged);
    EXPECT_TRUE(m_image.IsWhole());
    Write(m_image);
    EXPECT_EQ(m_file, IndexFileBytes({{1, 1056}, {40, 66000}}));
    m_blocks.Add(95, 131000);
    ASSERT_EQ(Update(), IndexUpdate::kChanged);
    EXPECT_FALSE(m_image.IsWhole());
    EXPECT_EQ(m_image.TailOffset(), 48U);
    EXPECT_EQ(m_image.TailSize(), 32U);
    Write(m_image);
    EXPECT_EQ(m_file, IndexFileBytes({{1, 1056}, {40, 66000}, {95, 131000}}));
}

TEST_F(IndexImageTest, SaysUnchangedWhenNothingIsNew) {
    EXPECT_EQ(Update(), IndexUpdate::kUnchanged);
    m_blocks.Add(1, 1056).Add(40, 66000);
    Save();
    EXPECT_EQ(Update(), IndexUpdate::kUnchanged);
    m_blocks.AddInMemory(95, -1).AddEmpty(96);
    EXPECT_EQ(Update(), IndexUpdate::kUnchanged);
    m_blocks.SetOffset(95, 131000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {40, 66000}, {95, 131000}}));
}

TEST_F(IndexImageTest, StopsAtTheFirstBlockThatIsNotInTheFile) {
    m_blocks.AddInMemory(1, 1056).AddInMemory(40, -1).AddInMemory(95, 131000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}}));
    m_blocks.SetOffset(40, 66000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {40, 66000}, {95, 131000}}));
}

TEST_F(IndexImageTest, KeepsTheLaterOfTwoEntriesWithOneOffset) {
    m_blocks.Add(1, 1056).Add(30, 66000).Add(40, 66000).Add(41, 66000).Add(95, 131000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {41, 66000}, {95, 131000}}));
    m_blocks.Add(96, 131000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {41, 66000}, {96, 131000}}));
    EXPECT_EQ(Update(), IndexUpdate::kUnchanged);
}

TEST_F(IndexImageTest, PassesOverEntriesWhoseOffsetFalls) {
    m_blocks.Add(1, 66000).Add(2, 1056).Add(3, 70000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 66000}, {3, 70000}}));
    m_blocks.Add(4, 69999).Add(5, 80000);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 66000}, {3, 70000}, {5, 80000}}));
}

TEST_F(IndexImageTest, LeavesOutRevisionsThatNoRecordCanHave) {
    m_blocks.Add(-5, 10).Add(0, 20).Add(1, 1056);
    Save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}}));
}

TEST_F(IndexImageTest, WritesEverythingWhenTheLastSavedBlockHasMoved) {
    m_blocks.Add(1, 66000).Add(40, 131000);
    Save();
    m_blocks.SetOffset(1, 1056);
    m_blocks.SetOffset(40, 66056);
    ASSERT_EQ(Update(), IndexUpdate::kChanged);
    EXPECT_TRUE(m_image.IsWhole());
    Write(m_image);
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {40, 66056}}));
}

TEST_F(IndexImageTest, WritesEverythingAfterStartOverAlsoWhenNothingIsLeft) {
    m_blocks.Add(1, 1056).Add(40, 66000).Add(95, 131000);
    Save();
    m_blocks.Remove(1);
    m_image.StartOver();
    ASSERT_EQ(Update(), IndexUpdate::kChanged);
    EXPECT_TRUE(m_image.IsWhole());
    Write(m_image);
    EXPECT_EQ(EntriesOf(m_file), (Entries{{40, 66000}, {95, 131000}}));
    m_blocks.Clear();
    Save();
    EXPECT_EQ(m_file, IndexFileBytes({}));
    EXPECT_EQ(Update(), IndexUpdate::kUnchanged);
    m_image.StartOver();
    Save();
    EXPECT_EQ(m_file, IndexFileBytes({}));
}

TEST_F(IndexImageTest, TakesInAtEachSaveOnlyWhatIsNew) {
    constexpr u32 kNewBlocks = 50;
    m_blocks.AddMany(200'000);
    Save();
    const u64 newCalls = NewCallsOfThisThread();
    const u32 allocations = CallCount(SystemCall::kAlloc);
    for (u32 i = 0; i < 20; ++i) {
        m_blocks.AddMany(kNewBlocks);
        const u64 beforeUpdate = NewCallsOfThisThread();
        ASSERT_EQ(Update(), IndexUpdate::kChanged);
        EXPECT_EQ(m_image.TailSize(), (kNewBlocks + 1) * sizeof(TIndexEntry));
        EXPECT_EQ(NewCallsOfThisThread(), beforeUpdate);
        Write(m_image);
    }
    EXPECT_GT(NewCallsOfThisThread(), newCalls);  // those of the block index: they are counted
    EXPECT_EQ(CallCount(SystemCall::kAlloc), allocations);
    EXPECT_EQ(EntriesOf(m_file), m_blocks.All());
}

TEST_F(IndexImageTest, GivesTheMemoryOfALargeSaveBack) {
    static u32 s_frees = 0;
    s_frees = 0;
    platform::TheSystemCalls().freeMemory = [](void* memory) {
        s_frees += memory != nullptr ? 1 : 0;
        platform::NativeSystemCalls().freeMemory(memory);
    };
    m_blocks.AddMany(100'000);
    const u32 allocations = CallCount(SystemCall::kAlloc);
    Save();
    EXPECT_GT(CallCount(SystemCall::kAlloc), allocations);
    EXPECT_EQ(s_frees, CallCount(SystemCall::kAlloc) - allocations);
    EXPECT_EQ(EntriesOf(m_file), m_blocks.All());
}

TEST_F(IndexImageTest, BeginsAnewAfterMemoryRanOut) {
    m_blocks.AddMany(10);
    Save();
    m_blocks.AddMany(1000);
    FailAlloc(1);
    EXPECT_EQ(Update(), IndexUpdate::kNoMemory);
    ASSERT_EQ(Update(), IndexUpdate::kChanged);
    EXPECT_TRUE(m_image.IsWhole());
    Write(m_image);
    EXPECT_EQ(EntriesOf(m_file), m_blocks.All());
}

TEST_F(IndexImageTest, TakesInNoMoreEntriesThanAFileMayHave) {
    IndexImage image(kBlockSize, 3);
    const auto save = [&] {
        ASSERT_EQ(image.Update(m_blocks.Index()), IndexUpdate::kChanged);
        Write(image);
    };
    m_blocks.Add(1, 1056).Add(2, 2000);
    save();
    m_blocks.Add(3, 3000).Add(4, 3000).Add(5, 4000);
    save();
    EXPECT_EQ(EntriesOf(m_file), (Entries{{1, 1056}, {2, 2000}, {4, 3000}})) << "one offset";
    EXPECT_EQ(image.Update(m_blocks.Index()), IndexUpdate::kUnchanged);
}

// What belongs into the file, found without an image.
Entries Expected(const BlockIndex& index) {
    Entries entries;
    for (const auto& [rev, entry] : index) {
        if (entry.IsEmptyBlock()) {
            continue;
        }
        if (entry.fileOffset < 0) {
            break;
        }
        if (!entries.empty() && entries.back().second == entry.fileOffset) {
            entries.pop_back();
        }
        entries.emplace_back(rev, entry.fileOffset);
    }
    return entries;
}

class Simulation {
  public:
    explicit Simulation(u32 seed) : m_random(seed) {}

    void Step() {
        switch (Pick(8)) {
            case 0:
                m_blocks.AddEmpty(NextRev());
                break;
            case 1:
                m_blocks.Add(NextRev(), m_offset);  // a clear into a gap
                break;
            case 2:
                ClearFirst();
                break;
            case 3:
                CutLast();
                break;
            case 4:
                Flush();
                break;
            default:
                m_blocks.AddInMemory(NextRev(), Pick(4) == 0 ? -1 : NextOffset());
                break;
        }
        Save();
    }

  private:
    u32 Pick(u32 end) { return static_cast<u32>(m_random() % end); }
    i64 NextRev() { return m_rev += 1 + Pick(100); }
    i64 NextOffset() { return m_offset += 1 + Pick(70'000); }

    // Old entries change: the image has to be told.
    void ClearFirst() {
        if (Pick(4) == 0 && !m_blocks.Index().empty()) {
            m_blocks.Remove(m_blocks.Index().begin()->first);
            m_image.StartOver();
        }
    }

    void CutLast() {
        if (Pick(4) == 0 && !m_blocks.Index().empty()) {
            m_blocks.RemoveFrom(m_blocks.Index().rbegin()->first);
        }
    }

    void Flush() {
        for (const auto& [rev, entry] : m_blocks.Index()) {
            if (entry.fileOffset < 0 && !entry.IsEmptyBlock()) {
                FlushFrom(rev);
                return;
            }
        }
    }

    // Blocks come into the file in their order.
    void FlushFrom(i64 rev) {
        std::vector<i64> revs;
        for (auto it = m_blocks.Index().find(rev); it != m_blocks.Index().end(); ++it) {
            if (!it->second.IsEmptyBlock()) {
                revs.push_back(it->first);
            }
        }
        for (const i64 each : revs) {
            m_blocks.SetOffset(each, NextOffset());
        }
    }

    void Save() {
        const IndexUpdate update = m_image.Update(m_blocks.Index());
        if (update == IndexUpdate::kUnchanged) {
            EXPECT_EQ(m_file, IndexFileBytes(Expected(m_blocks.Index())));
            return;
        }
        ASSERT_EQ(update, IndexUpdate::kChanged);
        WriteImage(m_image, &m_file);
        m_image.MarkSaved();
        EXPECT_EQ(EntriesOf(m_file), Expected(m_blocks.Index()));
    }

    std::mt19937 m_random;
    Blocks m_blocks;
    i64 m_rev = 0;
    i64 m_offset = 1056;
    IndexImage m_image{kBlockSize};
    std::vector<u8> m_file = IndexFileBytes({});
};

TEST(IndexImageRandom, EverySaveGivesTheFileOfASaveFromNothing) {
    for (u32 seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        Simulation simulation(seed);
        for (u32 step = 0; step < 300 && !::testing::Test::HasFailure(); ++step) {
            simulation.Step();
        }
    }
}

}  // namespace
}  // namespace k9erepl::test
