// Where the next record goes after blocks have come or gone: the store remembers its newest block,
// and must forget it whenever that block leaves memory, is cut or gets another key.
#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <vector>

#include "engine/block_records.h"
#include "engine/block_store.h"

namespace k9erepl::test {
namespace {

constexpr u32 kDataBytes = 40;
constexpr u64 kPlacedSize = kDataBytes + kRecordHeadSize;
constexpr i64 kBlockRevs = 3;  // records that a block has room for
constexpr i64 kNext = 50;      // the revision placed after the change

u32 PlaceRev(BlockStore& store, i64 rev, i64 fileOffset = kUnknownOffset) {
    std::vector<u8> bytes(sizeof(K9eReplRec) + kDataBytes, 'n');
    K9eReplRec head = {};
    head.rev = rev;
    head.dataSize = kDataBytes;
    std::memcpy(bytes.data(), &head, sizeof head);
    store.SetNextRev(rev + 1);
    return store.Place(*reinterpret_cast<const K9eReplRec*>(bytes.data()), fileOffset);
}

// Four blocks with the revisions 1-3, 4-6, 7-9 and 10-11, all of them in the file.
void FillStore(BlockStore& store) {
    store.SetUp(static_cast<u32>(kBlockRevs * kPlacedSize), 4);
    for (i64 rev = 1; rev <= 11; ++rev) {
        ASSERT_EQ(PlaceRev(store, rev, 1000 * rev), RC_OK);
    }
}

struct NewestChange {
    const char* name;
    void (*change)(BlockStore& store);
    i64 key;   // of the block in which the next record then lies
    u64 used;  // bytes of that block after it
};

void PrintTo(const NewestChange& change, std::ostream* out) {
    *out << change.name;
}

constexpr u64 kOne = kPlacedSize;
const NewestChange kNewestChanges[] = {
    {"Nothing", [](BlockStore&) {}, 10, 3 * kOne},
    {"AddBlock", [](BlockStore& s) { EXPECT_EQ(s.AddBlock(20), RC_OK); }, 20, kOne},
    {"EraseAndIndex",
     [](BlockStore& s) {
         EXPECT_EQ(s.EraseBlocksAfter(9), RC_OK);
         s.EraseIndexAfter(9);
     },
     kNext, kOne},
    {"CutAfterInABlock", [](BlockStore& s) { EXPECT_EQ(s.CutAfter(8), RC_OK); }, 7, 3 * kOne},
    {"CutAfterEverything", [](BlockStore& s) { EXPECT_EQ(s.CutAfter(0), RC_OK); }, kNext, kOne},
    {"CutBack", [](BlockStore& s) { EXPECT_EQ(s.CutBackTo(4, kOne), RC_OK); }, 4, 2 * kOne},
    {"Shrink", [](BlockStore& s) { EXPECT_EQ(s.Shrink(1, 11), RC_OK); }, 10, 3 * kOne},
    {"ShrinkToNothing", [](BlockStore& s) { EXPECT_EQ(s.Shrink(0, 11), RC_OK); }, kNext, kOne},
    {"DropBelow", [](BlockStore& s) { s.DropBelow(10); }, 10, 3 * kOne},
    {"DropBelowTheNext", [](BlockStore& s) { s.DropBelow(12); }, kNext, kOne},
    {"DropFirst", [](BlockStore& s) { s.DropFirst(); }, 10, 3 * kOne},
    {"DropAllButOne", [](BlockStore& s) { s.DropBefore(10, 10); }, 10, 3 * kOne},
    {"RekeyTheOnlyBlock",
     [](BlockStore& s) {
         s.DropBefore(10, 10);
         s.RekeyFirst(11, 11, 1056, kOne);
     },
     11, 2 * kOne},
    {"ForgetEverything", [](BlockStore& s) { s.ForgetEverything(); }, kNext, kOne},
    {"Clear", [](BlockStore& s) { s.Clear(); }, kNext, kOne},
    {"Reset", [](BlockStore& s) { s.Reset(); }, kNext, kOne},
};

class NewestBlock : public ::testing::TestWithParam<NewestChange> {
  protected:
    NewestBlock() { FillStore(m_store); }
    ~NewestBlock() override { m_store.Reset(); }

    BlockStore m_store;
};

}  // namespace

TEST_P(NewestBlock, TakesTheNextRecord) {
    GetParam().change(m_store);
    ASSERT_EQ(PlaceRev(m_store, kNext), RC_OK);

    ASSERT_FALSE(m_store.Blocks().empty());
    const auto& [key, block] = *m_store.Blocks().rbegin();
    EXPECT_EQ(key, GetParam().key);
    EXPECT_EQ(block, &m_store.Newest());
    EXPECT_EQ(block->used, GetParam().used);
    EXPECT_EQ(m_store.NewestUsed(), block->used);
    BlockRecord placed;
    ASSERT_TRUE(ReadBlockRecord(*block, block->used - kPlacedSize, &placed));
    EXPECT_EQ(placed.rec->rev, kNext);
    EXPECT_EQ(std::prev(m_store.Index().end())->second.block, block);
}

INSTANTIATE_TEST_SUITE_P(After, NewestBlock, ::testing::ValuesIn(kNewestChanges),
                         [](const auto& made) { return made.param.name; });

TEST(NewestBlockUsed, IsZeroWithoutABlock) {
    BlockStore store;
    EXPECT_EQ(store.NewestUsed(), 0U);
    FillStore(store);
    EXPECT_EQ(store.NewestUsed(), 2 * kPlacedSize);
    store.Reset();
    EXPECT_EQ(store.NewestUsed(), 0U);
}

}  // namespace k9erepl::test
