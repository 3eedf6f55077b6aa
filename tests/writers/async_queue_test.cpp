// The queue between the clients and the writing thread, used by one thread alone.
#include "writers/async_queue.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>
#include <string>
#include <vector>

#include "support/fault_injection.h"
#include "support/log_capture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

class Queue : public ::testing::Test {
  protected:
    Queue() { EXPECT_TRUE(m_queue.Init()); }

    bool Push(u32 size) {
        CAsyncQueueElem* const elem = m_queue.NewElem();
        elem->size = size;
        const bool pushed = m_queue.Push(elem);
        if (!pushed) {
            m_queue.GiveBack(elem);
        }
        return pushed;
    }
    void PushMany(u32 count) {
        for (u32 n = 0; n < count; ++n) {
            ASSERT_TRUE(Push(n));
        }
    }
    // Takes everything; the sizes in order.
    std::vector<u32> Taken() { return Recycled(m_queue.TakeAll()); }
    std::vector<u32> Recycled(AsyncElems elems) {
        std::vector<u32> sizes;
        AsyncElems done;
        while (!elems.IsEmpty()) {
            CAsyncQueueElem* const elem = elems.TakeFirst();
            sizes.push_back(elem->size);
            done.Append(elem);
        }
        m_queue.Recycle(done);
        EXPECT_TRUE(done.IsEmpty());
        return sizes;
    }
    static u32 Sets() { return CallCount(SystemCall::kSetEvent); }

    ScopedSystemCalls m_systemCalls;
    LogCapture m_log;
    AsyncQueue m_queue;
};

TEST_F(Queue, GivesEverythingInTheOrderOfPushing) {
    PushMany(4);
    EXPECT_EQ(Taken(), (std::vector<u32>{0, 1, 2, 3}));
    EXPECT_TRUE(m_queue.TakeAll().IsEmpty());
    ASSERT_TRUE(Push(9));
    EXPECT_EQ(Taken(), std::vector<u32>{9});
}

TEST_F(Queue, APushWakesTheThread) {
    EXPECT_EQ(Sets(), 0U);
    ASSERT_TRUE(Push(1));
    EXPECT_EQ(m_queue.WaitForTask(), platform::WaitResult::kSignalled);
}

TEST_F(Queue, OnlyTheFirstQueuedElementWakes) {
    PushMany(3);
    EXPECT_EQ(Sets(), 1U);
    Taken();
    PushMany(2);
    EXPECT_EQ(Sets(), 2U);
}

TEST_F(Queue, AWakeThatFailedIsTriedAgainByTheNextPush) {
    FailSetEvent(1);
    ASSERT_TRUE(Push(1));
    ASSERT_TRUE(Push(2));
    EXPECT_EQ(Sets(), 2U);
    EXPECT_EQ(m_queue.WaitForTask(), platform::WaitResult::kSignalled);
    ASSERT_TRUE(Push(3));
    EXPECT_EQ(Sets(), 2U);
    EXPECT_EQ(Taken(), (std::vector<u32>{1, 2, 3}));
}

TEST_F(Queue, CanBeWokenWithoutAnElement) {
    m_queue.Wake();
    EXPECT_EQ(m_queue.WaitForTask(), platform::WaitResult::kSignalled);
    EXPECT_TRUE(m_queue.TakeAll().IsEmpty());
}

TEST_F(Queue, ReusesElementsWithoutAllocating) {
    PushMany(3);
    Taken();
    const u64 allocations = NewCallsOfThisThread();
    for (u32 round = 0; round < 5; ++round) {
        PushMany(3);
        AsyncElems batch = m_queue.TakeAll();
        m_queue.Recycle(batch);
    }
    EXPECT_EQ(NewCallsOfThisThread(), allocations);
}

TEST_F(Queue, AReusedElementIsLikeANewOne) {
    std::atomic<i64> position{0};
    CAsyncQueueElem* elem = m_queue.NewElem();
    *elem = {.type = AsyncElemType::kStop, .size = 5, .filePosition = &position, .ticket = 7};
    m_queue.GiveBack(elem);
    elem = m_queue.NewElem();
    EXPECT_EQ(elem->type, AsyncElemType::kWrite);
    EXPECT_EQ(elem->size, 0U);
    EXPECT_EQ(elem->filePosition, nullptr);
    EXPECT_EQ(elem->ticket, 0U);
    m_queue.GiveBack(elem);
}

