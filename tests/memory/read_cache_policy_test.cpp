// Which buffer of the read cache a miss refills.
#include <gtest/gtest.h>

#include <limits>

#include "memory/read_cache_fixture.h"

namespace k9erepl::test {

namespace {

class ReadCachePolicy : public ReadCacheTest {
  protected:
    static constexpr i64 kFirst = 0;
    static constexpr i64 kSecond = kBuffer;
    static constexpr i64 kThird = 3 * kBuffer;

    u32 RequestAt(u32 tickCountMs, i64 offset) {
        SetTickCount(tickCountMs);
        return Request(offset, 4);
    }
};

}  // namespace

TEST_F(ReadCachePolicy, WithOneBufferAlternatingRequestsReadEveryTime) {
    UseBuffers(1);
    ReadBuffer reader;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Request(reader, kFirst, 4), 1U);
        EXPECT_EQ(Request(reader, kThird, 4), 1U);
    }
}

TEST_F(ReadCachePolicy, AReaderThatMovesForwardReusesItsOwnBuffer) {
    UseBuffers(2);
    EXPECT_EQ(Request(kFirst, 4), 1U);
    ReadBuffer reader;
    for (i64 piece = 1; piece < 5; ++piece) {
        EXPECT_EQ(Request(reader, piece * kBuffer, 4), 1U);
    }
    EXPECT_EQ(Request(kFirst, 4), 0U);
}

TEST_F(ReadCachePolicy, TwoReadersKeepABufferEach) {
    UseBuffers(2);
    ReadBuffer low;
    ReadBuffer high;
    EXPECT_EQ(Request(low, kFirst, 4), 1U);
    EXPECT_EQ(Request(high, kThird, 4), 1U);
    EXPECT_EQ(Request(low, kSecond, 4), 1U);
    EXPECT_EQ(Request(high, kThird + 50, 4), 0U);
    EXPECT_EQ(Request(low, kSecond + 50, 4), 0U);
}

TEST_F(ReadCachePolicy, AReaderWhoseBufferWasTakenByAnotherTakesTheLeastRecentlyUsed) {
    UseBuffers(1);
    ReadBuffer robbed;
    EXPECT_EQ(Request(robbed, kFirst, 4), 1U);
    EXPECT_EQ(Request(kThird, 4), 1U);
    EXPECT_EQ(Request(robbed, kSecond, 4), 1U);
}

TEST_F(ReadCachePolicy, EmptyBuffersAreTakenFirst) {
    UseBuffers(3);
    EXPECT_EQ(Request(kThird, 4), 1U);
    EXPECT_EQ(Request(kFirst, 4), 1U);
    EXPECT_EQ(Request(kSecond, 4), 1U);
    EXPECT_EQ(Request(kFirst, 4) + Request(kSecond, 4) + Request(kThird, 4), 0U);
}

TEST_F(ReadCachePolicy, TheLeastRecentlyUsedBufferIsRefilled) {
    UseBuffers(2);
    EXPECT_EQ(RequestAt(10, kFirst), 1U);
    EXPECT_EQ(RequestAt(20, kSecond), 1U);
    EXPECT_EQ(RequestAt(30, kFirst), 0U);
    EXPECT_EQ(RequestAt(40, kThird), 1U);
    EXPECT_EQ(RequestAt(50, kFirst), 0U);
    EXPECT_EQ(RequestAt(60, kSecond), 1U);
}

TEST_F(ReadCachePolicy, OfEquallyOldBuffersTheFirstInTheFileIsRefilled) {
    UseBuffers(2);
    EXPECT_EQ(RequestAt(10, kSecond), 1U);
    EXPECT_EQ(RequestAt(10, kFirst), 1U);
    EXPECT_EQ(RequestAt(20, kThird), 1U);
    EXPECT_EQ(RequestAt(30, kSecond), 0U);
}

TEST_F(ReadCachePolicy, AgeIsRightWhenTheTickCountWraps) {
    constexpr u32 kLast = std::numeric_limits<u32>::max();
    UseBuffers(2);
    EXPECT_EQ(RequestAt(kLast - 5, kFirst), 1U);
    EXPECT_EQ(RequestAt(3, kSecond), 1U);
    EXPECT_EQ(RequestAt(10, kThird), 1U);
    EXPECT_EQ(RequestAt(11, kSecond), 0U);
}

TEST_F(ReadCachePolicy, TheEntryHandedOutCarriesTheTimeOfItsUse) {
    UseBuffers(1);
    ReadBuffer reader;
    SetTickCount(100);
    EXPECT_EQ(Request(reader, kFirst, 4), 1U);
    EXPECT_EQ(reader.lastUse, 100U);
    SetTickCount(200);
    EXPECT_EQ(Request(reader, kFirst, 4), 0U);
    EXPECT_EQ(reader.lastUse, 200U);
}

}  // namespace k9erepl::test
