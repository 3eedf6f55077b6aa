// The store of blocks: adding blocks, placing records into them, erasing, shrinking, and cutting at
// both ends.
#include "engine/block_store.h"

#include <gtest/gtest.h>

#include <cstring>

#include "engine/block_records.h"
#include "engine/load_fixture.h"
#include "support/fault_injection.h"
#include "support/fixed_log.h"
#include "support/log_capture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

constexpr u32 kBlockSize = kMinBlockSize;
constexpr u32 kRecordSize = 69;  // of the records of Fill: two in a block

class BlockStoreTest : public ::testing::Test {
  protected:
    BlockStoreTest() { m_store.SetUp(kBlockSize, 4); }
    ~BlockStoreTest() override { m_store.Reset(); }
    void Use(u32 blockSize, u64 maxRecordSize = BlockStore::kAnyRecordSize) {
        m_store.SetUp(blockSize, 4, maxRecordSize);
    }

    u32 Place(i64 rev, std::size_t dataSize, i64 fileOffset = kUnknownOffset) {
        Record record(std::string(dataSize, static_cast<char>('a' + rev)), 0, rev);
        return m_store.Place(*record.Get(), fileOffset);
    }
    // Records `first` to `last`, the first of them at `offset` in the file, or none of them there.
    void Fill(i64 first, i64 last, i64 offset = 5000) {
        const i64 step = offset == kUnknownOffset ? 0 : kRecordSize;
        for (i64 rev = first; rev <= last; ++rev, offset += step) {
            ASSERT_EQ(Place(rev, 45, offset), RC_OK);
        }
    }
    // Blocks with keys 1, 2, ... `count`, each with one record in the file.
    void AddFlushed(i64 count) {
        for (i64 rev = 1; rev <= count; ++rev) {
            ASSERT_EQ(m_store.AddBlock(rev), RC_OK);
            m_store.Newest().used = 24;
            m_store.Newest().lastRev = rev;
            *m_store.FileOffsetOf(rev) = 1000 + rev;
        }
    }
    // The oldest `count` blocks leave memory.
    void Evict(std::size_t count) {
        ASSERT_EQ(m_store.Shrink(m_store.Blocks().size() - count, kEndOfRevs), RC_OK);
    }

