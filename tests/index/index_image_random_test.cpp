// Random growth, clearing and saving of a block index: after every save the file is what a save
// from nothing would have made of it.
#include <gtest/gtest.h>

#include <random>

#include "index/index_fixture.h"
#include "index/index_image.h"

namespace k9erepl::test {
namespace {

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
