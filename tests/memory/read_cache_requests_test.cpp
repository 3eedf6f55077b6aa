// What one request to the read cache costs and hands out.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "memory/read_cache_fixture.h"

namespace k9erepl::test {

namespace {

class ReadCacheRequests : public ReadCacheTest {};

}  // namespace

TEST_F(ReadCacheRequests, AMissReadsTwoMebibytesFromTheRequestedOffset) {
    UseBuffers(2);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 1056, 4), 1U);
    EXPECT_EQ(reader.offset, 1056);
    EXPECT_EQ(reader.length, kBuffer);
    EXPECT_TRUE(Has(reader, 1056, ReadCacheManager::kBufferSize));
    EXPECT_EQ(m_file.Position(), 1056 + kBuffer);
}

TEST_F(ReadCacheRequests, ARequestInsideOneBufferCostsNoSystemCall) {
    UseBuffers(2);
    EXPECT_EQ(Request(1056, 4), 1U);
    const u32 seeks = Seeks();
    EXPECT_EQ(Request(1056, 100), 0U);
    EXPECT_EQ(Request(5000, 4096), 0U);
    EXPECT_EQ(Seeks(), seeks);
}

TEST_F(ReadCacheRequests, ARequestUpToTheLastByteOfABufferIsAHit) {
    UseBuffers(2);
    EXPECT_EQ(Request(0, ReadCacheManager::kBufferSize), 1U);
    EXPECT_EQ(Request(0, ReadCacheManager::kBufferSize), 0U);
    EXPECT_EQ(Request(kBuffer - 10, 10), 0U);
}

TEST_F(ReadCacheRequests, ARequestThatEndsPastABufferRefillsOneFromTheRequestedOffset) {
    UseBuffers(2);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 0, 4), 1U);
    EXPECT_EQ(Request(reader, kBuffer - 10, 11), 1U);
    EXPECT_EQ(reader.offset, kBuffer - 10);
    EXPECT_EQ(reader.length, kBuffer);
}

TEST_F(ReadCacheRequests, AHitHandsOutTheWholeBufferThatContainsTheOffset) {
    UseBuffers(2);
    EXPECT_EQ(Request(1056, 4), 1U);
    ReadBuffer other;
    EXPECT_EQ(Request(other, 9000, 24), 0U);
    EXPECT_EQ(other.offset, 1056);
    EXPECT_EQ(other.length, kBuffer);
}

TEST_F(ReadCacheRequests, FindsTheRightOneOfSeveralBuffers) {
    UseBuffers(3);
    EXPECT_EQ(Request(4 * kBuffer, 4), 1U);
    EXPECT_EQ(Request(0, 4), 1U);
    EXPECT_EQ(Request(2 * kBuffer, 4), 1U);
    EXPECT_EQ(Request(2 * kBuffer + 77, 100), 0U);
    EXPECT_EQ(Request(77, 100), 0U);
    EXPECT_EQ(Request(4 * kBuffer + 77, 100), 0U);
}

TEST_F(ReadCacheRequests, ReadsNothingBeyondTheWrittenData) {
    UseBuffers(1);
    m_dataEnd = 3000;
    ReadBuffer reader;
    EXPECT_EQ(m_cache.GetBuffer(2900, 200, &reader), RC_OK);
    EXPECT_EQ(reader.offset, 2900);
    EXPECT_EQ(reader.length, 100U);
    EXPECT_TRUE(Has(reader, 2900, 100));
}

TEST_F(ReadCacheRequests, AtTheEndOfTheWrittenDataNothingIsReadAndTheLengthIsZero) {
    UseBuffers(1);
    m_dataEnd = 3000;
    for (const i64 offset : {i64{3000}, i64{3001}, kFileBytes}) {
        ReadBuffer reader;
        EXPECT_EQ(m_cache.GetBuffer(offset, 4, &reader), RC_OK);
        EXPECT_EQ(reader.offset, offset);
        EXPECT_EQ(reader.length, 0U);
    }
    EXPECT_EQ(Reads() + Seeks(), 0U);
}