    K9eReplBlock& At(i64 key) { return *m_store.Blocks().at(key); }
    MemoryBlocks& Map() { return StorageAccess::InMemory(m_store); }
    Revs InIndex() const { return Keys(m_store.Index()); }
    Revs InMemory() const { return Keys(m_store.Blocks()); }
    Revs RecordsOf(i64 key) {
        Revs revs;
        BlockRecord record;
        for (u64 at = 0; at < At(key).used; at += record.size) {
            EXPECT_TRUE(ReadBlockRecord(At(key), at, &record));
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

using BlockStoreAdd = BlockStoreTest;
using Placing = BlockStoreTest;
using EraseBlocksAfter = BlockStoreTest;
using Shrink = BlockStoreTest;
using BlockStoreCut = BlockStoreTest;

// --- Adding ------------------------------------------------------------------------------------

TEST_F(BlockStoreAdd, NumbersABlockByTheIndexNotByMemory) {
    const LogCapture log({"k9eRepl-storage"});
    AddFlushed(3);
    EXPECT_STREQ(At(1).name, "eRepl#0");
    EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Add block 0,rev 1")) << log;
    ASSERT_EQ(m_store.Shrink(1, 3), RC_OK);
    ASSERT_EQ(m_store.AddBlock(9), RC_OK);
    EXPECT_STREQ(At(9).name, "eRepl#3");
    EXPECT_TRUE(log.Has("Add block 3,rev 9")) << log;
    EXPECT_EQ(m_store.Index().at(9).fileOffset, kUnknownOffset);
    EXPECT_EQ(m_store.Index().at(9).block, &At(9));
}

TEST_F(BlockStoreAdd, TakesABlockFromThePoolThatShowsNothingOfItsFormerLife) {
    ASSERT_EQ(m_store.AddBlock(1), RC_OK);
    K9eReplBlock& used = At(1);
    used.used = 100;
    used.lastRev = 77;
    used.reserved = 1;
    used.pendingWrites = 3;
    used.flushedEnd = 99;
    ASSERT_EQ(m_store.EraseBlocksAfter(0), RC_OK);
    m_store.EraseIndexAfter(0);
    ASSERT_EQ(m_store.AddBlock(2), RC_OK);
    const K9eReplBlock& fresh = At(2);
    ASSERT_EQ(&fresh, &used) << "the pool keeps the block";
    EXPECT_EQ(fresh.used, 0U);
    EXPECT_EQ(fresh.lastRev, 0);
    EXPECT_EQ(fresh.reserved, 0U);
    EXPECT_EQ(fresh.pendingWrites, 0);
    EXPECT_EQ(fresh.flushedEnd, 0U);
}

TEST_F(BlockStoreAdd, LetsTheEntryThatHoldsARevisionBeFound) {
    ASSERT_EQ(m_store.AddBlock(10), RC_OK);
    ASSERT_EQ(m_store.AddBlock(20), RC_OK);
    EXPECT_EQ(m_store.FindHolding(5)->first, 10) << "the first one for what lies before";
    EXPECT_EQ(m_store.FindHolding(10)->first, 10);
    EXPECT_EQ(m_store.FindHolding(19)->first, 10);
    EXPECT_EQ(m_store.FindHolding(21)->first, 20);
}

TEST_F(BlockStoreAdd, PutsABlockInTheFileBeforeThoseInMemory) {
    m_store.AddBlockInFile(1, 1056);
    Fill(3, 4);
    EXPECT_EQ(InIndex(), Revs({1, 3}));
    EXPECT_EQ(InMemory(), Revs({3}));
    EXPECT_EQ(*m_store.FileOffsetOf(1), 1056);
    EXPECT_EQ(m_store.FileOffsetOf(2), nullptr);
}

// --- Placing -----------------------------------------------------------------------------------

TEST_F(Placing, LaysRecordsOutBehindSignatureAndSizeWithoutPadding) {
    Record record("abc", 0x11223344, 7);
    ASSERT_EQ(m_store.Place(*record.Get(), kUnknownOffset), RC_OK);
    const std::vector<u8> expected{0x2A, 0x2D, 0x3A, 0x7B, 27,   0,    0, 0, 7, 0, 0,   0,   0,  0,
                                   0,    0,    0x44, 0x33, 0x22, 0x11, 3, 0, 0, 0, 'a', 'b', 'c'};
    const K9eReplBlock& block = m_store.Newest();
    EXPECT_EQ(block.used, expected.size());
    EXPECT_EQ(block.lastRev, 7);
    EXPECT_EQ(std::memcmp(block.Data(), expected.data(), expected.size()), 0);
    ASSERT_EQ(Place(8, 0), RC_OK);
    EXPECT_EQ(block.used, 27U + 24U);
    EXPECT_EQ(block.lastRev, 8);
    EXPECT_EQ(LoadUnaligned<u32>(block.Data() + 27), kRecordSignature);
}

TEST_F(Placing, FillsABlockExactlyAndRefusesOneByteMore) {
    EXPECT_EQ(Place(1, 114), RC_OK);
    EXPECT_EQ(m_store.Newest().used, kBlockSize);
    const LogCapture log;
    EXPECT_EQ(Place(2, 115), RC_INVALID_ARG);
    EXPECT_EQ(log.CodeOf("Rec size with header 139 exceeds free block size 138"), RC_INVALID_ARG);
    Record record("", 0, 3);
    record->dataSize = 0xFFFFFFF0;  // must not wrap
    EXPECT_EQ(m_store.Place(*record.Get(), kUnknownOffset), RC_INVALID_ARG);
    EXPECT_TRUE(log.Has("Rec size with header 4294967304 exceeds free block size 138")) << log;
}

TEST_F(Placing, LeavesAnEmptyBlockBehindARefusedRecordForTheNextOne) {
    ASSERT_EQ(Place(1, 10), RC_OK);
    ASSERT_EQ(Place(2, 115), RC_INVALID_ARG);
    EXPECT_EQ(InMemory(), Revs({1, 2}));
    EXPECT_EQ(m_store.Newest().used, 0U);
    EXPECT_TRUE(m_store.Index().at(2).IsEmptyBlock());
    ASSERT_EQ(Place(3, 10), RC_OK);
    EXPECT_EQ(InMemory(), Revs({1, 2})) << "it stays under its old key";
    EXPECT_EQ(m_store.Newest().lastRev, 3);
}

TEST_F(Placing, OpensABlockUnderTheRevisionThatDoesNotFitTheRest) {
    ASSERT_EQ(Place(1, 60), RC_OK);
    ASSERT_EQ(Place(2, 60), RC_OK);
    ASSERT_EQ(Place(3, 1), RC_OK);  // would fit the first block, but comes later
    EXPECT_EQ(InMemory(), Revs({1, 2}));
    EXPECT_EQ(At(1).used, 84U);
    EXPECT_EQ(At(2).used, 84U + 25U);
}

TEST_F(Placing, TakesTheFileOffsetOfABlockFromItsFirstRecord) {
    ASSERT_EQ(Place(1, 10, 1056), RC_OK);
    ASSERT_EQ(Place(2, 10, 1090), RC_OK);
    EXPECT_EQ(m_store.Index().at(1).fileOffset, 1056);
    ASSERT_EQ(Place(3, 100), RC_OK);
    EXPECT_EQ(m_store.Index().at(3).fileOffset, kUnknownOffset);
}

TEST_F(Placing, RefusesARecordThatCouldNotBeReadBackWithoutABlock) {
    Use(kBlockSize, 100);
    const LogCapture log;
    EXPECT_EQ(Place(1, 76), RC_OK);
    EXPECT_EQ(Place(2, 77), RC_INVALID_ARG);
    EXPECT_EQ(log.CodeOf("Rec size with header 101 exceeds free block size 100"), RC_INVALID_ARG);
    EXPECT_EQ(InMemory(), Revs({1}));
}

TEST_F(Placing, AnswersNoMemoryOfAnExhaustedPoolAndChangesNothing) {
    const ScopedSystemCalls systemCalls;
    const LogCapture log({"k9eRepl-storage"});
    FailAlloc(1);
    EXPECT_EQ(Place(1, 10), RC_NO_MEMORY);
    EXPECT_EQ(log.CodeOf("Failed to alloc next data block"), RC_NO_MEMORY);
    EXPECT_FALSE(log.Has("Failed to add a new block"));
    EXPECT_TRUE(InMemory().empty());
    EXPECT_TRUE(InIndex().empty());
    EXPECT_EQ(Place(1, 10), RC_OK);
}

TEST_F(Placing, GivesTheBlockBackWhenAMapHasNoMemory) {
    for (u32 nth = 1; nth <= 2; ++nth) {  // the entry of the index, that of the memory map
        const FixedLog log;
        Record record("x", 0, 1);
        u32 rc = RC_OK;
        {
            const FailNthNew fault(nth);
            rc = m_store.Place(*record.Get(), kUnknownOffset);
        }
        EXPECT_EQ(rc, RC_NO_MEMORY);
        EXPECT_TRUE(log.HasError("Failed to add a new block", RC_NO_MEMORY));
        EXPECT_TRUE(log.HasError("Failed to alloc next data block", RC_NO_MEMORY));
        EXPECT_TRUE(InMemory().empty());
        EXPECT_TRUE(InIndex().empty());
    }
}

// --- Erasing -----------------------------------------------------------------------------------

TEST_F(EraseBlocksAfter, ErasesBlocksInMemoryThatBeginAboveTheRevision) {
    EXPECT_EQ(m_store.EraseBlocksAfter(0), RC_OK);
    AddFlushed(4);
    ASSERT_EQ(m_store.EraseBlocksAfter(2), RC_OK);
    EXPECT_EQ(InMemory(), Revs({1, 2}));
    EXPECT_EQ(InIndex(), Revs({1, 2, 3, 4})) << "they are still in the file";
    EXPECT_EQ(m_store.Index().at(3).block, nullptr);
    ASSERT_EQ(m_store.EraseBlocksAfter(0), RC_OK);
    EXPECT_EQ(InMemory(), Revs());
}

TEST_F(EraseBlocksAfter, FindsAnEntryWithoutABlock) {
    AddFlushed(3);
    K9eReplBlock* const lost = std::exchange(Map().at(3), nullptr);
    const LogCapture log;
    EXPECT_EQ(m_store.EraseBlocksAfter(1), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Failed to erase block - NULL;block rev 3"), RC_BAD_DATA) << log;
    EXPECT_EQ(InMemory(), Revs({1, 2, 3})) << "the entries stay";
    Map().erase(2);  // given back before the fault was met
    Map().at(3) = lost;
}

// --- Shrinking ---------------------------------------------------------------------------------

TEST_F(Shrink, FreesTheFiftyOldestOf150Blocks) {
    AddFlushed(150);
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(m_store.Shrink(150, 150), RC_OK);
    EXPECT_TRUE(log.Messages().empty()) << log;
    ASSERT_EQ(m_store.Shrink(100, 150), RC_OK);
    EXPECT_EQ(InMemory(), RevRange(51, 150));
    EXPECT_EQ(InIndex().size(), 150U);
    EXPECT_EQ(log.Texts(), Strings({"Before shrink: 150 blocks; to del: 50; lastFlushed: 150",
                                    "Shrank to 100 blocks"}));
}

TEST_F(Shrink, StopsAtABlockThatIsNotFlushedOrBeingWritten) {
    AddFlushed(6);
    ASSERT_EQ(m_store.Shrink(1, 1), RC_OK);
    EXPECT_EQ(InMemory(), RevRange(2, 6)) << "it begins above the flushed revision";
    At(3).lastRev = 9;
    ASSERT_EQ(m_store.Shrink(1, 6), RC_OK);
    EXPECT_EQ(InMemory(), RevRange(3, 6)) << "it holds an unflushed record";
    At(3).lastRev = 3;
    At(4).pendingWrites = 1;
    const LogCapture log({"k9eRepl-storage"});
    ASSERT_EQ(m_store.Shrink(1, 6), RC_OK);
    EXPECT_EQ(InMemory(), RevRange(4, 6)) << "its writes are queued";
    EXPECT_TRUE(log.Has("Shrank to 3 blocks")) << log;
    At(4).pendingWrites = 0;
}

TEST_F(Shrink, TakesTheIndexEntryOfAnEmptyBlockToo) {
    AddFlushed(3);
    At(2).used = 0;
    At(2).lastRev = 0;
    *m_store.FileOffsetOf(2) = kUnknownOffset;
    ASSERT_EQ(m_store.Shrink(1, 3), RC_OK);
    EXPECT_EQ(InIndex(), Revs({1, 3}));
}

TEST_F(Shrink, StopsAtAnEntryWithoutABlock) {
    AddFlushed(4);
    K9eReplBlock* const lost = std::exchange(Map().at(2), nullptr);
    const LogCapture log;
    EXPECT_EQ(m_store.Shrink(1, 4), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("NULL block header;block rev 2"), RC_BAD_DATA) << log;
    EXPECT_EQ(InMemory(), Revs({2, 3, 4}));
    Map().at(2) = lost;
}

// --- Cutting -----------------------------------------------------------------------------------

TEST_F(BlockStoreCut, DropBelowForgetsTheBlocksThatEndBelow) {
    struct Drop {
        std::vector<std::pair<i64, i64>> filled;  // {n, n - 1}: an empty block with key n
        std::size_t evicted;
        i64 rev;
        Revs left;
    };
    const std::vector<Drop> drops = {{{{1, 8}}, 0, 5, {5, 7}},
                                     {{{1, 8}}, 0, 4, {3, 5, 7}},
                                     {{{1, 4}}, 0, 1, {1, 3}},
                                     {{{1, 4}}, 0, -7, {1, 3}},
                                     {{{1, 8}}, 2, 9, {}},
                                     {{{1, 8}}, 3, 5, {5, 7}},
                                     {{{1, 8}}, 3, 6, {5, 7}},
                                     {{{1, 8}}, 3, 7, {7}},
                                     {{{1, 4}, {20, 23}}, 0, 10, {20, 22}},
                                     {{{1, 2}, {3, 2}, {4, 5}}, 1, 2, {1, 3}},
                                     {{{1, 2}, {3, 2}, {4, 5}}, 1, 4, {3}},
                                     {{{1, 4}, {5, 4}}, 2, 4, {3, 5}},
                                     {{{1, 4}, {5, 4}}, 2, 6, {}},
                                     {{}, 0, 5, {}}};
    for (const Drop& drop : drops) {
        for (const auto& [first, last] : drop.filled) {
            ASSERT_EQ(last < first ? m_store.AddBlock(first) : u32{RC_OK}, RC_OK);
            Fill(first, last);
        }
        Evict(drop.evicted);
        m_store.DropBelow(drop.rev);
        EXPECT_EQ(InIndex(), drop.left) << &drop - drops.data();
        m_store.Clear();
    }
}

TEST_F(BlockStoreCut, DropBelowLeavesTheBlockThatHoldsTheRevisionWhole) {
    Fill(1, 8);
    m_store.DropBelow(4);
    EXPECT_EQ(RecordsOf(3), Revs({3, 4}));
}

TEST_F(BlockStoreCut, CutAfterForgetsLaterRecordsAndBlocks) {
    for (const auto& [rev, left] : {std::pair<i64, Revs>{3, {3}}, {4, {3, 4}}}) {
        Fill(1, 8);
        ASSERT_EQ(m_store.CutAfter(rev), RC_OK);
        EXPECT_EQ(InIndex(), Revs({1, 3}));
        EXPECT_EQ(InMemory(), Revs({1, 3}));
        EXPECT_EQ(RecordsOf(3), left);
        EXPECT_EQ(m_store.Newest().lastRev, rev);
        ASSERT_EQ(m_store.CutAfter(0), RC_OK);
        EXPECT_TRUE(InIndex().empty());
        EXPECT_TRUE(InMemory().empty());
    }
}

TEST_F(BlockStoreCut, CutAfterFailsForABlockThatHoldsNoWholeRecords) {
    Fill(1, 3);
    for (const u32 size : {0U, 23U, 70U, 0xFFFFFFFFU}) {
        std::memcpy(m_store.Newest().Data() + kSignatureSize, &size, sizeof size);
        EXPECT_EQ(m_store.CutAfter(3), RC_BAD_DATA) << size;
    }
    m_store.Newest().Data()[0] ^= 1U;
    EXPECT_EQ(m_store.CutAfter(3), RC_BAD_DATA);
}

TEST_F(BlockStoreCut, CutAfterFailsWhereTheMapHoldsNoBlock) {
    const LogCapture log;
    Fill(1, 4);
    K9eReplBlock* const last = std::exchange(Map().at(3), nullptr);
    EXPECT_EQ(m_store.CutAfter(2), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Failed to erase block - NULL;block rev 3"), RC_BAD_DATA) << log;
    Map().at(3) = last;
}

TEST_F(BlockStoreCut, CutBackToEndsTheNewestBlockWhereItEnded) {
    Fill(1, 3);
    m_store.SetNextRev(8);
    Fill(4, 7);
    At(3).flushedEnd = 2 * kRecordSize;
    ASSERT_EQ(m_store.CutBackTo(3, kRecordSize), RC_OK);
    EXPECT_EQ(InIndex(), Revs({1, 3}));
    EXPECT_EQ(InMemory(), Revs({1, 3}));
    EXPECT_EQ(RecordsOf(3), Revs({3}));
    EXPECT_EQ(m_store.Newest().lastRev, 3);
    EXPECT_EQ(m_store.Newest().flushedEnd, kRecordSize);
}

TEST_F(BlockStoreCut, DropFirstForgetsABlockInTheFileOrInMemory) {
    Fill(1, 6);
    Evict(1);
    m_store.DropFirst();
    EXPECT_EQ(InIndex(), Revs({3, 5}));
    EXPECT_EQ(InMemory(), Revs({3, 5}));
    m_store.DropFirst();
    EXPECT_EQ(InIndex(), Revs({5}));
    EXPECT_EQ(InMemory(), Revs({5}));
}

TEST_F(BlockStoreCut, DropBeforeKeepsTheBlockThatHoldsTheFirstKeptRecord) {
    Fill(1, 8);
    m_store.DropBefore(3, 4);
    EXPECT_EQ(InIndex(), Revs({3, 5, 7}));
    m_store.DropBefore(3, 5);
    EXPECT_EQ(InIndex(), Revs({5, 7})) << "the block under the key ends below it";
}

TEST_F(BlockStoreCut, RekeyFirstMovesTheRestOfTheBlockToItsFront) {
    Fill(1, 4);
    m_store.RekeyFirst(1, 1, 1056, kRecordSize);
    EXPECT_EQ(RecordsOf(1), Revs({1, 2})) << "under the same key nothing is cut";
    EXPECT_EQ(m_store.Index().at(1).fileOffset, 1056);
    At(1).flushedEnd = At(1).used;
    m_store.RekeyFirst(2, 2, 5069, kRecordSize);
    EXPECT_EQ(InIndex(), Revs({2, 3}));
    EXPECT_EQ(RecordsOf(2), Revs({2}));
    EXPECT_EQ(m_store.Index().at(2).fileOffset, 5069);
    EXPECT_EQ(m_store.Index().at(2).block, &At(2));
    EXPECT_EQ(At(2).flushedEnd, kRecordSize);
}

TEST_F(BlockStoreCut, RekeyFirstOfABlockInTheFileChangesTheIndexOnly) {
    Fill(1, 4);
    Evict(1);
    m_store.RekeyFirst(2, 2, 5069, kRecordSize);
    EXPECT_EQ(InIndex(), Revs({2, 3}));
    EXPECT_EQ(m_store.Index().at(2).fileOffset, 5069);
    EXPECT_EQ(m_store.Index().at(2).block, nullptr);
    EXPECT_EQ(RecordsOf(3), Revs({3, 4}));
}

TEST_F(BlockStoreCut, IsNoticedByAWalkWhateverIsCut) {
    Fill(1, 8);
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

TEST_F(BlockStoreCut, MoveOffsetsLeavesUnknownOnesAlone) {
    Fill(1, 2);
    Fill(3, 4, kUnknownOffset);
    m_store.MoveOffsets(-1000);
    EXPECT_EQ(m_store.Index().at(1).fileOffset, 4000);
    EXPECT_EQ(m_store.Index().at(3).fileOffset, kUnknownOffset);
}

TEST_F(BlockStoreCut, ForgettingKeepsTheRevisionsThatStay) {
    Fill(1, 8);
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
    EXPECT_TRUE(InIndex().empty());
}

}  // namespace
}  // namespace k9erepl::test
