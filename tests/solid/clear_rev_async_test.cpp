// Raising the clear revision through the asynchronous writer, where other work may still be queued.
#include "platform/system_calls.h"
#include "platform/thread.h"
#include "solid/solid_fixture.h"
#include "writers/async_calls.h"

namespace k9erepl::test {
namespace {

class AsyncClearRev : public SolidTest {
  protected:
    AsyncClearRev() {
        s_test = this;
        platform::TheSystemCalls().allocMemory = Alloc;
        Open(TwoTransactions(), "async_mode=yes");
        EXPECT_EQ(Scan(), RC_OK);
    }
    ~AsyncClearRev() override {
        m_calls.m_tasks.Open();
        m_solid.Close();
    }

    // The commit block finds no memory, and what was queued before it reaches the file meanwhile.
    void FailTheCommitBlockWhileTheQueueIsWritten() { m_failing = true; }
    void RunAll() {
        m_calls.m_tasks.Open();
        ASSERT_EQ(m_solid.CompleteAsyncTasks(), RC_OK);
    }
    TCommitBlock CommitBlockAt(i64 offset) const {
        return LoadUnaligned<TCommitBlock>(ReadBytes(Path()).data() + offset);
    }
    u32 QueueRecord(i64 rev, i64 commitRev) {
        FileBuilder items;
        items.Record(rev, "data").Commit(0, commitRev);
        m_block = items.Bytes();
        const auto size = static_cast<u32>(m_block.size());
        auto* const commitBlock =
            reinterpret_cast<TCommitBlock*>(m_block.data() + size - kCommitBlockSize);
        return m_solid.WriteItems(m_block.data(), size, commitBlock, &m_head, commitRev,
                                  &m_position);
    }

    AsyncCalls m_calls;
    std::vector<u8> m_block;
    K9eReplBlock m_head{};
    std::atomic<i64> m_position{kUnknownOffset};

  private:
    static void* Alloc(std::size_t size) {
        if (size != kCommitBlockSize || !s_test->m_failing) {
            return platform::NativeSystemCalls().allocMemory(size);
        }
        s_test->m_failing = false;
        s_test->m_calls.m_tasks.LetOnePass();
        s_test->m_calls.m_tasks.WaitUntilHeld();
        return nullptr;
    }

    static inline AsyncClearRev* s_test = nullptr;
    std::atomic<bool> m_failing{false};
};

TEST_F(AsyncClearRev, ThatCannotBeQueuedStaysAsItWas) {
    ASSERT_EQ(QueueRecord(4, 4), RC_OK);
    FailTheCommitBlockWhileTheQueueIsWritten();
    EXPECT_EQ(m_solid.SetClearRev(2), RC_NO_MEMORY);
    EXPECT_EQ(m_head.pendingWrites, 0);
    ASSERT_EQ(QueueRecord(5, 5), RC_OK);
    RunAll();
    EXPECT_EQ(ItemsOfFile().back(), "commit 0 5");
}

TEST_F(AsyncClearRev, DoesNotReachACommitBlockQueuedBefore) {
    ASSERT_EQ(QueueRecord(4, 4), RC_OK);
    ASSERT_EQ(m_solid.SetClearRev(2), RC_OK);
    RunAll();
    EXPECT_EQ(CommitBlockAt(kTwoTransactionsEnd + 28).clearRev, 0);
    EXPECT_EQ(CommitBlockAt(kTwoTransactionsEnd + 28 + kCommitBlockSize).clearRev, 2);
    EXPECT_EQ(ItemsOfFile().back(), "commit 2 4");
}

}  // namespace
}  // namespace k9erepl::test
