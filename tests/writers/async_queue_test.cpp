// The queue between the clients and the writing thread, used by one thread alone, and the
// coalescing buffer: what it holds, and what it settles when that is in the file.
#include "writers/async_queue.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/fault_injection.h"
#include "support/log_capture.h"
#include "support/new_fault.h"
#include "writers/async_buffer.h"
#include "writers/writer_fixture.h"

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

TEST_F(Queue, ThatIsClosedGivesWhatItHeldAndAcceptsNothing) {
    PushMany(2);
    EXPECT_EQ(Recycled(m_queue.Close()), (std::vector<u32>{0, 1}));
    EXPECT_FALSE(Push(3));
    EXPECT_TRUE(m_queue.TakeAll().IsEmpty());
}

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

TEST_F(QueueElement, IsRefusedWithoutWhatItsTypeNeeds) {
    EXPECT_EQ(CheckElem(m_elem), RC_OK);
    CAsyncQueueElem lacking[] = {m_elem, m_elem, m_elem, m_elem};
    lacking[0].filePosition = nullptr;
    lacking[1].memoryBlock = nullptr;
    lacking[2].size = 0;
    lacking[3].data = nullptr;
    for (const CAsyncQueueElem& elem : lacking) {
        EXPECT_EQ(CheckElem(elem), RC_INVALID_ARG);
    }
    CAsyncQueueElem commit{.type = AsyncElemType::kCommit, .size = 32, .data = &m_byte};
    EXPECT_EQ(CheckElem(commit), RC_OK);
    commit.size = 0;
    EXPECT_EQ(CheckElem(commit), RC_INVALID_ARG);
    commit.size = 32;
    commit.data = nullptr;
    EXPECT_EQ(CheckElem(commit), RC_INVALID_ARG);
    for (const auto type :
         {AsyncElemType::kBeginTransaction, AsyncElemType::kComplete, AsyncElemType::kStop}) {
        EXPECT_EQ(CheckElem({.type = type}), RC_OK);
    }
    EXPECT_TRUE(m_log.Messages().empty());
    for (const u32 type : {2U, 6U}) {
        EXPECT_EQ(CheckElem({.type = static_cast<AsyncElemType>(type)}), RC_INVALID_ARG);
        const std::string text = "Wrong async queue element type " + std::to_string(type);
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_ERROR, text)) << m_log;
        EXPECT_EQ(m_log.CodeOf(text), RC_INVALID_ARG);
    }
}

class Buffer : public ::testing::Test {
  protected:
    AsyncBuffer& Make(u32 capacity) {
        m_buffer = std::make_unique<AsyncBuffer>(capacity);
        EXPECT_TRUE(m_buffer->Init());
        return *m_buffer;
    }
    const u8* Place(std::string_view text, i64 offset, std::atomic<i32>* pending = nullptr,
                    std::atomic<i64>* position = nullptr) {
        const auto* const data = reinterpret_cast<const u8*>(text.data());
        return m_buffer->Place({data, static_cast<u32>(text.size()), pending, position}, offset);
    }
    bool Settle() {
        bool released = false;
        m_buffer->Settle(&released);
        return released;
    }

    ScopedSystemCalls m_systemCalls;
    std::unique_ptr<AsyncBuffer> m_buffer;
    const u8 m_byte = 0x5A;
    std::atomic<i32> m_pending{0};
    std::atomic<i64> m_position{kUnknownOffset};
};

TEST_F(Buffer, HoldsPiecesOneBehindTheOtherUntilTheyAreSettled) {
    AsyncBuffer& buffer = Make(10);
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_EQ(Place("first", 100), buffer.Bytes());
    EXPECT_EQ(Place("then", 105), buffer.Bytes() + 5);
    EXPECT_EQ(buffer.Size(), 9U);
    EXPECT_EQ(buffer.Free(), 1U);
    EXPECT_EQ(Bytes(buffer.Bytes(), buffer.Bytes() + 9), BytesOf("firstthen"));
    Settle();
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_EQ(Place("xyz", 3), buffer.Bytes());
    EXPECT_EQ(Make(0).Free(), 0U);
    EXPECT_TRUE(m_buffer->IsEmpty());
}

TEST_F(Buffer, LiesOnTheHeapAbove16384Bytes) {
    EXPECT_EQ(Make(16384).Free(), 16384U);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), 0U);
    Make(16385);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), 1U);
    EXPECT_NE(Place(std::string(16385, 'x'), 0), nullptr);
    EXPECT_EQ(m_buffer->Free(), 0U);
    FailAlloc(1);
    EXPECT_FALSE(AsyncBuffer(16385).Init());
}

TEST_F(Buffer, SettlingFillsInUnknownOffsetsOnly) {
    std::atomic<i64> known{77};
    Make(10);
    Place("one", 1056, nullptr, &m_position);
    Place("two", 1059, nullptr, &m_position);
    Place("xyz", 1062, nullptr, &known);
    EXPECT_EQ(m_position, kUnknownOffset);
    Settle();
    EXPECT_EQ(m_position, 1056);
    EXPECT_EQ(known, 77);
}

TEST_F(Buffer, SettlingReleasesEachPieceOnceAndTellsWhenABlockHasNoneLeft) {
    m_pending = 3;
    std::atomic<i32> other{1};
    Make(10);
    Place("a", 0, &m_pending);
    Place("b", 1, &m_pending);
    EXPECT_EQ(m_pending, 3);
    EXPECT_FALSE(Settle());
    EXPECT_FALSE(Settle());
    EXPECT_EQ(m_pending, 1);
    Place("c", 2, &other);
    EXPECT_TRUE(Settle());
    EXPECT_EQ(m_pending, 1);
    EXPECT_EQ(other, 0);
}

TEST_F(Buffer, APieceWithoutACountReleasesNothing) {
    EXPECT_FALSE(ReleasePiece(nullptr));
    m_pending = 2;
    EXPECT_FALSE(ReleasePiece(&m_pending));
    EXPECT_TRUE(ReleasePiece(&m_pending));
}

}  // namespace
}  // namespace k9erepl::test
