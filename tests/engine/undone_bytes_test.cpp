// What a failed flush leaves in the storage file: a rollback and the close clear it, so that no
// reopening serves what the client gave up; what a load found there stays until the first write.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"
#include "support/storage_file_builder.h"

namespace k9erepl::test {
namespace {

const std::string kForcedAlways = With(kFlushAlways, "force_flush=yes;");

class UndoneBytes : public ::testing::Test {
  protected:
    void SetUp() override { SKIP_WHEN_ASYNC("a failed flush to disk is reported by the flush"); }

    // A transaction whose flush to the disk fails; it is open again.
    void FailCommit(std::initializer_list<std::string_view> texts) {
        ASSERT_EQ(m_storage.Begin(), RC_OK);
        for (const std::string_view text : texts) {
            ASSERT_EQ(m_storage.Insert(text), RC_OK);
        }
        FailFlush(1);
        ASSERT_EQ(m_storage.Commit(), RC_SYSTEM_ERROR);
    }
    Strings Reopened() {
        m_storage.Reopen();
        return m_storage.Texts();
    }
    Strings Items() { return FileItems(m_storage); }

    const ScopedSystemCalls m_systemCalls;
    TestStorage m_storage{kForcedAlways};
};

}  // namespace

TEST_F(UndoneBytes, AreClearedByTheRollback) {
    m_storage.InsertCommitted({"kept"});
    FailCommit({"two", "three"});
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1", "r2", "r3", "c3"}));
    const std::size_t size = ReadBytes(m_storage.Path()).size();
    EXPECT_EQ(m_storage.Rollback(), RC_OK);
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"}));
    EXPECT_EQ(ReadBytes(m_storage.Path()).size(), size);
    EXPECT_EQ(Reopened(), Strings({"kept"}));
    EXPECT_EQ(m_storage.NextRev(), 2);
}

TEST_F(UndoneBytes, OfAnInsertionOutsideATransactionAreClearedAtOnce) {
    FailFlush(1);
    EXPECT_EQ(m_storage.Insert("gone"), RC_SYSTEM_ERROR);
    EXPECT_EQ(Items(), Strings({"c0"}));
    EXPECT_EQ(Reopened(), Strings());
}

TEST_F(UndoneBytes, AreClearedByTheCloseWithoutARollback) {
    m_storage.InsertCommitted({"kept"});
    FailCommit({"gone"});
    EXPECT_EQ(Reopened(), Strings({"kept"}));
    EXPECT_EQ(m_storage.NextRev(), 2);
}

TEST_F(UndoneBytes, ThatTheRollbackCannotClearAreClearedByTheClose) {
    m_storage.InsertCommitted({"kept"});
    FailCommit({"gone"});
    for (const SystemCall call : {SystemCall::kFileSize, SystemCall::kSetEnd, SystemCall::kFlush}) {
        const LogCapture log;
        Fail(call, 1);
        EXPECT_EQ(m_storage.Rollback(), RC_OK);
        EXPECT_EQ(log.CountContaining("Cannot clear abandoned data;offset "), 1U) << log;
        EXPECT_EQ(m_storage.State(), StorageState::kOpen);
        EXPECT_EQ(Reopened(), Strings({"kept"}));
        FailCommit({"gone"});
    }
}

TEST_F(UndoneBytes, ThatTheRollbackCannotClearAreClearedByTheNextWrite) {
    FailCommit({"gone", "gone"});
    FailSetEnd(1);
    ASSERT_EQ(m_storage.Rollback(), RC_OK);
    m_storage.InsertCommitted({"other"});
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"}));
    EXPECT_EQ(Reopened(), Strings({"other"}));
}

TEST_F(UndoneBytes, StayTheClientsWhenTheCommitIsTriedAgain) {
    FailCommit({"one"});
    EXPECT_EQ(m_storage.Commit(), RC_OK);
    EXPECT_EQ(Reopened(), Strings({"one"}));
}

// What was committed before, and not flushed by then, is not given up with the transaction.
TEST_F(UndoneBytes, AreReplacedByWhatWasCommittedBefore) {
    m_storage.Reopen("flush_mode=PerTrans;flush_trans_num=3;flush_timeout=3600000;force_flush=yes");
    m_storage.InsertCommitted({"one"});
    m_storage.InsertCommitted({"two"});
    FailCommit({"gone"});
    EXPECT_EQ(Items(), Strings({"c0", "r1", "r2", "r3", "c3"}));
    EXPECT_EQ(Reopened(), Strings({"one", "two"}));
    EXPECT_EQ(Items(), Strings({"c0", "r1", "r2", "c2"}));
}

TEST_F(UndoneBytes, OfAnIdleFlushAreWrittenAgainByTheClose) {
    const bool clockStands = (SetTickCount(5000), true);
    ASSERT_TRUE(clockStands);
    m_storage.Reopen("flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=1000;force_flush=yes");
    m_storage.InsertCommitted({"one"});
    AdvanceTickCount(1000);
    FailFlush(1);
    ASSERT_EQ(m_storage.DataSource().FlushOnIdle(), RC_SYSTEM_ERROR);
    ASSERT_EQ(m_storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(Reopened(), Strings({"one"}));
}

// They hold nothing but what was committed: the reopening may find it.
TEST_F(UndoneBytes, OfTheLastFlushStay) {
    m_storage.Reopen(With(kFlushNever, "force_flush=yes;"));
    m_storage.InsertCommitted({"one"});
    FailFlush(1);
    EXPECT_EQ(Reopened(), Strings({"one"}));
}

TEST_F(UndoneBytes, ThatWereNeverThereCostNothing) {
    m_storage.InsertCommitted({"kept"});
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert("gone"), RC_OK);
    const u32 ends = CallCount(SystemCall::kSetEnd);
    const u32 sizes = CallCount(SystemCall::kFileSize);
    const u32 flushes = CallCount(SystemCall::kFlush);
    ASSERT_EQ(m_storage.Rollback(), RC_OK);
    m_storage.Close();
    EXPECT_EQ(CallCount(SystemCall::kSetEnd), ends);
    EXPECT_EQ(CallCount(SystemCall::kFileSize), sizes);
    EXPECT_EQ(CallCount(SystemCall::kFlush), flushes);
}

// --- What a load found ---------------------------------------------------------------------------

TEST(BytesThatALoadFound, StayUntilTheFirstWrite) {
    TestStorage storage(kForcedAlways, Start::kNothing);
    FileBuilder file;
    file.NewFile().Record(1, "one").Commit(0, 1).Record(2, "never committed").Zeros(100);
    file.Save(storage.Path());
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("gone"), RC_OK);
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(FileBytes(storage), file.Bytes());
    storage.Close();
    EXPECT_EQ(ReadBytes(storage.Path()), file.Bytes());
}

}  // namespace k9erepl::test
