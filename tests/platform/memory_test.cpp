// The C heap behind the table.
#include "platform/memory.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/fault_injection.h"

namespace k9erepl::test {
namespace {

TEST(Memory, IsAlignedForWhatItHolds) {
    void* memory = platform::AllocMemory(100);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % platform::kHeapAlignment, 0U);
    std::memset(memory, 1, 100);
    platform::FreeMemory(memory);
}

TEST(Memory, OfNoBytesIsStillMemory) {
    void* memory = platform::AllocMemory(0);
    EXPECT_NE(memory, nullptr);
    platform::FreeMemory(memory);
    platform::FreeMemory(nullptr);
}

TEST(Memory, ThatIsExhaustedIsNull) {
    const ScopedSystemCalls systemCalls;
    FailAlloc(1);
    EXPECT_EQ(platform::AllocBuffer(10), nullptr);
    EXPECT_NE(platform::AllocBuffer(10), nullptr);
}

TEST(Memory, OfABufferGoesBackWithItsOwner) {
    static int freed;
    freed = 0;
    const ScopedSystemCalls systemCalls;
    platform::TheSystemCalls().freeMemory = [](void* memory) {
        ++freed;
        platform::NativeSystemCalls().freeMemory(memory);
    };
    { const platform::MemoryBuffer buffer = platform::AllocBuffer(10); }
    EXPECT_EQ(freed, 1);
}

}  // namespace
}  // namespace k9erepl::test
