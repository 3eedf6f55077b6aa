// Requests that the index thread itself makes in its idle call, as callbacks of the idle flush do:
// it carries out what is pending, for nobody else would, and it may even end itself.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>

#include "index/index_fixture.h"

namespace k9erepl::test {
namespace {

// Memory blocks given back since the fixture began.
std::atomic<u32> g_freed{0};
// Whether the next idle call has work to do. It outlives every thread of these tests.
std::atomic<bool> g_hasWork{false};

class IndexThreadItself : public IndexObjectTest {
  protected:
    IndexThreadItself() {
        g_freed = 0;
        platform::TheSystemCalls().freeMemory = [](void* memory) {
            platform::NativeSystemCalls().freeMemory(memory);
            ++g_freed;
        };
    }
    // A thread that stopped itself makes its last system call when it frees the image.
    static void WaitForTheEnd() {
        ASSERT_TRUE(WaitFor([] { return g_freed != 0; }));
    }
    // Runs `work` in the first idle call after the start, and waits until it has returned.
    void InTheIdleCall(const std::function<void()>& work) {
        g_hasWork = false;
        m_storage.onIdle = [work] {
            if (g_hasWork) {
                work();
                g_hasWork = false;
            }
        };
        MakeStarted(1);
        g_hasWork = true;
        ASSERT_TRUE(WaitFor([] { return !g_hasWork; }));
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
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        m_index->Stop();
        EXPECT_TRUE(m_index->IsFinished());
        EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    });
    WaitForTheEnd();
    EXPECT_EQ(m_log.CountContaining(";exit code 0x0"), 1U) << m_log;
    EXPECT_EQ(m_index->Start(), RC_OK) << "with another thread";
}

TEST_F(IndexThreadItself, MayDestroyTheIndexObject) {
    InTheIdleCall([this] {
        m_blocks.AddMany(3);
        EXPECT_EQ(SaveAsync(), RC_OK);
        m_index.reset();
    });
    WaitForTheEnd();
    EXPECT_EQ(CallCount(SystemCall::kOpen), CallCount(SystemCall::kClose));
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

}  // namespace
}  // namespace k9erepl::test
