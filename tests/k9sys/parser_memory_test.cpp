// Parser memory: what is counted, and what the limit refuses.
#include <gtest/gtest.h>
#include <k9sys/k9sys.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/memory.h"

namespace k9erepl::test {

namespace {

class ParserMemory : public ::testing::Test {
  protected:
    ~ParserMemory() override { K9SysSetParserMemLimit(SIZE_MAX); }

    const std::size_t m_before = K9SysParserMemInUse();
};

}  // namespace

TEST_F(ParserMemory, CountsTheBytesInUse) {
    void* const first = K9SysParserMemAlloc(100);
    void* const second = K9SysParserMemAlloc(28);
    EXPECT_EQ(K9SysParserMemInUse(), m_before + 128);
    K9SysParserMemFree(first);
    EXPECT_EQ(K9SysParserMemInUse(), m_before + 28);
    K9SysParserMemFree(second);
    EXPECT_EQ(K9SysParserMemInUse(), m_before);
}

TEST_F(ParserMemory, IsAlignedAndWritable) {
    void* const memory = K9SysParserMemAlloc(33);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % platform::kHeapAlignment, 0U);
    std::memset(memory, 0xAA, 33);
    K9SysParserMemFree(memory);
}

TEST_F(ParserMemory, OfNoBytesIsABlockOfItsOwn) {
    void* const memory = K9SysParserMemAlloc(0);
    EXPECT_NE(memory, nullptr);
    K9SysParserMemFree(memory);
}

TEST_F(ParserMemory, FreeingNullDoesNothing) {
    K9SysParserMemFree(nullptr);
    EXPECT_EQ(K9SysParserMemInUse(), m_before);
}

TEST_F(ParserMemory, IsRefusedBeyondTheLimit) {
    K9SysSetParserMemLimit(m_before + 100);
    void* const memory = K9SysParserMemAlloc(60);
    EXPECT_NE(memory, nullptr);
    EXPECT_EQ(K9SysParserMemAlloc(41), nullptr);
    EXPECT_EQ(K9SysParserMemInUse(), m_before + 60);
    K9SysParserMemFree(memory);
}

TEST_F(ParserMemory, ALimitBelowWhatIsInUseRefusesEverything) {
    void* const memory = K9SysParserMemAlloc(60);
    K9SysSetParserMemLimit(0);
    EXPECT_EQ(K9SysParserMemAlloc(1), nullptr);
    K9SysParserMemFree(memory);
    EXPECT_EQ(K9SysParserMemInUse(), m_before);
}

TEST_F(ParserMemory, ASizeThatNoMachineHasIsRefused) {
    EXPECT_EQ(K9SysParserMemAlloc(SIZE_MAX), nullptr);
    EXPECT_EQ(K9SysParserMemInUse(), m_before);
}

}  // namespace k9erepl::test
