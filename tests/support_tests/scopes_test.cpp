// What holds until a scope ends: raised values, objects in parser memory; and the exception of
// constructors that cannot do their work.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>

#include "platform/int_types.h"
#include "support/parser_memory.h"
#include "support/scoped_value.h"
#include "support/storage_exception.h"

namespace k9erepl::test {
namespace {

TEST(ScopedValue, GivesBackWhatItFound) {
    int depth = 3;
    {
        const ScopedValue outer(depth, depth + 1);
        EXPECT_EQ(depth, 4);
        {
            const ScopedValue inner(depth, depth + 1);
            EXPECT_EQ(depth, 5);
        }
        EXPECT_EQ(depth, 4);
        depth = 9;
    }
    EXPECT_EQ(depth, 3) << "whatever it was changed to meanwhile";
}

TEST(ScopedValue, GivesItBackWhenTheScopeThrows) {
    bool raised = false;
    try {
        const ScopedValue raising(raised, true);
        EXPECT_TRUE(raised);
        throw 1;
    } catch (int) {
        EXPECT_FALSE(raised);
    }
}

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
    ~ParserMemoryObject() override {
        K9SysSetParserMemLimit(SIZE_MAX);
        EXPECT_EQ(K9SysParserMemInUse(), m_before);
    }

    const std::size_t m_before = K9SysParserMemInUse();
    int m_destroyed = 0;
};

TEST_F(ParserMemoryObject, LivesInParserMemoryUntilItsOwnerEnds) {
    {
        const std::unique_ptr<StartRecord, ParserMemoryDeleter> record(
            NewInParserMemory<StartRecord>(&m_destroyed, 5U));
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->value, 5U);
        EXPECT_EQ(K9SysParserMemInUse(), m_before + sizeof(StartRecord));
    }
    EXPECT_EQ(m_destroyed, 1);
    DeleteInParserMemory<StartRecord>(nullptr);
}

TEST_F(ParserMemoryObject, IsNullWhenThereIsNoMemory) {
    K9SysSetParserMemLimit(m_before + sizeof(StartRecord) - 1);
    EXPECT_EQ(NewInParserMemory<StartRecord>(&m_destroyed, 5U), nullptr);
    EXPECT_EQ(m_destroyed, 0);
}

TEST(K9eStorageException, CarriesItsCode) {
    try {
        throw K9eStorageException(23);
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "K9eStorageException");
        EXPECT_EQ(dynamic_cast<const K9eStorageException&>(e).Code(), 23U);
    }
}

}  // namespace
}  // namespace k9erepl::test
