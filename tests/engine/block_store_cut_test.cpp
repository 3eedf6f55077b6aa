// Cutting the store of blocks at its ends: what a clear revision drops, what was never committed,
// and the first block under another key.
#include <gtest/gtest.h>

#include <cstring>

#include "engine/block_records.h"
#include "engine/load_fixture.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Blocks of two records of 45 bytes data (69 with their head).
class BlockStoreCut : public ::testing::Test {
  protected:
    static constexpr u32 kRecordSize = 69;

    BlockStoreCut() { m_store.SetUp(kMinBlockSize, 0); }
    ~BlockStoreCut() override { m_store.Reset(); }

    // Records `first` to `last`, the first of them at `offset` in the file, or none of them there.
    void Place(i64 first, i64 last, i64 offset = 5000) {
        const i64 step = offset == kUnknownOffset ? 0 : kRecordSize;
        for (i64 rev = first; rev <= last; ++rev, offset += step) {
            Record record(std::string(45, static_cast<char>('a' + rev)), 0, rev);
            ASSERT_EQ(m_store.Place(*record.Get(), offset), RC_OK);
        }
    }
    void AddEmpty(i64 rev) { ASSERT_EQ(m_store.AddBlock(rev), RC_OK); }
    // The oldest `count` blocks leave memory.
    void Evict(std::size_t count) {
        ASSERT_EQ(m_store.Shrink(m_store.Blocks().size() - count, kEndOfRevs), RC_OK);
    }

    Revs IndexKeys() const { return Keys(m_store.Index()); }
    Revs MemoryKeys() const { return Keys(m_store.Blocks()); }
    Revs RecordsOf(i64 key) const {
        Revs revs;
        const K9eReplBlock& block = *m_store.Blocks().at(key);
        BlockRecord record;
        for (u64 at = 0; at < block.used; at += record.size) {
            EXPECT_TRUE(ReadBlockRecord(block, at, &record));
            EXPECT_EQ(record.rec->data[0], 'a' + i64{record.rec->rev});
            revs.push_back(i64{record.rec->rev});
        }
        return revs;
    }

