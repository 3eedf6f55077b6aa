// OnFlush of a flush that the index thread makes on its own: it may remove records, more than once,
// although each removal saves the index.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "engine/clear_fixture.h"
#include "support/fault_injection.h"

namespace k9erepl::test {
namespace {

// A storage that only the index thread flushes. Its OnFlush runs an action once, on that thread.
class OnFlushOfTheIndexThread : public ::testing::Test {
  protected:
    // Commits `count` records while no time goes by, which would let a commit flush, and waits
    // until the flush has run `action`.
    void WhenFlushed(u32 count, std::function<void()> action) {
        m_action = std::move(action);
        for (u32 n = 0; n < count; ++n) {
            ASSERT_EQ(m_storage.Insert(ClearableStorage::TextOf(1)), RC_OK);
        }
        AdvanceTickCount(1);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (!m_done && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        ASSERT_TRUE(m_done);
        EXPECT_NE(m_thread, std::this_thread::get_id());
    }

    ScopedSystemCalls m_systemCalls;
    bool m_clockStands = (SetTickCount(1000), true);  // before the storage asks for the time
    std::function<void()> m_action;
    std::thread::id m_thread;
    std::atomic<bool> m_done{false};
    Notified m_flushed{[this](i64 rev) {
        if (!m_done && rev >= 20) {
            m_thread = std::this_thread::get_id();
            m_action();
            m_done = true;
        }
    }};
    TestStorage m_storage{
        "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=1;read_buffers_count=1;"
        "block_size=138;cache_type=Last2;index_hint=1"};

    void SetUp() override { m_flushed.SetAsOnFlush(m_storage); }
};

}  // namespace

TEST_F(OnFlushOfTheIndexThread, MayClearThenSqueeze) {
    WhenFlushed(20, [this] {
        EXPECT_EQ(m_storage.Clear(5, kLogical), RC_OK);
        EXPECT_EQ(m_storage.Clear(9, kSqueeze), RC_OK);
    });
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(9, 20));
    m_storage.Reopen();
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(9, 20));
}

TEST_F(OnFlushOfTheIndexThread, MayClearThenTruncate) {
    WhenFlushed(20, [this] {
        EXPECT_EQ(m_storage.Clear(5, kLogical), RC_OK);
        EXPECT_EQ(m_storage.Truncate(), RC_OK);
    });
    EXPECT_EQ(m_storage.NextRev(), 1);
    m_storage.InsertCommitted({"first"});
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Strings({"first"}));
}

TEST_F(OnFlushOfTheIndexThread, MayClearThenClearEverything) {
    WhenFlushed(20, [this] {
        EXPECT_EQ(m_storage.Clear(5, kLogical), RC_OK);
        EXPECT_EQ(m_storage.Clear(21, kLogical), RC_OK);
    });
    EXPECT_EQ(m_storage.Texts(), Strings());
    m_storage.Reopen();
    EXPECT_EQ(m_storage.NextRev(), 21);
}

TEST_F(OnFlushOfTheIndexThread, MaySqueezeAgainAndAgain) {
    WhenFlushed(20, [this] {
        for (const i64 rev : {3, 6, 9, 12}) {
            EXPECT_EQ(m_storage.Clear(rev, kLogical), RC_OK);
            EXPECT_EQ(m_storage.Clear(rev + 1, kSqueezeBackup), RC_OK);
        }
    });
    m_storage.Reopen();
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(13, 20));
}

}  // namespace k9erepl::test
