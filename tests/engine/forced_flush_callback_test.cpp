// OnWriteToFile with force_flush: it comes before the flush to disk, which may still fail. What it
// would commit there would go with a failed flush, so it commits nothing.
#include <gtest/gtest.h>

#include <optional>
#include <utility>

#include "engine/clear_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

const std::string kForced = With(kFlushAlways, "force_flush=yes;");

// A storage whose OnWriteToFile runs `action` in its next call only.
class OnWriteToFileBeforeTheDisk : public ::testing::Test {
  protected:
    void SetUp() override { SKIP_WHEN_ASYNC("OnWriteToFile may call back in"); }

    void InTheNextCall(std::function<void()> action) {
        m_action = std::move(action);
        m_written.SetAsOnWriteToFile(m_storage);
    }
    // Begin and both kinds of insertion answer 27 with their messages and change nothing.
    void ExpectNothingMayBegin(TestStorage& storage) {
        const i64 nextRev = storage.NextRev();
        const LogCapture log;
        EXPECT_EQ(storage.Begin(), RC_WRONG_STATE);
        EXPECT_EQ(log.CodeOf("Failed to begin trans;state 2"), RC_WRONG_STATE) << log;
        EXPECT_EQ(storage.Insert("nested"), RC_WRONG_STATE);
        EXPECT_EQ(log.CodeOf("Failed to insert;state 2"), RC_WRONG_STATE) << log;
        EXPECT_EQ(storage.InsertP(nextRev, "nested"), RC_WRONG_STATE);
        EXPECT_EQ(log.CodeOf("Failed to insert prepared;state 2"), RC_WRONG_STATE) << log;
        EXPECT_EQ(log.Messages().size(), 3U) << log;
        EXPECT_EQ(storage.NextRev(), nextRev);
        ++m_calls;
    }
    void ExpectNothingMayBegin() { ExpectNothingMayBegin(m_storage); }

    const ScopedSystemCalls m_systemCalls;
    u32 m_calls = 0;
    std::function<void()> m_action;
    Notified m_written{[this](i64) {
        if (const auto action = std::exchange(m_action, nullptr)) {
            action();
        }
    }};
    TestStorage m_storage{kForced};
};

}  // namespace

TEST_F(OnWriteToFileBeforeTheDisk, OfACommitMayNotBeginNorInsert) {
    InTheNextCall([this] {
        ExpectNothingMayBegin();
        EXPECT_EQ(m_storage.Commit(), RC_NO_TRANSACTION);
        EXPECT_EQ(m_storage.Rollback(), RC_NO_TRANSACTION_TO_ROLLBACK);
        EXPECT_EQ(m_storage.Texts(), Strings({"outer"})) << "it may read";
    });
    m_storage.InsertCommitted({"outer"});
    EXPECT_EQ(m_calls, 1U);
    m_storage.InsertCommitted({"next"});
    EXPECT_EQ(FileItems(m_storage), Strings({"c0", "r1", "c1", "r2", "c2"}));
}

TEST_F(OnWriteToFileBeforeTheDisk, LosesNothingWhenTheFlushToDiskFails) {
    InTheNextCall([this] { ExpectNothingMayBegin(); });
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert("outer"), RC_OK);
    FailFlush(1);
    EXPECT_EQ(m_storage.Commit(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_calls, 1U);
    EXPECT_EQ(m_storage.Rollback(), RC_OK);
    EXPECT_EQ(m_storage.NextRev(), 1);
    m_storage.InsertCommitted({"other"});
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Strings({"other"}));
}

TEST_F(OnWriteToFileBeforeTheDisk, OfARetriedCommitMayNotBeginNorInsert) {
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert("outer"), RC_OK);
    FailFlush(1);
    ASSERT_EQ(m_storage.Commit(), RC_SYSTEM_ERROR);
    InTheNextCall([this] {
        EXPECT_EQ(m_storage.Insert("nested"), RC_WRONG_STATE);
        ++m_calls;
    });
    EXPECT_EQ(m_storage.Commit(), RC_OK);
    EXPECT_EQ(m_calls, 1U);
    EXPECT_EQ(m_storage.Texts(), Strings({"outer"}));
}

// The idle flush writes what was committed before the client's transaction, which stays open.
TEST_F(OnWriteToFileBeforeTheDisk, OfAnIdleFlushMayNotCommitTheClientsTransaction) {
    m_storage.Reopen(
        "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=3600000;force_flush=yes");
    m_storage.InsertCommitted({"one"});
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert("two"), RC_OK);
    InTheNextCall([this] {
        const LogCapture log;
        EXPECT_EQ(m_storage.Insert("nested"), RC_WRONG_STATE);
        EXPECT_EQ(m_storage.Commit(), RC_WRONG_STATE);
        EXPECT_EQ(log.CodeOf("Failed to commit;state 2"), RC_WRONG_STATE) << log;
        ++m_calls;
    });
    FailFlush(1);
    EXPECT_EQ(StorageAccess::Flush(m_storage.Object()), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_calls, 1U);
    EXPECT_EQ(m_storage.Commit(), RC_OK);
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Strings({"one", "two"}));
}

TEST_F(OnWriteToFileBeforeTheDisk, OfAClearMayNotBeginNorInsert) {
    for (const u32 mode : {kLogical, kSqueeze, kSqueezeBackup}) {
        m_storage.InsertCommitted({"gone", "kept"});
        const i64 kept = m_storage.NextRev() - 1;
        InTheNextCall([this] { ExpectNothingMayBegin(); });
        EXPECT_EQ(m_storage.Clear(kept, mode), RC_OK);
        EXPECT_EQ(m_storage.Texts(), Strings({"kept"}));
    }
    EXPECT_EQ(m_calls, 3U);
}

TEST_F(OnWriteToFileBeforeTheDisk, OfTheLastFlushMayNotBeginNorInsert) {
    m_storage.Reopen(With(kFlushNever, "force_flush=yes;"));
    m_storage.InsertCommitted({"one"});
    InTheNextCall([this] { ExpectNothingMayBegin(); });
    m_storage.Reopen();
    EXPECT_EQ(m_calls, 1U);
    EXPECT_EQ(m_storage.Texts(), Strings({"one"}));
}

TEST_F(OnWriteToFileBeforeTheDisk, ButOnFlushMayInsert) {
    Notified flushed([this, first = true](i64) mutable {
        if (std::exchange(first, false)) {
            EXPECT_EQ(m_storage.Insert("nested"), RC_OK);
        }
    });
    flushed.SetAsOnFlush(m_storage);
    m_storage.InsertCommitted({"outer"});
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Strings({"outer", "nested"}));
}

// The flush of a clear that OnFlush makes is one in the middle of nothing but itself.
TEST_F(OnWriteToFileBeforeTheDisk, OfAClearInOnFlushMayNotInsert) {
    Notified flushed([this, first = true](i64) mutable {
        if (std::exchange(first, false)) {
            EXPECT_EQ(m_storage.Insert("nested"), RC_OK);
            InTheNextCall([this] { ExpectNothingMayBegin(); });
            EXPECT_EQ(m_storage.Clear(2, kLogical), RC_OK);
        }
    });
    flushed.SetAsOnFlush(m_storage);
    m_storage.InsertCommitted({"outer"});
    EXPECT_EQ(m_calls, 1U);
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Strings({"nested"}));
}

}  // namespace k9erepl::test
