// The stand-in without memory: nothing is thrown at the caller, and what cannot be kept is said.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

#include "k9sys/sink_fixture.h"
#include "support/new_fault.h"

namespace k9erepl::test {

namespace {

constexpr std::uint32_t kNoMemory = 1;

using NoMemory = SinkFixture;

}  // namespace

TEST_F(NoMemory, AFreshModuleStillHasAFlagOfTheDefaultLevel) {
    const std::string module(100, 'm');
    K9SysSetLogLevel(nullptr, K9SYS_LOG_WARNING);
    const FailNthNew fault(1);
    K9LogFlag* const flag = trcheckEx_K9LogInfoEx_(module.c_str(), "x");
    EXPECT_TRUE(fault.Struck());
    ASSERT_NE(flag, nullptr);
    EXPECT_EQ(*flag, 0);
    K9SysSetLogLevel(nullptr, K9SYS_LOG_INFO);
    EXPECT_NE(*flag, 0);
}

TEST_F(NoMemory, ALongMessageIsCut) {
    const std::string text(5000, 'x');
    K9SysSetLogLevel("a", K9SYS_LOG_INFO);
    {
        const FailNthNew fault(1);
        K9LogInfoEx("a", "%s", text.c_str());
        EXPECT_TRUE(fault.Struck());
    }
    EXPECT_EQ(m_received, (Lines{"3 a " + std::string(1023, 'x') + " 0"}));
}

TEST_F(NoMemory, AnUsualMessageNeedsNone) {
    K9SysSetLogLevel("a", K9SYS_LOG_INFO);
    K9SysSetLogSink([](K9SysLogLevel, const char*, const char*, std::uint32_t, void*) {}, nullptr);
    const auto before = NewCallsOfThisThread();
    K9LogInfoEx("a", "%s %d", "text", 5);
    EXPECT_EQ(NewCallsOfThisThread(), before);
}

TEST_F(NoMemory, ALevelForAFreshModuleIsRefused) {
    const std::string module(100, 'l');
    const FailNthNew fault(1);
    EXPECT_EQ(K9SysSetLogLevel(module.c_str(), K9SYS_LOG_INFO), kNoMemory);
}

TEST_F(NoMemory, AListOfLevelsIsRefusedWithoutAnyChange) {
    const std::string list = "a=info," + std::string(100, 'z') + "=info";
    K9LogFlag* const flag = trcheckEx_K9LogInfoEx_("a", "x");
    bool struck = true;
    for (std::uint32_t nth = 1; struck; ++nth) {
        const FailNthNew fault(nth);
        const std::uint32_t result = K9SysSetLogLevels(list.c_str());
        struck = fault.Struck();
        EXPECT_EQ(result, struck ? kNoMemory : 0U);
        EXPECT_EQ(*flag != 0, !struck);
    }
}

TEST_F(NoMemory, AModuleIsNotRegistered) {
    const std::uint32_t before = K9SysRegisteredModuleCount();
    bool struck = true;
    std::uint32_t id = UINT32_MAX;
    for (std::uint32_t nth = 1; struck; ++nth) {
        const FailNthNew fault(nth);
        const std::uint32_t result =
            K9MQStatSetBinaryModuleVersion(nullptr, "p", "v", &id, nullptr, 0, nullptr, 0);
        struck = fault.Struck();
        EXPECT_EQ(result, struck ? kNoMemory : 0U);
        EXPECT_EQ(id == UINT32_MAX, struck);
    }
    EXPECT_EQ(K9SysRegisteredModuleCount(), before + 1);
    K9MQStatUnregisterModule(id);
}

}  // namespace k9erepl::test
