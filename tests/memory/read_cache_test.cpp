// The read cache: its setting, what one request costs and hands out, which buffer a miss refills,
// and what a system that fails leaves.
#include "memory/read_cache_manager.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/tracked_file.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"
#include "support/new_fault.h"
#include "support/temp_folder.h"

namespace k9erepl::test {
namespace {

// A file whose every byte is known, a cache over it, and counts of the system calls that requests
// cost.
class ReadCacheTest : public ::testing::Test {
  protected:
    static constexpr i64 kBuffer = ReadCacheManager::kBufferSize;
    static constexpr i64 kFileBytes = 5 * kBuffer;

    ReadCacheTest() {
        std::vector<u8> bytes(static_cast<std::size_t>(kFileBytes));
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = ByteAt(static_cast<i64>(i));
        }
        WriteBytes(m_path, bytes);
        platform::FileOpenRequest request;
        request.access = platform::FileAccess::kRead;
        platform::File file;
        EXPECT_TRUE(file.Open(m_path.c_str(), request));
        m_file = platform::TrackedFile(std::move(file), 0);
    }

    // The file's byte at `offset`; neighbours differ, and so do pages and buffers.
    static u8 ByteAt(i64 offset) {
        return static_cast<u8>((static_cast<u64>(offset) * 0x9E3779B97F4A7C15U) >> 56U);
    }

    void UseBuffers(u32 count) {
        const std::string connStr = "read_buffers_count=" + std::to_string(count);
        ASSERT_EQ(m_cache.Init(connStr.c_str(), m_dataEnd), RC_OK);
    }

    // Whether `buffer` has the file's bytes from offset on, `size` of them.
    static bool Has(const ReadBuffer& buffer, i64 offset, u32 size) {
        if (buffer.offset > offset || buffer.offset + buffer.length < offset + size) {
            return false;
        }
        for (i64 at = offset; at < offset + size; ++at) {
            if (buffer.data[at - buffer.offset] != ByteAt(at)) {
                return false;
            }
        }
        return true;
    }

    // One reader's request; it must succeed with the right bytes. Returns the reads it cost.
    u32 Request(ReadBuffer& reader, i64 offset, u32 size) {
        const u32 before = Reads();
        EXPECT_EQ(m_cache.GetBuffer(offset, size, &reader), RC_OK);
        EXPECT_TRUE(Has(reader, offset, size)) << "offset " << offset << ", size " << size;
        return Reads() - before;
    }
    // The same by a reader that holds nothing yet.
    u32 Request(i64 offset, u32 size) {
        ReadBuffer fresh;
        return Request(fresh, offset, size);
    }

    static u32 Reads() { return CallCount(SystemCall::kRead); }
    static u32 Seeks() { return CallCount(SystemCall::kSeek); }

    ScopedSystemCalls m_systemCalls;
    LogCapture m_log;
    TempFolder m_folder;
    const std::string m_path = m_folder.File("storage");
    platform::TrackedFile m_file;
    std::atomic<i64> m_dataEnd{kFileBytes};
    ReadCacheManager m_cache{m_file};
};

constexpr std::size_t kBufferBytes = ReadCacheManager::kBufferSize;

class ReadCacheSettings : public ReadCacheTest {
  protected:
    u32 Init(const std::string& connStr) {
        m_log.Clear();
        return m_cache.Init(connStr.c_str(), m_dataEnd);
    }

    void ExpectRefused(const std::string& value) {
        EXPECT_EQ(Init("read_buffers_count=" + value), RC_BAD_SIZE);
        const LoggedMessage expected{
            K9SYS_LOG_ERROR, "k9eRepl-storage",
            "Wrong 'read_buffers_count' value (" + value + "); valid range is 1-32", RC_BAD_SIZE};
        EXPECT_EQ(m_log.Messages(), std::vector{expected}) << m_log;
        EXPECT_EQ(CallCount(SystemCall::kAlloc), 0U);
    }

    u32 m_allocated = 0;  // by ExpectBuffers so far

