// The hand-over between requesters and the index thread, thousands of times in random order.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>
#include <mutex>
#include <random>
#include <thread>

#include "index/index_fixture.h"

namespace k9erepl::test {
namespace {

using IndexObjectThreads = IndexObjectTest;

TEST_F(IndexObjectThreads, NoRandomRequestIsLost) {
    std::mt19937 random(20261121);
    MakeStarted(0);  // the idle call comes all the time
    for (u32 i = 0; i < 5000; ++i) {
        m_blocks.AddMany(static_cast<u32>(random() % 3));
        ASSERT_EQ(random() % 4 == 0 ? SaveSync() : SaveAsync(), RC_OK);
        if (random() % 64 == 0) {
            m_index->StartOver();
        }
    }
    WaitForThread();
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(EntriesOf(FileBytes()), m_blocks.All());
    EXPECT_GT(m_storage.IdleCalls(), 0U);
    EXPECT_FALSE(m_index->IsFinished());
}

TEST_F(IndexObjectThreads, EveryAsynchronousSaveIsInTheFileWhenTheThreadIsIdle) {
    MakeStarted();
    for (u32 i = 0; i < 500; ++i) {
        m_blocks.AddMany(1);
        ASSERT_EQ(SaveAsync(), RC_OK);
        WaitForThread();
        ASSERT_EQ(FileBytes().size(), 32 + 16 * m_blocks.All().size());
    }
    EXPECT_EQ(EntriesOf(FileBytes()), m_blocks.All());
}

TEST_F(IndexObjectThreads, FlagsMayBeTestedFromAnywhereAtAnyTime) {
    Make();
    std::atomic<bool> end{false};
    std::atomic<u32> seenRunning{0};
    std::thread observer([&] {
        while (!end) {
            (void)m_index->IsBusy();
            seenRunning += m_index->IsFinished() ? 0U : 1U;
        }
    });
    for (u32 i = 0; i < 50; ++i) {
        ASSERT_EQ(m_index->Start(), RC_OK);
        m_blocks.AddMany(2);
        EXPECT_EQ(i % 2 == 0 ? SaveSync() : SaveAsync(), RC_OK);
        m_index->Stop();
        EXPECT_EQ(EntriesOf(FileBytes()), m_blocks.All());
    }
    ASSERT_EQ(m_index->Start(), RC_OK);
    EXPECT_TRUE(WaitFor([&] { return seenRunning != 0; }));
    end = true;
    observer.join();
}

TEST_F(IndexObjectThreads, RequestersAfterEachOtherNeedNoMoreThanTheStoragesLock) {
    MakeStarted(1);
    std::mutex storageLock;
    const auto work = [&](u32 seed) {
        std::mt19937 random(seed);
        for (u32 i = 0; i < 500; ++i) {
            const std::lock_guard lock(storageLock);
            m_blocks.AddMany(1);
            EXPECT_EQ(random() % 2 == 0 ? SaveSync() : SaveAsync(), RC_OK);
        }
    };
    std::thread first(work, 1);
    std::thread second(work, 2);
    first.join();
    second.join();
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(EntriesOf(FileBytes()), m_blocks.All());
}

}  // namespace
}  // namespace k9erepl::test
