// The test helper that makes operator new fail.
#include "support/new_fault.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <vector>

namespace k9erepl::test {
namespace {

struct alignas(64) Wide {
    char bytes[64];
};

const volatile void* volatile g_seen;

// A compiler may leave out an allocation that nobody sees.
template <typename Pointer>
Pointer Seen(Pointer pointer) {
    g_seen = pointer.get();
    return pointer;
}

TEST(NewFault, TheNthAllocationThrowsOnce) {
    const FailNthNew fault(2);
    Seen(std::make_unique<int>(1));
    EXPECT_FALSE(fault.Struck());
    EXPECT_THROW(Seen(std::make_unique<int>(2)), std::bad_alloc);
    EXPECT_TRUE(fault.Struck());
    EXPECT_NO_THROW(Seen(std::make_unique<int>(3)));
}

TEST(NewFault, TheNothrowFormsReturnNull) {
    const FailNthNew fault(1);
    const auto one = Seen(std::unique_ptr<int>(new (std::nothrow) int(1)));
    const auto two = Seen(std::unique_ptr<int>(new (std::nothrow) int(2)));
    EXPECT_EQ(one, nullptr);
    EXPECT_NE(two, nullptr);
}

TEST(NewFault, ArraysAndAlignedFormsFailToo) {
    {
        const FailNthNew fault(1);
        EXPECT_THROW(Seen(std::make_unique<int[]>(10)), std::bad_alloc);
    }
    const FailNthNew fault(1);
    EXPECT_THROW(Seen(std::make_unique<Wide>()), std::bad_alloc);
}

TEST(NewFault, AlignedMemoryIsAligned) {
    const auto wide = Seen(std::make_unique<Wide[]>(3));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(wide.get()) % alignof(Wide), 0U);
}

TEST(NewFault, IsOverWithItsScope) {
    { const FailNthNew fault(1); }
    EXPECT_NO_THROW(Seen(std::make_unique<int>(1)));
}

TEST(NewFault, CountsTheCallsOfThisThread) {
    std::vector<int> numbers;
    const u64 before = NewCallsOfThisThread();
    numbers.reserve(10);
    EXPECT_EQ(NewCallsOfThisThread(), before + 1);
    numbers.push_back(1);
    EXPECT_EQ(NewCallsOfThisThread(), before + 1);
}

}  // namespace
}  // namespace k9erepl::test