    void ExpectBuffers(const std::string& connStr, u32 count, const std::string& text) {
        EXPECT_EQ(Init(connStr), RC_OK);
        const LoggedMessage expected{K9SYS_LOG_INFO, "k9eRepl-storage", text, 0};
        EXPECT_EQ(m_log.Messages(), std::vector{expected}) << m_log;
        EXPECT_EQ(CallCount(SystemCall::kAlloc), m_allocated += count);
    }
};

TEST_F(ReadCacheSettings, RefusesACountOutsideItsRange) {
    for (const char* value : {"0", "33", "-1"}) {
        ExpectRefused(value);
    }
}

TEST_F(ReadCacheSettings, TakesOneToThirtyTwoBuffersAndEightByDefault) {
    ExpectBuffers("read_buffers_count=1", 1, "Use  read_buffers_count 1");
    ExpectBuffers("file=a;read_buffers_count=32", 32, "Use  read_buffers_count 32");
    ExpectBuffers("file=a", 8, "Use default read_buffers_count 8");
    ExpectBuffers("read_buffers_count=;file=a", 8, "Use default read_buffers_count 8");
}

TEST_F(ReadCacheSettings, RefusesWhenOneBufferOfTwoMebibytesCannotBeAllocated) {
    FailAlloc(1, kBufferBytes + 1);
    EXPECT_EQ(Init("read_buffers_count=2"), RC_OK);
    FailAlloc(3, kBufferBytes);
    EXPECT_EQ(Init("read_buffers_count=3"), RC_NO_MEMORY);
    EXPECT_EQ(m_log.CodeOf("Couldn't allocate memory for 3 read buffers"), RC_NO_MEMORY) << m_log;
    EXPECT_EQ(Init("read_buffers_count=3"), RC_OK);
}

TEST_F(ReadCacheSettings, RefusesWhenTheEntriesCannotBeAllocated) {
    // Both messages have been logged once and are off: the first allocation is the entries'.
    FailAlloc(1);
    EXPECT_EQ(Init("read_buffers_count=3"), RC_NO_MEMORY);
    K9SysSetLogLevel(nullptr, K9SYS_LOG_OFF);
    const FailNthNew fault(1);
    const u32 result = m_cache.Init("read_buffers_count=32", m_dataEnd);
    EXPECT_TRUE(fault.Struck());
    EXPECT_EQ(result, RC_NO_MEMORY);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), 1U);
}

TEST_F(ReadCacheSettings, InitReplacesTheBuffersAlsoAfterAReset) {
    UseBuffers(4);
    EXPECT_EQ(Request(0, 1), 1U);
    UseBuffers(2);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), 6U);
    EXPECT_EQ(Request(0, 1), 1U);
    m_cache.Reset();
    UseBuffers(2);
    EXPECT_EQ(Request(0, 1), 1U);
}

using ReadCacheRequests = ReadCacheTest;

TEST_F(ReadCacheRequests, AMissReadsTwoMebibytesFromTheRequestedOffsetAndAHitHandsThemOut) {
    UseBuffers(2);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 1056, 4), 1U);
    EXPECT_EQ(reader.offset, 1056);
    EXPECT_EQ(reader.length, kBuffer);
    EXPECT_TRUE(Has(reader, 1056, ReadCacheManager::kBufferSize));
    EXPECT_EQ(m_file.Position(), 1056 + kBuffer);
    const u32 seeks = Seeks();
    ReadBuffer other;
    EXPECT_EQ(Request(other, 9000, 4096), 0U);
    EXPECT_EQ(Seeks(), seeks);
    EXPECT_EQ(other.offset, 1056);
    EXPECT_EQ(other.length, kBuffer);
}

TEST_F(ReadCacheRequests, ARequestUpToTheLastByteOfABufferIsAHitAndNoneThatEndsBehindIt) {
    UseBuffers(2);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 0, ReadCacheManager::kBufferSize), 1U);
    EXPECT_EQ(Request(reader, 0, ReadCacheManager::kBufferSize), 0U);
    EXPECT_EQ(Request(reader, kBuffer - 10, 10), 0U);
    EXPECT_EQ(Request(reader, kBuffer - 10, 11), 1U);
    EXPECT_EQ(reader.offset, kBuffer - 10);
    EXPECT_EQ(reader.length, kBuffer);
}

TEST_F(ReadCacheRequests, ReadsNothingBeyondTheWrittenData) {
    UseBuffers(1);
    m_dataEnd = 3000;
    for (const i64 offset : {i64{3000}, i64{3001}, kFileBytes}) {
        ReadBuffer reader;
        EXPECT_EQ(m_cache.GetBuffer(offset, 4, &reader), RC_OK);
        EXPECT_EQ(reader.offset, offset);
        EXPECT_EQ(reader.length, 0U);
    }
    EXPECT_EQ(Reads() + Seeks(), 0U);
    ReadBuffer reader;
    EXPECT_EQ(m_cache.GetBuffer(2900, 200, &reader), RC_OK);
    EXPECT_EQ(reader.offset, 2900);
    EXPECT_EQ(reader.length, 100U);
    EXPECT_TRUE(Has(reader, 2900, 100));
}

TEST_F(ReadCacheRequests, DataWrittenLaterIsReadWhenItIsAskedForAndTheLongerBufferIsFound) {
    UseBuffers(3);
    m_dataEnd = 3000;
    EXPECT_EQ(Request(2900, 100), 1U);
    m_dataEnd = 4000;
    EXPECT_EQ(Request(2900, 100), 0U);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 2900, 1100), 1U);
    EXPECT_EQ(reader.length, 1100U);
    EXPECT_EQ(Request(2900, 1100), 0U);
}

