// Loading with an index that is older than the last clear, over a damaged storage file: the index
// leads to a load that fails, and the load is done once more without it.
#include <gtest/gtest.h>

#include "engine/clear_fixture.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr std::string_view kLoadedAgain = "Load with the index failed; loading without it;code 3";

// A closed storage of 12 records, two in each block, cleared to revision 4, with the index of
// before the clear. The second block begins with the record 3, which is cleared, and goes on with
// the first one that is kept.
class LoadWithAStaleIndex : public ::testing::Test {
  protected:
    LoadWithAStaleIndex() {
        for (i64 rev = 1; rev <= 12; ++rev) {
            EXPECT_EQ(m_storage.Insert(ClearableStorage::TextOf(rev)), RC_OK);
        }
        m_storage.Reopen();  // saves the whole index
        m_fourth = EntriesInMemory(m_storage).at(1).second + 64 + kCommitBlockSize;
        m_stale = ReadBytes(IndexPath(m_storage));
        EXPECT_EQ(m_storage.Clear(4, kLogical), RC_OK);
        m_storage.Close();
        WriteBytes(IndexPath(m_storage), m_stale);
        m_log.Clear();
    }
    // The size of the record 4.
    void DamageTheFirstKeptRecord() {
        std::vector<u8> bytes = ReadBytes(m_storage.Path());
        bytes.at(static_cast<std::size_t>(m_fourth) + kSignatureSize) ^= 0x80;
        WriteBytes(m_storage.Path(), bytes);
    }

    const ScopedSystemCalls m_systemCalls;
    TestStorage m_storage{SmallCache(1)};
    i64 m_fourth = 0;  // file offset of the record
    std::vector<u8> m_stale;
    LogCapture m_log;
};

TEST_F(LoadWithAStaleIndex, LoadsThroughItWhenTheFileIsSound) {
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(4, 12));
    EXPECT_EQ(m_log.CountContaining("loading without it"), 0U) << m_log;
}

TEST_F(LoadWithAStaleIndex, LoadsWithoutItWhenTheBlockOfTheClearRevisionIsDamaged) {
    DamageTheFirstKeptRecord();
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, kLoadedAgain)) << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 3)) << "as far as the file is sound";
    EXPECT_EQ(m_storage.NextRev(), 4);
    m_storage.InsertCommitted({"four"});
    m_storage.Reopen();
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 4));
}

TEST_F(LoadWithAStaleIndex, LoadsWithoutItInMemoryToo) {
    DamageTheFirstKeptRecord();
    m_storage.Use("cache_type=AllInMem;flush_mode=NoFlush;file=" + m_storage.Path() +
                  ";index_file=" + IndexPath(m_storage));
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 3));
}

TEST_F(LoadWithAStaleIndex, FailsWhenTheSystemFails) {
    ASSERT_EQ(m_storage.TryOpen(), RC_OK);
    const u32 reads = CallCount(SystemCall::kRead);
    ASSERT_EQ(m_storage.TryLoad(), RC_OK);
    const u32 last = CallCount(SystemCall::kRead) - reads - 1;  // behind it the old index is read
    m_storage.Close();
    WriteBytes(IndexPath(m_storage), m_stale);
    ASSERT_EQ(m_storage.TryOpen(), RC_OK);
    Fail(SystemCall::kRead, last, SystemErrorKind::kInputOutput);
    m_log.Clear();
    ASSERT_EQ(m_storage.TryLoad(), RC_SYSTEM_ERROR) << m_log;
    EXPECT_EQ(m_log.CountContaining("Load with the index failed"), 0U) << m_log;
    EXPECT_EQ(m_storage.TryLoad(), RC_OK);
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(4, 12));
}

}  // namespace
}  // namespace k9erepl::test
