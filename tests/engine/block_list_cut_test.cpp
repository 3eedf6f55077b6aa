// Cutting the block list at its ends: what a clear revision drops, what was never committed, and
// the first block under another key.
#include <gtest/gtest.h>

#include <cstring>

#include "engine/block_records.h"
#include "engine/load_fixture.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Blocks of two records of 45 bytes data (69 with their head).
class BlockListCut : public ::testing::Test {
  protected:
    static constexpr u32 kRecordSize = 69;

    BlockListCut() {
        m_pool.SetBlockSize(kMinBlockSize + kBlockOverhead);
        m_inserter.blocks = &m_list;
        m_inserter.capacity = kMinBlockSize;
    }
    ~BlockListCut() override { m_list.EraseAll(); }

    // Records `first` to `last`, the first of them at `offset` in the file.
    void Place(i64 first, i64 last, i64 offset = 5000) {
        for (i64 rev = first; rev <= last; ++rev, offset += kRecordSize) {
            Record record(std::string(45, static_cast<char>('a' + rev)), 0, rev);
            ASSERT_EQ(m_inserter.Place(*record.Get(), offset), RC_OK);
        }
    }
    void AddEmpty(i64 rev) { ASSERT_EQ(m_list.AddBlock(rev), RC_OK); }
    // The oldest `count` blocks leave memory.
    void Evict(std::size_t count) {
        ASSERT_EQ(m_list.Shrink(m_list.Blocks().size() - count, kEndOfRevs), RC_OK);
    }

    Revs IndexKeys() const { return Keys(m_list.Index()); }
    Revs MemoryKeys() const { return Keys(m_list.Blocks()); }
    Revs RecordsOf(i64 key) const {
        Revs revs;
        const K9eReplBlock& block = *m_list.Blocks().at(key);
        BlockRecord record;
        for (u64 at = 0; at < block.used; at += record.size) {
            EXPECT_TRUE(ReadBlockRecord(block, at, &record));
            EXPECT_EQ(record.rec->data[0], 'a' + i64{record.rec->rev});
            revs.push_back(i64{record.rec->rev});
        }
        return revs;
    }

    CBlocksPoolManager m_pool;
    BlockList m_list{m_pool};
    BlockInserter m_inserter;

  private:
    template <typename Map>
    static Revs Keys(const Map& map) {
        Revs keys;
        for (const auto& entry : map) {
            keys.push_back(entry.first);
        }
        return keys;
    }
};

TEST_F(BlockListCut, DropBelowForgetsTheBlocksThatEndBelow) {
    Place(1, 8);
    m_list.DropBelow(5);
    EXPECT_EQ(MemoryKeys(), Revs({5, 7}));
    EXPECT_EQ(IndexKeys(), Revs({5, 7}));
}

TEST_F(BlockListCut, DropBelowKeepsTheBlockThatHoldsTheRevision) {
    Place(1, 8);
    m_list.DropBelow(4);
    EXPECT_EQ(IndexKeys(), Revs({3, 5, 7}));
    EXPECT_EQ(RecordsOf(3), Revs({3, 4}));
}

TEST_F(BlockListCut, DropBelowTheFirstRecordKeepsEverything) {
    Place(1, 4);
    m_list.DropBelow(1);
    m_list.DropBelow(-7);
    EXPECT_EQ(IndexKeys(), Revs({1, 3}));
}

TEST_F(BlockListCut, DropBelowAboveTheLastRecordForgetsEverything) {
    Place(1, 8);
    Evict(2);
    m_list.DropBelow(9);
    EXPECT_TRUE(MemoryKeys().empty());
    EXPECT_TRUE(IndexKeys().empty());
}

TEST_F(BlockListCut, DropBelowForgetsBlocksThatAreOnlyInTheFile) {
    Place(1, 8);
    Evict(3);
    m_list.DropBelow(5);
    EXPECT_EQ(IndexKeys(), Revs({5, 7}));
    m_list.DropBelow(6);
    EXPECT_EQ(IndexKeys(), Revs({5, 7}));
    m_list.DropBelow(7);
    EXPECT_EQ(IndexKeys(), Revs({7}));
}

TEST_F(BlockListCut, DropBelowInAGapForgetsWhatLiesBeforeIt) {
    Place(1, 4);
    Place(20, 23);
    m_list.DropBelow(10);
    EXPECT_EQ(IndexKeys(), Revs({20, 22}));
}

TEST_F(BlockListCut, DropBelowTakesAnEmptyBlockByItsKey) {
    Place(1, 2);
    AddEmpty(3);
    Place(4, 5);
    Evict(1);
    m_list.DropBelow(2);
    EXPECT_EQ(IndexKeys(), Revs({1, 3}));
    m_list.DropBelow(4);
    EXPECT_EQ(IndexKeys(), Revs({3}));
    EXPECT_EQ(RecordsOf(3), Revs({4, 5}));
}

TEST_F(BlockListCut, DropBelowTakesNoEarlierBlockForAnEmptyOne) {
    Place(1, 4);
    AddEmpty(5);
    Evict(2);
    m_list.DropBelow(4);
    EXPECT_EQ(IndexKeys(), Revs({3, 5}));
    m_list.DropBelow(6);
    EXPECT_TRUE(IndexKeys().empty());
}

TEST_F(BlockListCut, DropBelowOfAnEmptyListDoesNothing) {
    m_list.DropBelow(5);
    EXPECT_TRUE(IndexKeys().empty());
}

