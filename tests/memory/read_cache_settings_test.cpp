// The read cache's setting: how many buffers, and what is said about it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "memory/read_cache_fixture.h"
#include "support/new_fault.h"

namespace k9erepl::test {

namespace {

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

    void ExpectBuffers(const std::string& connStr, u32 count, const std::string& text) {
        EXPECT_EQ(Init(connStr), RC_OK);
        const LoggedMessage expected{K9SYS_LOG_INFO, "k9eRepl-storage", text, 0};
        EXPECT_EQ(m_log.Messages(), std::vector{expected}) << m_log;
        EXPECT_EQ(CallCount(SystemCall::kAlloc), count);
    }
};

}  // namespace

TEST_F(ReadCacheSettings, RefusesZeroBuffers) {
    ExpectRefused("0");
}

TEST_F(ReadCacheSettings, RefusesThirtyThreeBuffers) {
    ExpectRefused("33");
}

TEST_F(ReadCacheSettings, RefusesANegativeCount) {
    ExpectRefused("-1");
}

TEST_F(ReadCacheSettings, TakesOneBuffer) {
    ExpectBuffers("read_buffers_count=1", 1, "Use  read_buffers_count 1");
}

TEST_F(ReadCacheSettings, TakesThirtyTwoBuffers) {
    ExpectBuffers("file=a;read_buffers_count=32", 32, "Use  read_buffers_count 32");
}

TEST_F(ReadCacheSettings, UsesEightBuffersByDefault) {
    ExpectBuffers("file=a", 8, "Use default read_buffers_count 8");
}

TEST_F(ReadCacheSettings, TakesAnEmptyValueForAbsent) {
    ExpectBuffers("read_buffers_count=;file=a", 8, "Use default read_buffers_count 8");
}

TEST_F(ReadCacheSettings, AllocatesBuffersOfTwoMebibytes) {
    FailAlloc(1, kBufferBytes + 1);
    EXPECT_EQ(Init("read_buffers_count=2"), RC_OK);
    FailAlloc(1, kBufferBytes);
    EXPECT_EQ(Init("read_buffers_count=2"), RC_NO_MEMORY);
}

TEST_F(ReadCacheSettings, RefusesWhenOneBufferCannotBeAllocated) {
    FailAlloc(3);
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

TEST_F(ReadCacheSettings, InitReplacesTheBuffers) {
    UseBuffers(4);
    ReadBuffer reader;
    EXPECT_EQ(Request(reader, 0, 1), 1U);
    UseBuffers(2);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), 6U);
    EXPECT_EQ(Request(0, 1), 1U);
}

TEST_F(ReadCacheSettings, ResetFreesTheBuffersAndInitMayFollow) {
    UseBuffers(2);
    EXPECT_EQ(Request(0, 1), 1U);
    m_cache.Reset();
    UseBuffers(2);
    EXPECT_EQ(Request(0, 1), 1U);
}

}  // namespace k9erepl::test