TEST_F(ReadCacheRequests, DataWrittenLaterIsReadWhenItIsAskedFor) {
    UseBuffers(3);
    m_dataEnd = 3000;
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 2900, 100), 1U);
    m_dataEnd = 4000;
    EXPECT_EQ(Request(reader, 2900, 100), 0U);
    EXPECT_EQ(Request(reader, 2900, 1100), 1U);
    EXPECT_EQ(reader.length, 1100U);
}

TEST_F(ReadCacheRequests, OfTwoBuffersWithOneOffsetTheLongerIsFound) {
    UseBuffers(3);
    m_dataEnd = 3000;
    EXPECT_EQ(Request(2900, 100), 1U);
    m_dataEnd = 4000;
    EXPECT_EQ(Request(2900, 1100), 1U);
    EXPECT_EQ(Request(2900, 1100), 0U);
}

TEST_F(ReadCacheRequests, AfterInvalidateEveryRequestIsAMiss) {
    UseBuffers(3);
    EXPECT_EQ(Request(0, 4), 1U);
    EXPECT_EQ(Request(3 * kBuffer, 4), 1U);
    m_cache.Invalidate();
    EXPECT_EQ(Request(0, 4), 1U);
    EXPECT_EQ(Request(3 * kBuffer, 4), 1U);
}

TEST_F(ReadCacheRequests, AfterInvalidateTheNewBytesOfTheFileAreDelivered) {
    UseBuffers(1);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 1056, 4), 1U);
    const std::vector<u8> changed{1, 2, 3, 4};
    PatchBytes(m_path, 1056, changed);
    m_cache.Invalidate();
    ASSERT_EQ(m_cache.GetBuffer(1056, 4, &reader), RC_OK);
    EXPECT_EQ(std::vector<u8>(reader.data, reader.data + 4), changed);
}

TEST_F(ReadCacheRequests, SeeksOnlyWhenTheFilePointerStandsElsewhere) {
    UseBuffers(2);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 0, 4), 1U);
    EXPECT_EQ(Request(reader, kBuffer, 4), 1U);
    EXPECT_EQ(Seeks(), 0U);
    EXPECT_EQ(Request(reader, 3 * kBuffer, 4), 1U);
    EXPECT_EQ(Seeks(), 1U);
    EXPECT_EQ(m_file.Position(), 4 * kBuffer);
}

TEST_F(ReadCacheRequests, SeeksAgainWhenTheStorageFileMovedThePointer) {
    UseBuffers(2);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 0, 4), 1U);
    ASSERT_TRUE(m_file.Seek(17));
    EXPECT_EQ(Request(reader, kBuffer, 4), 1U);
}

TEST_F(ReadCacheRequests, WorksBeyondFourGibibytes) {
    constexpr i64 kFar = (i64{1} << 32U) + 1000;
    const std::vector<u8> bytes{9, 8, 7, 6};
    ResizeFile(m_path, 2 * kFar);
    PatchBytes(m_path, kFar, bytes);
    m_dataEnd = 2 * kFar;
    UseBuffers(2);
    EXPECT_EQ(Request(0, 4), 1U);
    ReadBuffer reader;
    ASSERT_EQ(m_cache.GetBuffer(kFar, 4, &reader), RC_OK);
    EXPECT_EQ(reader.length, kBuffer);
    EXPECT_EQ(std::vector<u8>(reader.data, reader.data + 4), bytes);
}

TEST_F(ReadCacheRequests, AnyOrderOfRequestsDeliversTheFilesBytes) {
    UseBuffers(5);
    std::mt19937 random(20261121);
    std::vector<ReadBuffer> readers(7);
    for (int i = 0; i < 3000; ++i) {
        const u32 size = random() % 4096 + 1;
        const i64 offset = random() % (kFileBytes - size);
        Request(readers[random() % readers.size()], offset, size);
    }
    EXPECT_LT(Reads(), 3000U);
}

}  // namespace k9erepl::test
