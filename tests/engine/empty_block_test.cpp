// The empty block that a record leaves behind which fits no block: it has no bytes in the file,
// and nothing may look for it there.
#include <gtest/gtest.h>

#include <algorithm>

#include "engine/load_fixture.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Blocks of 138 bytes; memory keeps `Last` of them.
class EmptyBlock : public ::testing::Test {
  protected:
    explicit EmptyBlock(u32 last = 2) : m_storage(SmallCache(last)) {}

    BlockStore& Blocks() { return StorageAccess::Blocks(m_storage.Object()); }
    bool HasEmptyBlock() {
        const auto& blocks = Blocks().Blocks();
        return std::any_of(blocks.begin(), blocks.end(),
                           [](const auto& entry) { return entry.second->used == 0; });
    }
    // A committed transaction of a record of one block, one that does not fit, and another.
    void CommitAroundAnOversizedRecord() {
        ASSERT_EQ(m_storage.Begin(), RC_OK);
        ASSERT_EQ(m_storage.Insert(OneBlock("before")), RC_OK);
        ASSERT_EQ(m_storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
        ASSERT_EQ(m_storage.Insert(std::string(115, 'y')), RC_INVALID_ARG);
        ASSERT_EQ(m_storage.Insert(OneBlock("behind")), RC_OK);
        ASSERT_EQ(m_storage.Commit(), RC_OK);
    }
    void ExpectIndexInFile() {
        for (const auto& [rev, entry] : Blocks().Index()) {
            EXPECT_TRUE(entry.block != nullptr || entry.fileOffset != kUnknownOffset) << rev;
        }
    }

    TestStorage m_storage;
    LogCapture m_log;  // keeps the messages of the refused records to itself
};

TEST_F(EmptyBlock, InMemoryIsPassedOver) {
    m_storage.Reopen(std::string(kEachCommit) + "cache_type=AllInMem");
    CommitAroundAnOversizedRecord();
    CommitAroundAnOversizedRecord();
    ASSERT_TRUE(HasEmptyBlock());
    EXPECT_EQ(RevsOf(m_storage.Records()), Revs({1, 4, 5, 8}));
    ExpectEveryRange(m_storage, ModelOf(m_storage.Records()), 9);
}

TEST_F(EmptyBlock, InAnOpenTransactionIsPassedOver) {
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    EXPECT_TRUE(HasEmptyBlock());
    EXPECT_TRUE(m_storage.Records().empty());
    ASSERT_EQ(m_storage.Commit(), RC_OK);
    EXPECT_TRUE(m_storage.Records().empty());
}

// After two blocks that fill the cache the empty one is the lowest in memory.
TEST_F(EmptyBlock, AtTheBorderOfTheCacheIsPassedOver) {
    m_storage.InsertMany(30);
    CommitAroundAnOversizedRecord();
    m_storage.Settle();
    ASSERT_EQ(Blocks().Blocks().size(), 2U);
    ASSERT_TRUE(HasEmptyBlock());
    ASSERT_EQ(Blocks().Blocks().begin()->second->used, 0U);
    ExpectEveryRange(m_storage, ModelOf(m_storage.Records()), 35);
    EXPECT_EQ(m_storage.Records().size(), 32U);
    ExpectIndexInFile();
}

TEST_F(EmptyBlock, ThatLeavesMemoryLeavesTheIndexToo) {
    CommitAroundAnOversizedRecord();
    CommitAroundAnOversizedRecord();
    m_storage.InsertMany(30);
    m_storage.Settle();
    ASSERT_FALSE(HasEmptyBlock());
    ExpectIndexInFile();
    const SeenRecords records = m_storage.Records();
    EXPECT_EQ(records.size(), 34U);
    ExpectEveryRange(m_storage, ModelOf(records), 39);
}

TEST_F(EmptyBlock, IsGoneAfterReopening) {
    CommitAroundAnOversizedRecord();
    CommitAroundAnOversizedRecord();
    const SeenRecords before = m_storage.Records();
    m_storage.Reopen();
    EXPECT_FALSE(HasEmptyBlock());
    EXPECT_EQ(m_storage.Records(), before);
    m_storage.InsertMany(20);
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Records().size(), 24U);
    ExpectIndexInFile();
}

TEST_F(EmptyBlock, ThatEndsTheStorageIsGoneAfterReopening) {
    m_storage.InsertMany(3);
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    ASSERT_EQ(m_storage.Commit(), RC_OK);
    EXPECT_EQ(m_storage.NextRev(), 5);
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Numbered(3));
    EXPECT_EQ(m_storage.NextRev(), 4);
    EXPECT_EQ(EntriesInMemory(m_storage), IndexEntries({{1, 1056}}));
}

// The next record fits the empty block, whose revision then is not that of its first record.
TEST_F(EmptyBlock, ThatIsFilledLaterDeliversItsRecords) {
    m_storage.InsertMany(5);
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    ASSERT_EQ(m_storage.Insert("small"), RC_OK);
    ASSERT_EQ(m_storage.Commit(), RC_OK);
    m_storage.InsertMany(30, "more");
    const SeenRecords before = m_storage.Records();
    EXPECT_EQ(before.size(), 36U);
    ExpectEveryRange(m_storage, ModelOf(before), 37);
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Records(), before);
}

}  // namespace
}  // namespace k9erepl::test
