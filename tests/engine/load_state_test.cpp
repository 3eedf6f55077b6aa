// Load when the storage is in use already: it answers so and leaves every record where it is.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"

namespace k9erepl::test {
namespace {

// A truncated storage with three records that were acknowledged; the disk was full when the idle
// flush came.
class LoadAfterAFailedFlush : public ::testing::Test {
  protected:
    void SetUp() override {
        SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
        SetTickCount(5000);
        ASSERT_EQ(m_storage.TryCreate(), RC_OK);
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
        ASSERT_EQ(m_storage.Truncate(), RC_OK);
        m_storage.InsertMany(3);
    }
    void FailTheIdleFlush() {
        FailWrite(1, SystemErrorKind::kNoSpace, Repeat::kFromThenOn);
        AdvanceTickCount(1000);
        EXPECT_EQ(m_storage.DataSource().FlushOnIdle(), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_storage.State(), StorageState::kFlushFailed);
        StopFailing(SystemCall::kWrite);
    }

    const ScopedSystemCalls m_systemCalls;
    TestStorage m_storage{
        "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=1000;read_buffers_count=1;",
        Start::kNothing};
};

}  // namespace

TEST_F(LoadAfterAFailedFlush, IsRefusedAndLosesNoRecord) {
    FailTheIdleFlush();
    EXPECT_EQ(m_storage.TryLoad(), RC_ALREADY);
    EXPECT_EQ(m_storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(m_storage.Commit(), RC_NO_TRANSACTION) << "the way out: the flush is tried again";
    ASSERT_EQ(m_storage.Insert("r4"), RC_OK);
    EXPECT_EQ(m_storage.NextRev(), 5);
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Numbered(4));
}

TEST_F(LoadAfterAFailedFlush, IsRefusedInsideATransaction) {
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert("r4"), RC_OK);
    FailTheIdleFlush();
    EXPECT_EQ(m_storage.TryLoad(), RC_ALREADY);
    EXPECT_EQ(m_storage.Commit(), RC_OK);
    EXPECT_EQ(m_storage.Texts(), Numbered(4));
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Numbered(4));
}

TEST(LoadInUse, IsRefusedAfterATruncation) {
    TestStorage storage;
    ASSERT_EQ(storage.Truncate(), RC_OK);
    storage.InsertMany(3);
    EXPECT_EQ(storage.TryLoad(), RC_ALREADY);
    EXPECT_EQ(storage.Texts(), Numbered(3));
}

}  // namespace k9erepl::test
