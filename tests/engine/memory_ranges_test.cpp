// Ranges from memory blocks that are large enough to have notes: where they begin, and that no cut
// and no damage leads them astray.
#include <gtest/gtest.h>

#include <algorithm>

#include "engine/load_fixture.h"
#include "memory/block_notes.h"

namespace k9erepl::test {
namespace {

// Two blocks of 64 KiB hold 1,000 records of 100 bytes, 18 of which lie between two notes.
class MemoryRanges : public ::testing::TestWithParam<const char*> {
  protected:
    static constexpr i64 kLast = 1000;

    MemoryRanges()
        : m_storage(std::string("block_size=65536;flush_mode=PerTrans;flush_trans_num=7;") +
                    GetParam()) {
        Insert(kLast);
    }

    void Insert(i64 count) {
        EXPECT_EQ(m_storage.Begin(), RC_OK);
        for (; count > 0; --count) {
            EXPECT_EQ(m_storage.Insert(std::string(76, 'x')), RC_OK);
        }
        EXPECT_EQ(m_storage.Commit(), RC_OK);
    }
    Revs Range(i64 from, i64 to) { return RevsOf(m_storage.Records(from, to)); }
    // Every range of every length begins and ends where the full enumeration says.
    void ExpectRangesOf(const Revs& all) {
        ASSERT_EQ(Range(0, kEndOfRevs), all);
        for (std::size_t i = 0; i < all.size(); i += 7) {
            const std::size_t end = std::min(i + i % 40 + 1, all.size());
            ASSERT_EQ(Range(all[i], all[end - 1]),
                      Revs(all.begin() + static_cast<std::ptrdiff_t>(i),
                           all.begin() + static_cast<std::ptrdiff_t>(end)));
        }
    }
    BlockStore& Blocks() { return StorageAccess::Blocks(m_storage.Object()); }
    K9eReplBlock& Oldest() { return *Blocks().Blocks().begin()->second; }
    BlockNotes OldestNotes() { return Blocks().NotesOf(Oldest()); }

    TestStorage m_storage;
};

TEST_P(MemoryRanges, DeliverWhatAFullEnumerationDelivers) {
    EXPECT_GT(OldestNotes().Count(), 10U);
    ExpectRangesOf(RevRange(1, kLast));
}

TEST_P(MemoryRanges, DoNotWalkWhatLiesBeforeTheNote) {
    Oldest().Data()[0] ^= 1;
    EXPECT_EQ(Range(200, 201), Revs({200, 201}));
    SeenRecords seen;
    EXPECT_EQ(m_storage.Enumerate(&seen, 1, 1), RC_BAD_DATA);
}

TEST_P(MemoryRanges, ForgetNotesThatDoNotHoldAndWalkTheBlock) {
    for (const u32 byte : {0U, 8U, 10U, 200U}) {
        reinterpret_cast<u8*>(OldestNotes().Notes())[byte] ^= 4;
    }
    ExpectRangesOf(RevRange(1, kLast));
}

TEST_P(MemoryRanges, AreRightAfterARollback) {
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(m_storage.Insert(std::string(31, 'y')), RC_OK);
    }
    ASSERT_EQ(m_storage.Rollback(), RC_OK);
    Insert(400);
    ExpectRangesOf(RevRange(1, kLast + 400));
}

TEST_P(MemoryRanges, AreRightAfterClears) {
    for (const i64 rev : {3, 50, 51, 200, 650, 700}) {
        ASSERT_EQ(m_storage.Clear(rev, rev % 2 == 0 ? 0 : 1), RC_OK);
        ExpectRangesOf(RevRange(rev, kLast));
    }
    Insert(400);
    ExpectRangesOf(RevRange(700, kLast + 400));
}

TEST_P(MemoryRanges, AreRightAfterATruncation) {
    ASSERT_EQ(m_storage.Truncate(), RC_OK);
    EXPECT_TRUE(Range(0, kEndOfRevs).empty());
    Insert(300);
    ExpectRangesOf(RevRange(1, 300));
}

TEST_P(MemoryRanges, AreRightInATransactionAndAcrossRevisionGaps) {
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    Revs all = RevRange(1, kLast);
    for (i64 rev = 2000; rev < 4000; rev += 5) {
        ASSERT_EQ(m_storage.InsertP(rev, std::string(40, 'g')), RC_OK);
        all.push_back(rev);
    }
    ExpectRangesOf(all);
    EXPECT_EQ(Range(2501, 2509), Revs({2505}));
    EXPECT_EQ(Range(2501, 2504), Revs());
}

INSTANTIATE_TEST_SUITE_P(, MemoryRanges,
                         ::testing::Values("cache_type=AllInMem", "cache_type=Last9"));

TEST(MemoryRangesWithoutAFile, DeliverWhatAFullEnumerationDelivers) {
    TestStorage storage("file=:memory:;cache_type=AllInMem;flush_mode=NoFlush;block_size=65536",
                        Start::kOpened);
    ASSERT_EQ(storage.TryLoad(), RC_OK);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(storage.Insert(std::string(76, 'x')), RC_OK);
    }
    ASSERT_EQ(storage.Clear(150, 0), RC_OK);
    for (const i64 rev : {150, 600, 1000}) {
        const SeenRecords seen = storage.Records(rev, rev);
        ASSERT_EQ(seen.size(), 1U);
        EXPECT_EQ(seen[0].rev, rev);
    }
}

TEST(MemoryRangesOfALoad, BeginAtNotesThatTheLoadMade) {
    TestStorage storage("block_size=65536;cache_type=AllInMem");
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(storage.Insert(std::string(76, 'x')), RC_OK);
    }
    storage.Reopen();
    K9eReplBlock& newest = StorageAccess::Blocks(storage.Object()).Newest();
    newest.Data()[0] ^= 1;
    const SeenRecords seen = storage.Records(999, 1000);
    ASSERT_EQ(seen.size(), 2U);
    EXPECT_EQ(seen[1].rev, 1000);
}

}  // namespace
}  // namespace k9erepl::test
