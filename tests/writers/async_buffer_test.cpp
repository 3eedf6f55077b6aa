// The coalescing buffer by itself: what it holds, and what it settles when that is in the file.
#include "writers/async_buffer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "support/fault_injection.h"
#include "support/new_fault.h"
#include "writers/writer_fixture.h"

namespace k9erepl::test {
namespace {

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

TEST_F(Buffer, HoldsPiecesOneBehindTheOther) {
    AsyncBuffer& buffer = Make(10);
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_EQ(Place("first", 100), buffer.Bytes());
    EXPECT_EQ(Place("then", 105), buffer.Bytes() + 5);
    EXPECT_EQ(buffer.Size(), 9U);
    EXPECT_EQ(buffer.Free(), 1U);
    EXPECT_EQ(Bytes(buffer.Bytes(), buffer.Bytes() + 9), BytesOf("firstthen"));
}

TEST_F(Buffer, LiesInsideTheObjectUpTo16384Bytes) {
    Make(16384);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), 0U);
    EXPECT_EQ(m_buffer->Free(), 16384U);
}

TEST_F(Buffer, LiesOnTheHeapAbove16384Bytes) {
    Make(16385);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), 1U);
    EXPECT_NE(Place(std::string(16385, 'x'), 0), nullptr);
    EXPECT_EQ(m_buffer->Free(), 0U);
}

TEST_F(Buffer, SaysWhenThereIsNoMemoryForIt) {
    FailAlloc(1);
    EXPECT_FALSE(AsyncBuffer(16385).Init());
}

TEST_F(Buffer, OfNoBytesHasNoRoom) {
    Make(0);
    EXPECT_EQ(m_buffer->Free(), 0U);
    EXPECT_TRUE(m_buffer->IsEmpty());
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

TEST_F(Buffer, SettlingReleasesEachPieceOnce) {
    m_pending = 3;
    Make(10);
    Place("a", 0, &m_pending);
    Place("b", 1, &m_pending);
    EXPECT_EQ(m_pending, 3);
    EXPECT_FALSE(Settle());
    EXPECT_EQ(m_pending, 1);
    EXPECT_FALSE(Settle());
    EXPECT_EQ(m_pending, 1);
}

TEST_F(Buffer, SettlingTellsWhenABlockHasNoQueuedWriteAnyMore) {
    std::atomic<i32> other{2};
    m_pending = 1;
    Make(10);
    Place("a", 0, &m_pending);
    Place("b", 1, &other);
    EXPECT_TRUE(Settle());
    EXPECT_EQ(m_pending, 0);
    EXPECT_EQ(other, 1);
}

TEST_F(Buffer, IsEmptyAfterSettling) {
    Make(3);
    Place("abc", 0);
    Settle();
    EXPECT_TRUE(m_buffer->IsEmpty());
    EXPECT_EQ(Place("xyz", 3), m_buffer->Bytes());
}

TEST_F(Buffer, HoldsNothingOfAPieceThatItHasNoMemoryFor) {
    Make(10);
    {
        const FailNthNew fault(1);
        EXPECT_EQ(Place("abc", 0, &m_pending), nullptr);
    }
    EXPECT_TRUE(m_buffer->IsEmpty());
}

TEST_F(Buffer, AllocatesNothingOnceItWasFull) {
    Make(8);
    for (u32 n = 0; n < 8; ++n) {
        m_buffer->Place({&m_byte, 1, &m_pending, nullptr}, n);
    }
    Settle();
    const u64 allocations = NewCallsOfThisThread();
    for (u32 n = 0; n < 8; ++n) {
        m_buffer->Place({&m_byte, 1, &m_pending, nullptr}, n);
    }
    EXPECT_EQ(NewCallsOfThisThread(), allocations);
}

TEST_F(Buffer, APieceWithoutACountReleasesNothing) {
    EXPECT_FALSE(ReleasePiece(nullptr));
    m_pending = 2;
    EXPECT_FALSE(ReleasePiece(&m_pending));
    EXPECT_TRUE(ReleasePiece(&m_pending));
}

}  // namespace
}  // namespace k9erepl::test
