// Requests that the index thread itself makes in its idle call, as callbacks of the idle flush do:
// it carries out what is pending, for nobody else would, and it may even end itself.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>

#include "index/index_fixture.h"

namespace k9erepl::test {
namespace {

// Says when the thread that has made it has come to its very end.
class ThreadEnd {
  public:
    explicit ThreadEnd(std::atomic<bool>& reached) : m_reached(reached) {}
    ~ThreadEnd() { m_reached = true; }
    ThreadEnd(const ThreadEnd&) = delete;
    ThreadEnd& operator=(const ThreadEnd&) = delete;

  private:
    std::atomic<bool>& m_reached;
};

std::atomic<bool> g_threadHasEnded{false};

class IndexThreadItself : public IndexObjectTest {
  protected:
    // Runs `work` in the first idle call after the start, and waits until it has returned.
    void InTheIdleCall(const std::function<void()>& work) {
        std::atomic<bool> started{false};
        std::atomic<bool> done{false};
        m_storage.onIdle = [&] {
            if (started && !done) {
                work();
                done = true;
            }
        };
        MakeStarted(1);
        started = true;
        ASSERT_TRUE(WaitFor([&] { return done.load(); }));
        if (m_index != nullptr) {
            WaitForThread();
            m_index->Stop();
        }
    }
};

TEST_F(IndexThreadItself, SavesAtOnceBehindAPendingSave) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        m_blocks.AddMany(2);
        EXPECT_EQ(SaveSync(), RC_OK);
        EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    });
    EXPECT_EQ(m_log.CountContaining("File rewritten ("), 1U) << m_log;
    EXPECT_EQ(m_log.CountContaining("File updated ("), 1U) << m_log;
}

TEST_F(IndexThreadItself, LeavesAPendingSaveToItsNextTurn) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        EXPECT_TRUE(m_index->IsBusy());
        EXPECT_EQ(FileBytes(), IndexFileBytes({}));
    });
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexThreadItself, SavesTwiceInARowAsynchronously) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        m_blocks.AddMany(2);
        EXPECT_EQ(SaveAsync(), RC_OK);
    });
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexThreadItself, EmptiesTheFileBehindAPendingSave) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        EXPECT_EQ(m_index->Empty(), RC_OK);
        EXPECT_EQ(FileBytes(), IndexFileBytes({}));
    });
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
}

TEST_F(IndexThreadItself, StartsOverBehindAPendingSave) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        m_index->StartOver();
        m_blocks.Remove(1);
        EXPECT_EQ(SaveSync(), RC_OK);
    });
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexThreadItself, EndsBehindTheIdleCallWhenThePendingSaveFailed) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        FailWrite(1);
        EXPECT_EQ(SaveSync(), RC_OK) << "a full write";
        EXPECT_FALSE(m_index->IsFinished());
    });
    EXPECT_EQ(m_log.CountContaining(";exit code 0x4"), 1U) << m_log;
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    EXPECT_EQ(m_index->Start(), RC_OK) << "and starts again";
}

TEST_F(IndexThreadItself, EndsBehindTheIdleCallWhenItStopsItself) {
    g_threadHasEnded = false;
    InTheIdleCall([this] {
        thread_local const ThreadEnd end(g_threadHasEnded);
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        m_index->Stop();
        EXPECT_TRUE(m_index->IsFinished());
        EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    });
    ASSERT_TRUE(WaitFor([] { return g_threadHasEnded.load(); }));
    EXPECT_EQ(m_log.CountContaining(";exit code 0x0"), 1U) << m_log;
    EXPECT_EQ(m_index->Start(), RC_OK) << "with another thread";
}

TEST_F(IndexThreadItself, MayDestroyTheIndexObject) {
    g_threadHasEnded = false;
    InTheIdleCall([this] {
        thread_local const ThreadEnd end(g_threadHasEnded);
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        m_index.reset();
    });
    ASSERT_TRUE(WaitFor([] { return g_threadHasEnded.load(); }));
    EXPECT_EQ(CallCount(SystemCall::kOpen), CallCount(SystemCall::kClose));
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

}  // namespace
}  // namespace k9erepl::test