    BlockStore m_store;

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

TEST_F(BlockStoreCut, DropBelowForgetsTheBlocksThatEndBelow) {
    Place(1, 8);
    m_store.DropBelow(5);
    EXPECT_EQ(MemoryKeys(), Revs({5, 7}));
    EXPECT_EQ(IndexKeys(), Revs({5, 7}));
}

TEST_F(BlockStoreCut, DropBelowKeepsTheBlockThatHoldsTheRevision) {
    Place(1, 8);
    m_store.DropBelow(4);
    EXPECT_EQ(IndexKeys(), Revs({3, 5, 7}));
    EXPECT_EQ(RecordsOf(3), Revs({3, 4}));
}

TEST_F(BlockStoreCut, DropBelowTheFirstRecordKeepsEverything) {
    Place(1, 4);
    m_store.DropBelow(1);
    m_store.DropBelow(-7);
    EXPECT_EQ(IndexKeys(), Revs({1, 3}));
}

TEST_F(BlockStoreCut, DropBelowAboveTheLastRecordForgetsEverything) {
    Place(1, 8);
    Evict(2);
    m_store.DropBelow(9);
    EXPECT_TRUE(MemoryKeys().empty());
    EXPECT_TRUE(IndexKeys().empty());
}

TEST_F(BlockStoreCut, DropBelowForgetsBlocksThatAreOnlyInTheFile) {
    Place(1, 8);
    Evict(3);
    m_store.DropBelow(5);
    EXPECT_EQ(IndexKeys(), Revs({5, 7}));
    m_store.DropBelow(6);
    EXPECT_EQ(IndexKeys(), Revs({5, 7}));
    m_store.DropBelow(7);
    EXPECT_EQ(IndexKeys(), Revs({7}));
}

TEST_F(BlockStoreCut, DropBelowInAGapForgetsWhatLiesBeforeIt) {
    Place(1, 4);
    Place(20, 23);
    m_store.DropBelow(10);
    EXPECT_EQ(IndexKeys(), Revs({20, 22}));
}

TEST_F(BlockStoreCut, DropBelowTakesAnEmptyBlockByItsKey) {
    Place(1, 2);
    AddEmpty(3);
    Place(4, 5);
    Evict(1);
    m_store.DropBelow(2);
    EXPECT_EQ(IndexKeys(), Revs({1, 3}));
    m_store.DropBelow(4);
    EXPECT_EQ(IndexKeys(), Revs({3}));
    EXPECT_EQ(RecordsOf(3), Revs({4, 5}));
}

TEST_F(BlockStoreCut, DropBelowTakesNoEarlierBlockForAnEmptyOne) {
    Place(1, 4);
    AddEmpty(5);
    Evict(2);
    m_store.DropBelow(4);
    EXPECT_EQ(IndexKeys(), Revs({3, 5}));
    m_store.DropBelow(6);
    EXPECT_TRUE(IndexKeys().empty());
}

TEST_F(BlockStoreCut, DropBelowOfAnEmptyListDoesNothing) {
    m_store.DropBelow(5);
    EXPECT_TRUE(IndexKeys().empty());
}

TEST_F(BlockStoreCut, CutAfterForgetsLaterRecordsAndBlocks) {
    Place(1, 8);
    ASSERT_EQ(m_store.CutAfter(3), RC_OK);
    EXPECT_EQ(IndexKeys(), Revs({1, 3}));
    EXPECT_EQ(MemoryKeys(), Revs({1, 3}));
    EXPECT_EQ(RecordsOf(3), Revs({3}));
    EXPECT_EQ(m_store.Newest().lastRev, 3);
}

TEST_F(BlockStoreCut, CutAfterTheEndOfABlockKeepsItWhole) {
    Place(1, 8);
    ASSERT_EQ(m_store.CutAfter(4), RC_OK);
    EXPECT_EQ(IndexKeys(), Revs({1, 3}));
    EXPECT_EQ(RecordsOf(3), Revs({3, 4}));
}

TEST_F(BlockStoreCut, CutAfterNothingForgetsEverything) {
    Place(1, 8);
    Evict(1);
    ASSERT_EQ(m_store.CutAfter(0), RC_OK);
    EXPECT_TRUE(IndexKeys().empty());
    EXPECT_TRUE(MemoryKeys().empty());
}

TEST_F(BlockStoreCut, CutAfterFailsForABlockThatHoldsNoWholeRecords) {
    Place(1, 3);
    for (const u32 size : {0U, 23U, 70U, 0xFFFFFFFFU}) {
        std::memcpy(m_store.Newest().Data() + kSignatureSize, &size, sizeof size);
        EXPECT_EQ(m_store.CutAfter(3), RC_BAD_DATA) << size;
    }
    m_store.Newest().Data()[0] ^= 1U;
    EXPECT_EQ(m_store.CutAfter(3), RC_BAD_DATA);
}

TEST_F(BlockStoreCut, CutAfterFailsWhereTheMapHoldsNoBlock) {
    LogCapture log;
    Place(1, 4);
    K9eReplBlock* const last = std::exchange(StorageAccess::InMemory(m_store).at(3), nullptr);
    EXPECT_EQ(m_store.CutAfter(2), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Failed to erase block - NULL;block rev 3"), RC_BAD_DATA) << log;
    StorageAccess::InMemory(m_store).at(3) = last;
}

TEST_F(BlockStoreCut, DropFirstForgetsABlockInMemory) {
    Place(1, 4);
    m_store.DropFirst();
    EXPECT_EQ(IndexKeys(), Revs({3}));
    EXPECT_EQ(MemoryKeys(), Revs({3}));
}

TEST_F(BlockStoreCut, DropFirstForgetsABlockInTheFile) {
    Place(1, 4);
    Evict(1);
    m_store.DropFirst();
    EXPECT_EQ(IndexKeys(), Revs({3}));
    EXPECT_EQ(MemoryKeys(), Revs({3}));
    m_store.DropFirst();
    EXPECT_TRUE(IndexKeys().empty());
    EXPECT_TRUE(MemoryKeys().empty());
}

TEST_F(BlockStoreCut, RekeyFirstMovesTheRestOfTheBlockToItsFront) {
    Place(1, 4);
    m_store.Blocks().at(1)->flushedEnd = m_store.Blocks().at(1)->used;
    m_store.RekeyFirst(2, 2, 5069, kRecordSize);
    EXPECT_EQ(IndexKeys(), Revs({2, 3}));
    EXPECT_EQ(RecordsOf(2), Revs({2}));
    EXPECT_EQ(m_store.Index().at(2).fileOffset, 5069);
    EXPECT_EQ(m_store.Index().at(2).block, m_store.Blocks().at(2));
    EXPECT_EQ(m_store.Blocks().at(2)->flushedEnd, kRecordSize);
}

TEST_F(BlockStoreCut, RekeyFirstOfABlockInTheFileChangesTheIndexOnly) {
    Place(1, 4);
    Evict(1);
    m_store.RekeyFirst(2, 2, 5069, kRecordSize);
    EXPECT_EQ(IndexKeys(), Revs({2, 3}));
    EXPECT_EQ(m_store.Index().at(2).fileOffset, 5069);
    EXPECT_EQ(m_store.Index().at(2).block, nullptr);
    EXPECT_EQ(RecordsOf(3), Revs({3, 4}));
}

TEST_F(BlockStoreCut, RekeyFirstUnderTheSameKeyCutsNothing) {
    Place(1, 4);
    m_store.RekeyFirst(1, 1, 1056, kRecordSize);
    EXPECT_EQ(RecordsOf(1), Revs({1, 2}));
    EXPECT_EQ(m_store.Index().at(1).fileOffset, 1056);
}

TEST_F(BlockStoreCut, IsNoticedByAWalkWhateverIsCut) {
    Place(1, 8);
    const auto changes = [this](const auto& change) {
        const u64 before = m_store.Generation();
        change();
        return m_store.Generation() != before;
    };
    EXPECT_TRUE(changes([this] { m_store.RekeyFirst(2, 2, 5069, kRecordSize); }));
    EXPECT_TRUE(changes([this] { m_store.DropBelow(3); }));
    EXPECT_TRUE(changes([this] { EXPECT_EQ(m_store.CutAfter(7), RC_OK); }));
    EXPECT_TRUE(changes([this] { m_store.DropFirst(); }));
    EXPECT_TRUE(changes([this] { EXPECT_EQ(m_store.Shrink(0, kEndOfRevs), RC_OK); }));
    EXPECT_TRUE(changes([this] { m_store.Reset(); }));
}

TEST_F(BlockStoreCut, CutBackToEndsTheNewestBlockWhereItEnded) {
    Place(1, 3);
    m_store.SetNextRev(8);
    Place(4, 7);
    StorageAccess::InMemory(m_store).at(3)->flushedEnd = 2 * kRecordSize;
    ASSERT_EQ(m_store.CutBackTo(3, kRecordSize), RC_OK);
    EXPECT_EQ(IndexKeys(), Revs({1, 3}));
    EXPECT_EQ(MemoryKeys(), Revs({1, 3}));
    EXPECT_EQ(RecordsOf(3), Revs({3}));
    EXPECT_EQ(m_store.Newest().lastRev, 3);
    EXPECT_EQ(m_store.Newest().flushedEnd, kRecordSize);
}

TEST_F(BlockStoreCut, DropBeforeKeepsTheBlockThatHoldsTheFirstKeptRecord) {
    Place(1, 8);
    m_store.DropBefore(3, 4);
    EXPECT_EQ(IndexKeys(), Revs({3, 5, 7}));
    m_store.DropBefore(3, 5);
    EXPECT_EQ(IndexKeys(), Revs({5, 7})) << "the block under the key ends below it";
}

TEST_F(BlockStoreCut, MoveOffsetsLeavesUnknownOnesAlone) {
    Place(1, 2);
    Place(3, 4, kUnknownOffset);
    m_store.MoveOffsets(-1000);
    EXPECT_EQ(m_store.Index().at(1).fileOffset, 4000);
    EXPECT_EQ(m_store.Index().at(3).fileOffset, kUnknownOffset);
}

TEST_F(BlockStoreCut, ABlockInTheFileComesBeforeThoseInMemory) {
    m_store.AddBlockInFile(1, 1056);
    Place(3, 4);
    EXPECT_EQ(IndexKeys(), Revs({1, 3}));
    EXPECT_EQ(MemoryKeys(), Revs({3}));
    EXPECT_EQ(*m_store.FileOffsetOf(1), 1056);
    EXPECT_EQ(m_store.FileOffsetOf(2), nullptr);
}

TEST_F(BlockStoreCut, WhatIsForgottenIsAMatterOfTheRevisionsThatStay) {
    Place(1, 8);
    m_store.SetNextRev(9);
    m_store.SetFlushedRev(8);
    m_store.SetBeginMoved(true);
    m_store.ForgetEverything();
    EXPECT_EQ(m_store.OldestRev(), 8);
    EXPECT_EQ(m_store.FlushedRev(), 8);
    EXPECT_FALSE(m_store.BeginMoved());
    m_store.Clear();
    EXPECT_EQ(m_store.OldestRev(), 0);
    EXPECT_EQ(m_store.FlushedRev(), 0);
    EXPECT_EQ(m_store.NextRev(), 9);
    m_store.Reset();
    EXPECT_EQ(m_store.NextRev(), 1);
    EXPECT_TRUE(IndexKeys().empty());
}

}  // namespace
}  // namespace k9erepl::test
