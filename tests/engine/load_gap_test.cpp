// Loading through an index after a logical clear into a gap between revisions: the index begins
// above the clear revision, which an index that hides records does too.
#include <gtest/gtest.h>

#include "engine/load_fixture.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr std::string_view kHides = "Index does not lead to all kept records; loading without it";

// Blocks of one record each: 1 to 5, then, behind a gap, 11 to 20; a small cache.
class LoadBehindAGap : public ::testing::Test {
  protected:
    LoadBehindAGap() {
        for (const i64 rev : Both(RevRange(1, 5), RevRange(11, 20))) {
            EXPECT_EQ(m_storage.InsertP(rev, OneBlock(std::to_string(rev))), RC_OK);
        }
    }
    static Revs Both(Revs revs, const Revs& more) {
        revs.insert(revs.end(), more.begin(), more.end());
        return revs;
    }
    // Reopens twice: the first load makes the index afresh, the second one uses it.
    void ReopenThroughFreshIndex() {
        m_storage.Reopen();
        m_log.Clear();
        m_storage.Reopen();
    }
    std::size_t Loaded() const { return m_log.CountContaining("Loaded rec;rev "); }

    TestStorage m_storage{SmallCache(2)};
    LogCapture m_log;
};

TEST_F(LoadBehindAGap, UsesTheIndexWhenNoRecordLiesInTheGap) {
    ASSERT_EQ(K9eReplStorageClearOldRev(m_storage.Handle(), 8, K9EREPL_CLEAR_LOGICAL), RC_OK);
    ReopenThroughFreshIndex();
    EXPECT_FALSE(m_log.Has(kHides)) << m_log;
    EXPECT_EQ(Loaded(), 3U) << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(11, 20));
    EXPECT_EQ(StorageAccess::OldestRev(m_storage.Object()), 8);
}

TEST_F(LoadBehindAGap, LoadsWithoutTheIndexWhenARecordLiesThere) {
    ASSERT_EQ(K9eReplStorageClearOldRev(m_storage.Handle(), 5, K9EREPL_CLEAR_LOGICAL), RC_OK);
    m_storage.Close();
    IndexEntries entries = ReadIndexEntries(m_storage);
    ASSERT_EQ(entries.front().first, 5);
    entries.erase(entries.begin());
    WriteIndex(m_storage, entries);
    m_log.Clear();
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, kHides)) << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), Both({5}, RevRange(11, 20)));
}

}  // namespace
}  // namespace k9erepl::test