TEST_F(ReadCacheRequests, AfterInvalidateTheNewBytesOfTheFileAreDelivered) {
    UseBuffers(2);
    ReadBuffer reader;
    EXPECT_EQ(Request(1056, 4), 1U);
    EXPECT_EQ(Request(3 * kBuffer, 4), 1U);
    const std::vector<u8> changed{1, 2, 3, 4};
    PatchBytes(m_path, 1056, changed);
    m_cache.Invalidate();
    ASSERT_EQ(m_cache.GetBuffer(1056, 4, &reader), RC_OK);
    EXPECT_EQ(std::vector<u8>(reader.data, reader.data + 4), changed);
    EXPECT_EQ(Request(3 * kBuffer, 4), 1U);
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
    ASSERT_TRUE(m_file.Seek(17));  // as the storage file does
    EXPECT_EQ(Request(reader, 4 * kBuffer, 4), 1U);
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

class ReadCacheFailures : public ReadCacheTest {
  protected:
    static std::string ErrorText() {
        return std::to_string(platform::SystemErrorOf(SystemErrorKind::kInputOutput));
    }

    // A request that fails; the reader keeps what it had.
    void ExpectFailure(ReadBuffer& reader, i64 offset) {
        const ReadBuffer before = reader;
        EXPECT_EQ(m_cache.GetBuffer(offset, 4, &reader), RC_SYSTEM_ERROR);
        EXPECT_EQ(reader.offset, before.offset);
        EXPECT_EQ(reader.length, before.length);
    }
};

TEST_F(ReadCacheFailures, AFailedSeekIsReportedAndLeavesTheTrackedPosition) {
    UseBuffers(1);
    ReadBuffer reader;
    FailSeek(1);
    ExpectFailure(reader, 5000);
    EXPECT_EQ(m_log.CodeOf("Cannot seek to start enum recs;offset 5000, sys-err " + ErrorText()),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(m_file.Position(), 0);
    EXPECT_EQ(Request(reader, 5000, 4), 1U);
}

TEST_F(ReadCacheFailures, AFailedReadIsReportedAndTheNextRequestSeeksAgain) {
    UseBuffers(1);
    ReadBuffer reader;
    FailRead(1);
    ExpectFailure(reader, 5000);
    EXPECT_EQ(m_log.CodeOf("Failed to read block;sys-err " + ErrorText() + ",offset 5000"),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(m_file.Position(), platform::TrackedFile::kUnknownPosition);
    EXPECT_EQ(Request(reader, 5000, 4), 1U);
    EXPECT_EQ(Seeks(), 2U);
    FailRead(1);
    ExpectFailure(reader, 4 * kBuffer);
    EXPECT_EQ(Request(reader, 5000, 4096), 0U) << "the buffer keeps its bytes";
    ExpectFailure(reader, -5);
}

TEST_F(ReadCacheFailures, ABufferHalfOverwrittenByAFailedReadIsNotServed) {
    UseBuffers(2);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 1056, 4), 1U);
    SplitRead(1, 1000);
    FailRead(2);
    ExpectFailure(reader, 4 * kBuffer);
    EXPECT_EQ(Request(1056, 4096), 1U);
    EXPECT_EQ(Request(4 * kBuffer, 4096), 1U);
}

TEST_F(ReadCacheFailures, ABufferThatAFailedReadEmptiedIsTakenFirst) {
    UseBuffers(2);
    SetTickCount(10);
    EXPECT_EQ(Request(0, 4), 1U);
    SetTickCount(20);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 2 * kBuffer, 4), 1U);
    SplitRead(1, 1000);
    FailRead(2);
    ExpectFailure(reader, 3 * kBuffer);
    EXPECT_EQ(Request(4 * kBuffer, 4), 1U);
    EXPECT_EQ(Request(0, 4), 0U);
}

TEST_F(ReadCacheFailures, AFileThatEndsEarlyGivesAShorterLength) {
    UseBuffers(1);
    ReadBuffer reader;
    ShortRead(1, 3000);
    EXPECT_EQ(m_cache.GetBuffer(5000, 4096, &reader), RC_OK);
    EXPECT_EQ(reader.offset, 5000);
    EXPECT_EQ(reader.length, 3000U);
    EXPECT_TRUE(Has(reader, 5000, 3000));
    EXPECT_EQ(m_file.Position(), 8000);
    ResizeFile(m_path, 4000);
    EXPECT_EQ(m_cache.GetBuffer(9000, 4, &reader), RC_OK);
    EXPECT_EQ(reader.length, 0U);
}

}  // namespace
}  // namespace k9erepl::test
