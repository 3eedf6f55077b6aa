// The notes of a memory block: which records they name, how a search uses them, and what every cut
// leaves of them.
#include "memory/block_notes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "format/storage_file_format.h"

namespace k9erepl::test {
namespace {

// A block for 64 KiB of records, into which a test "places" records of 1,000 bytes: only their
// places count here. Their revisions are 10, 20, ...
class BlockNotesTest : public ::testing::Test {
  protected:
    static constexpr u32 kBlockSize = 64 * 1024;
    static constexpr u32 kSize = 1000;

    BlockNotesTest() {
        std::memset(m_memory.get(), 0xEE, kBytes);
        std::memset(m_memory.get(), 0, kZeroedHeadSize);
        m_notes.Reset();
    }

    // As the block store does; the first lies at `fileOffset`, and the others follow it.
    void Place(u32 count, i64 fileOffset = kUnknownOffset) {
        for (; count > 0; --count) {
            if (m_block.used == 0) {
                m_block.fileBase = fileOffset;
            }
            if (m_block.used + kSize > m_block.roomEnd) {
                m_notes.Add(NextRev(), fileOffset);
            }
            m_block.used += kSize;
            fileOffset += fileOffset == kUnknownOffset ? 0 : kSize;
        }
    }
    i64 NextRev() const { return static_cast<i64>(m_block.used / kSize + 1) * 10; }
    std::vector<u32> Offsets() const {
        std::vector<u32> offsets;
        for (u32 i = 0; i < m_notes.Count(); ++i) {
            offsets.push_back(m_notes.Notes()[i].offset);
        }
        return offsets;
    }
    std::vector<u32> Shifts() const {
        std::vector<u32> shifts;
        for (u32 i = 0; i < m_notes.Count(); ++i) {
            shifts.push_back(m_notes.Notes()[i].fileShift);
        }
        return shifts;
    }

