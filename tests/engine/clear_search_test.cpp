// The search for the first record that a clear revision keeps.
#include "engine/clear_search.h"

#include <gtest/gtest.h>

#include "engine/storage_fixture.h"

namespace k9erepl::test {
namespace {

class Search : public ::testing::Test {
  protected:
    u32 Record(i64 offset, i64 rev, std::size_t dataSize = 10) {
        class Record record(std::string(dataSize, 'x'), 0, rev);
        return ClearSearch::Visit(offset, record.Get(), &m_search);
    }
    u32 Commit(i64 offset) { return ClearSearch::Visit(offset, nullptr, &m_search); }

    ClearSearch m_search{.minRev = 5};
};

TEST_F(Search, FindsNothingAmongRecordsThatGo) {
    EXPECT_EQ(Record(1056, 3), RC_OK);
    EXPECT_EQ(Record(1090, 4, 0), RC_OK);
    EXPECT_EQ(Commit(1114), RC_OK);
    EXPECT_FALSE(m_search.FoundKept());
    EXPECT_EQ(m_search.newFirstRecOffset, -1);
    EXPECT_EQ(m_search.commitOffset, -1);
    EXPECT_EQ(m_search.recSz, 34U + 24U);
}

TEST_F(Search, StopsAtTheFirstCommitBlockBehindAKeptRecord) {
    EXPECT_EQ(Record(1056, 4), RC_OK);
    EXPECT_EQ(Commit(1090), RC_OK);
    EXPECT_EQ(Record(1122, 5), RC_OK);
    EXPECT_EQ(Record(1156, 6), RC_OK);
    EXPECT_EQ(Commit(1190), RC_ENUM_STOP);
    EXPECT_EQ(m_search.newFirstRev, 5);
    EXPECT_EQ(m_search.newFirstRecOffset, 1122);
    EXPECT_EQ(m_search.commitOffset, 1190);
    EXPECT_EQ(m_search.recSz, 34U);
}

TEST_F(Search, TakesTheNextRecordWhereTheRevisionIsInAGap) {
    EXPECT_EQ(Record(1056, 4), RC_OK);
    EXPECT_EQ(Record(1090, 9), RC_OK);
    EXPECT_EQ(m_search.newFirstRev, 9);
    EXPECT_EQ(m_search.newFirstRecOffset, 1090);
}

}  // namespace
}  // namespace k9erepl::test