TEST_F(Queue, KeepsNoMoreThan16384ElementsForReuse) {
    PushMany(16384);
    CAsyncQueueElem* const oneMore = new CAsyncQueueElem;
    AsyncElems more;
    more.Append(oneMore);
    AsyncElems batch = m_queue.TakeAll();
    m_queue.Recycle(batch);
    m_queue.Recycle(more);
    EXPECT_TRUE(more.IsEmpty());
    const u64 allocations = NewCallsOfThisThread();
    PushMany(16384);
    EXPECT_EQ(NewCallsOfThisThread(), allocations);
    PushMany(1);
    EXPECT_EQ(NewCallsOfThisThread(), allocations + 1);
}

TEST_F(Queue, HasNoElementWhenThereIsNoMemory) {
    const FailNthNew fault(1);
    EXPECT_EQ(m_queue.NewElem(), nullptr);
    EXPECT_TRUE(fault.Struck());
}

TEST_F(Queue, ThatIsClosedGivesWhatItHeldAndAcceptsNothing) {
    PushMany(2);
    EXPECT_EQ(Recycled(m_queue.Close()), (std::vector<u32>{0, 1}));
    EXPECT_FALSE(Push(3));
    EXPECT_TRUE(m_queue.TakeAll().IsEmpty());
}

TEST_F(Queue, FreesWhatItStillHolds) {  // the sanitizers see to it
    PushMany(2);
    Taken();
    PushMany(1);
}

// --- What the elements need ------------------------------------------------------------------

class QueueElement : public ::testing::Test {
  protected:
    QueueElement() {
        m_elem.data = &m_byte;
        m_elem.size = 1;
        m_elem.memoryBlock = &m_block;
        m_elem.filePosition = &m_position;
    }

    LogCapture m_log;
    u8 m_byte = 0;
    K9eReplBlock m_block{};
    std::atomic<i64> m_position{0};
    CAsyncQueueElem m_elem;
};

TEST_F(QueueElement, AWriteThatHasEverythingIsAccepted) {
    EXPECT_EQ(CheckElem(m_elem), RC_OK);
}

TEST_F(QueueElement, AWriteWithoutAPositionFillInIsRefusedWith2) {
    m_elem.filePosition = nullptr;
    EXPECT_EQ(CheckElem(m_elem), 2U);
}

TEST_F(QueueElement, AWriteWithoutBytesOrBlockIsRefused) {
    m_elem.memoryBlock = nullptr;
    EXPECT_EQ(CheckElem(m_elem), RC_INVALID_ARG);
    m_elem.memoryBlock = &m_block;
    m_elem.size = 0;
    EXPECT_EQ(CheckElem(m_elem), RC_INVALID_ARG);
    m_elem.size = 1;
    m_elem.data = nullptr;
    EXPECT_EQ(CheckElem(m_elem), RC_INVALID_ARG);
}

TEST_F(QueueElement, ACommitNeedsItsBytesOnly) {
    CAsyncQueueElem commit{.type = AsyncElemType::kCommit, .size = 32, .data = &m_byte};
    EXPECT_EQ(CheckElem(commit), RC_OK);
    commit.size = 0;
    EXPECT_EQ(CheckElem(commit), RC_INVALID_ARG);
    commit.size = 32;
    commit.data = nullptr;
    EXPECT_EQ(CheckElem(commit), RC_INVALID_ARG);
}

TEST_F(QueueElement, TheOthersNeedNothing) {
    for (const auto type :
         {AsyncElemType::kBeginTransaction, AsyncElemType::kComplete, AsyncElemType::kStop}) {
        EXPECT_EQ(CheckElem({.type = type}), RC_OK);
    }
    EXPECT_TRUE(m_log.Messages().empty());
}

TEST_F(QueueElement, OfAnotherTypeIsRefused) {
    for (const u32 type : {2U, 6U}) {
        EXPECT_EQ(CheckElem({.type = static_cast<AsyncElemType>(type)}), RC_INVALID_ARG);
        const std::string text = "Wrong async queue element type " + std::to_string(type);
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_ERROR, text)) << m_log;
        EXPECT_EQ(m_log.CodeOf(text), RC_INVALID_ARG);
    }
}

}  // namespace
}  // namespace k9erepl::test