TEST_F(BlockListCut, CutAfterForgetsLaterRecordsAndBlocks) {
    Place(1, 8);
    ASSERT_EQ(m_list.CutAfter(3), RC_OK);
    EXPECT_EQ(IndexKeys(), Revs({1, 3}));
    EXPECT_EQ(MemoryKeys(), Revs({1, 3}));
    EXPECT_EQ(RecordsOf(3), Revs({3}));
    EXPECT_EQ(m_list.Newest().lastRev, 3);
}

TEST_F(BlockListCut, CutAfterTheEndOfABlockKeepsItWhole) {
    Place(1, 8);
    ASSERT_EQ(m_list.CutAfter(4), RC_OK);
    EXPECT_EQ(IndexKeys(), Revs({1, 3}));
    EXPECT_EQ(RecordsOf(3), Revs({3, 4}));
}

TEST_F(BlockListCut, CutAfterNothingForgetsEverything) {
    Place(1, 8);
    Evict(1);
    ASSERT_EQ(m_list.CutAfter(0), RC_OK);
    EXPECT_TRUE(IndexKeys().empty());
    EXPECT_TRUE(MemoryKeys().empty());
}

TEST_F(BlockListCut, CutAfterFailsForABlockThatHoldsNoWholeRecords) {
    Place(1, 3);
    for (const u32 size : {0U, 23U, 70U, 0xFFFFFFFFU}) {
        std::memcpy(m_list.Newest().Data() + kSignatureSize, &size, sizeof size);
        EXPECT_EQ(m_list.CutAfter(3), RC_BAD_DATA) << size;
    }
    m_list.Newest().Data()[0] ^= 1U;
    EXPECT_EQ(m_list.CutAfter(3), RC_BAD_DATA);
}

TEST_F(BlockListCut, CutAfterFailsWhereTheMapHoldsNoBlock) {
    LogCapture log;
    Place(1, 4);
    K9eReplBlock* const last = std::exchange(m_list.Blocks().at(3), nullptr);
    EXPECT_EQ(m_list.CutAfter(2), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Failed to erase block - NULL;block rev 3"), RC_BAD_DATA) << log;
    m_list.Blocks().at(3) = last;
}

TEST_F(BlockListCut, DropFirstForgetsABlockInMemory) {
    Place(1, 4);
    m_list.DropFirst();
    EXPECT_EQ(IndexKeys(), Revs({3}));
    EXPECT_EQ(MemoryKeys(), Revs({3}));
}

TEST_F(BlockListCut, DropFirstForgetsABlockInTheFile) {
    Place(1, 4);
    Evict(1);
    m_list.DropFirst();
    EXPECT_EQ(IndexKeys(), Revs({3}));
    EXPECT_EQ(MemoryKeys(), Revs({3}));
    m_list.DropFirst();
    EXPECT_TRUE(IndexKeys().empty());
    EXPECT_TRUE(MemoryKeys().empty());
}

TEST_F(BlockListCut, RekeyFirstMovesTheRestOfTheBlockToItsFront) {
    Place(1, 4);
    m_list.Blocks().at(1)->flushedEnd = m_list.Blocks().at(1)->used;
    m_list.RekeyFirst(2, 2, 5069, kRecordSize);
    EXPECT_EQ(IndexKeys(), Revs({2, 3}));
    EXPECT_EQ(RecordsOf(2), Revs({2}));
    EXPECT_EQ(m_list.Index().at(2).fileOffset, 5069);
    EXPECT_EQ(m_list.Index().at(2).block, m_list.Blocks().at(2));
    EXPECT_EQ(m_list.Blocks().at(2)->flushedEnd, kRecordSize);
}

TEST_F(BlockListCut, RekeyFirstOfABlockInTheFileChangesTheIndexOnly) {
    Place(1, 4);
    Evict(1);
    m_list.RekeyFirst(2, 2, 5069, kRecordSize);
    EXPECT_EQ(IndexKeys(), Revs({2, 3}));
    EXPECT_EQ(m_list.Index().at(2).fileOffset, 5069);
    EXPECT_EQ(m_list.Index().at(2).block, nullptr);
    EXPECT_EQ(RecordsOf(3), Revs({3, 4}));
}

TEST_F(BlockListCut, RekeyFirstUnderTheSameKeyCutsNothing) {
    Place(1, 4);
    m_list.RekeyFirst(1, 1, 1056, kRecordSize);
    EXPECT_EQ(RecordsOf(1), Revs({1, 2}));
    EXPECT_EQ(m_list.Index().at(1).fileOffset, 1056);
}

TEST_F(BlockListCut, IsNoticedByAWalkWhateverIsCut) {
    Place(1, 8);
    const auto changes = [this](const auto& change) {
        const u64 before = m_list.Generation();
        change();
        return m_list.Generation() != before;
    };
    EXPECT_TRUE(changes([this] { m_list.RekeyFirst(2, 2, 5069, kRecordSize); }));
    EXPECT_TRUE(changes([this] { m_list.DropBelow(3); }));
    EXPECT_TRUE(changes([this] { m_list.CutAfter(7); }));
    EXPECT_TRUE(changes([this] { m_list.DropFirst(); }));
    EXPECT_TRUE(changes([this] { m_list.Shrink(0, kEndOfRevs); }));
    EXPECT_TRUE(changes([this] { m_list.EraseAll(); }));
}

}  // namespace
}  // namespace k9erepl::test
