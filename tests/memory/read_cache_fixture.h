// What the tests of the read cache share: a file whose every byte is known, a cache over it, and
// counts of the system calls that requests cost.
#ifndef K9EREPL_TESTS_MEMORY_READ_CACHE_FIXTURE_H
#define K9EREPL_TESTS_MEMORY_READ_CACHE_FIXTURE_H

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "memory/read_cache_manager.h"
#include "platform/tracked_file.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace k9erepl::test {

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

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_MEMORY_READ_CACHE_FIXTURE_H