    static constexpr u32 kBytes = kBlockSize + kBlockOverhead + BlockNotes::MemorySize(kBlockSize);
    static constexpr u32 kUnknown = BlockNotes::kUnknownShift;
    std::unique_ptr<u64[]> m_memory{new u64[kBytes / sizeof(u64) + 1]};
    K9eReplBlock& m_block{*std::launder(reinterpret_cast<K9eReplBlock*>(m_memory.get()))};
    BlockNotes m_notes{m_block, kBlockSize};
};

using Numbers = std::vector<u32>;

TEST_F(BlockNotesTest, TakeAtMostHalfAPercentOfABlock) {
    for (const u32 size : {138U, 8191U, 8192U, 8193U, 65'537U, 1'048'672U, 4'000'000'000U}) {
        EXPECT_LE(u64{BlockNotes::MemorySize(size)} * 200, size) << size;
    }
    EXPECT_EQ(BlockNotes::MemorySize(138), 0U);
    EXPECT_EQ(BlockNotes::MemorySize(8191), 0U);
    EXPECT_EQ(BlockNotes::MemorySize(8192), 16U);
    EXPECT_EQ(BlockNotes::MemorySize(1'048'672), 256U * 16);
}

TEST_F(BlockNotesTest, ABlockWhoseNotesWouldNotFit32BitsHasNone) {
    const u32 largest = std::numeric_limits<u32>::max() - kBlockOverhead;
    EXPECT_EQ(BlockNotes::MemorySize(largest), 0U);
    EXPECT_EQ(BlockNotes::Most(largest), 0U);
}

TEST_F(BlockNotesTest, ANewBlockHasNone) {
    EXPECT_EQ(m_notes.Count(), 0U);
    EXPECT_EQ(m_notes.Find(1'000), nullptr);
    EXPECT_EQ(m_block.roomEnd, 4096U);
}

TEST_F(BlockNotesTest, NameTheFirstRecordOfEachInterval) {
    Place(16);
    EXPECT_EQ(Offsets(), Numbers({5000, 10'000, 15'000}));
    EXPECT_EQ(m_notes.Notes()[0].rev, 60);
    EXPECT_EQ(m_notes.Notes()[2].rev, 160);
}

TEST_F(BlockNotesTest, FillTheirPlaceExactlyHoweverSmallTheRecordsAre) {
    while (m_block.used < kBlockSize) {
        m_block.used += m_block.used < m_block.roomEnd ? 1 : 0;
        if (m_block.used == m_block.roomEnd && m_block.used < kBlockSize) {
            m_notes.Add(static_cast<i64>(m_block.used), kUnknownOffset);
        }
    }
    EXPECT_EQ(m_notes.Count(), BlockNotes::Most(kBlockSize));
    EXPECT_EQ(m_block.roomEnd, kBlockSize);
}

TEST_F(BlockNotesTest, FindTheLastNoteThatIsNotAboveARevision) {
    Place(16);
    EXPECT_EQ(m_notes.Find(59), nullptr);
    EXPECT_EQ(m_notes.Find(60)->offset, 5000U);
    EXPECT_EQ(m_notes.Find(109)->offset, 5000U);
    EXPECT_EQ(m_notes.Find(110)->offset, 10'000U);
    EXPECT_EQ(m_notes.Find(5'000)->offset, 15'000U);
}

TEST_F(BlockNotesTest, ACutForgetsTheNotesBehindItAndOthersFollow) {
    Place(16);
    m_block.used = 10'000;
    m_notes.CutTo(10'000);
    EXPECT_EQ(Offsets(), Numbers({5000}));
    EXPECT_EQ(m_block.roomEnd, 5000U + 4096U);
    Place(6);
    EXPECT_EQ(Offsets(), Numbers({5000, 10'000, 15'000}));
}

TEST_F(BlockNotesTest, ACutOfTheFrontMovesTheOthers) {
    Place(16);
    m_block.used -= 5000;
    m_notes.CutFront(5000, 9000, 5000);
    EXPECT_EQ(Offsets(), Numbers({5000, 10'000}));
    EXPECT_EQ(m_notes.Notes()[0].rev, 110);
    EXPECT_EQ(m_block.fileBase, 9000);
}

TEST_F(BlockNotesTest, NeverBecomeMoreThanThereIsRoomFor) {
    Place(65);
    m_block.used -= 4000;
    m_notes.CutFront(4000, 9000, 4000);
    for (int i = 0; i < 3; ++i) {
        Place((kBlockSize - static_cast<u32>(m_block.used)) / kSize);
        EXPECT_LE(m_notes.Count(), BlockNotes::Most(kBlockSize));
        m_block.used -= 4000;
        m_notes.CutFront(4000, 9000, 4000);
    }
}

TEST_F(BlockNotesTest, KnowWhereRecordsLieThatWereLoaded) {
    Place(8, 5000);
    Place(8, 5000 + 8 * kSize + 32);  // behind a commit block
    EXPECT_EQ(Shifts(), Numbers({0, 32, 32}));
}

TEST_F(BlockNotesTest, KnowWhereRecordsLieOnceTheyAreWritten) {
    Place(16);
    EXPECT_EQ(Shifts(), Numbers({kUnknown, kUnknown, kUnknown}));
    m_notes.Written(0, 3000, 7000);
    m_notes.Written(3000, 10'000, 10'032);
    EXPECT_EQ(Shifts(), Numbers({32, kUnknown, kUnknown}));
    m_notes.Written(10'000, 16'000, 17'064);
    EXPECT_EQ(Shifts(), Numbers({32, 64, 64}));
    m_notes.Undone(10'000);
    EXPECT_EQ(Shifts(), Numbers({32, kUnknown, kUnknown}));
}

TEST_F(BlockNotesTest, DoNotKnowWhereRecordsLieBehindAnUnknownPlace) {
    Place(16);
    m_notes.Written(3000, 16'000, 10'032);
    EXPECT_EQ(Shifts(), Numbers({kUnknown, kUnknown, kUnknown}));
}

TEST_F(BlockNotesTest, CountFromTheFirstRecordThatACutOfTheFrontLeaves) {
    Place(16);
    m_notes.Written(0, 3000, 7000);
    m_notes.Written(3000, 16'000, 10'032);
    // The first record that stays is the one at 4,000, which lies at 11,032 in the file.
    m_notes.CutFront(4000, 11'032, 4032);
    EXPECT_EQ(Offsets(), Numbers({1000, 6000, 11'000}));
    EXPECT_EQ(Shifts(), Numbers({0, 0, 0}));
}

}  // namespace
}  // namespace k9erepl::test
