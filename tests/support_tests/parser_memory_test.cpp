// Objects in parser memory.
#include "support/parser_memory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

#include "platform/int_types.h"

namespace k9erepl::test {

namespace {

struct StartRecord {
    StartRecord(int* theDestroyed, u32 theValue) noexcept
        : destroyed(theDestroyed), value(theValue) {}
    ~StartRecord() { ++*destroyed; }
    StartRecord(const StartRecord&) = delete;
    StartRecord& operator=(const StartRecord&) = delete;

    int* destroyed;
    u32 value;
};

class ParserMemoryObject : public ::testing::Test {
  protected:
    ~ParserMemoryObject() override { K9SysSetParserMemLimit(SIZE_MAX); }

    const std::size_t m_before = K9SysParserMemInUse();
    int m_destroyed = 0;
};

}  // namespace

TEST_F(ParserMemoryObject, LivesInParserMemory) {
    auto* const record = NewInParserMemory<StartRecord>(&m_destroyed, 5U);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->value, 5U);
    EXPECT_EQ(K9SysParserMemInUse(), m_before + sizeof(StartRecord));
    DeleteInParserMemory(record);
    EXPECT_EQ(m_destroyed, 1);
    EXPECT_EQ(K9SysParserMemInUse(), m_before);
}

TEST_F(ParserMemoryObject, IsNullWhenThereIsNoMemory) {
    K9SysSetParserMemLimit(m_before + sizeof(StartRecord) - 1);
    EXPECT_EQ(NewInParserMemory<StartRecord>(&m_destroyed, 5U), nullptr);
    EXPECT_EQ(m_destroyed, 0);
}

TEST_F(ParserMemoryObject, DeletingNullDoesNothing) {
    DeleteInParserMemory<StartRecord>(nullptr);
    EXPECT_EQ(K9SysParserMemInUse(), m_before);
}

TEST_F(ParserMemoryObject, GoesWithItsOwner) {
    {
        const std::unique_ptr<StartRecord, ParserMemoryDeleter> owner(
            NewInParserMemory<StartRecord>(&m_destroyed, 5U));
    }
    EXPECT_EQ(m_destroyed, 1);
    EXPECT_EQ(K9SysParserMemInUse(), m_before);
}

}  // namespace k9erepl::test
