// What can be tried on POSIX systems only: a module that any address in it names, the stand-in
// without memory (a DLL of Windows has an operator new of its own), and a host's own library in the
// place of the stand-in.
#include <algorithm>
#include <cstddef>

#include "k9sys/child_fixture.h"
#include "k9sys/stand_in_fixture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

constexpr std::uint32_t kNoMemory = 1;

TEST(ModuleStatistics, AnAddressInALibraryIsTheLibrary) {
    const Registration registration(reinterpret_cast<void*>(&K9SysRegisteredModuleCount));
    EXPECT_EQ(std::string(registration.name).substr(0, 8), "libK9Sys");
}

using NoMemory = SinkFixture;

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
    for (std::uint32_t nth = 1; struck; ++nth) {
        const FailNthNew fault(nth);
        const Registration registration;
        struck = fault.Struck();
        EXPECT_EQ(registration.result, struck ? kNoMemory : 0U);
        EXPECT_EQ(K9SysRegisteredModuleCount(), struck ? before : before + 1);
    }
}

// LD_BIND_NOW: an import that the host's library lacks would end the program.
class OwnHost : public ChildTest {
  protected:
    OwnHost() { m_environment = {"LD_BIND_NOW=1", "LD_LIBRARY_PATH=" K9SYS_OWN_HOST_FOLDER}; }
};

TEST_F(OwnHost, TakesThePlaceOfTheStandInAtEveryCall) {
    ASSERT_TRUE(Run("levels", {"K9SYS_LOG=off"}));
    EXPECT_EQ(
        LinesOf(m_standardError),
        (Lines{"host error a: an error", "host warning a: a warning", "host info a: an info",
               "host error b: an error", "host warning b: a warning", "host info b: an info"}));
    ASSERT_TRUE(Run("sites", {}));
    EXPECT_EQ(
        LinesOf(m_standardError),
        (Lines{"host info k9eRepl-storage: round %d", "host info k9eRepl-storage: round %d",
               "host error k9eRepl-storage: state %d", "host error k9eRepl-storage: state %d"}));
}

TEST_F(OwnHost, IsAllThatTheStorageLibraryNeeds) {
    ASSERT_TRUE(RunProgram({K9SYS_OWN_HOST_CLIENT}));
    const Lines lines = LinesOf(m_standardError);
    EXPECT_FALSE(lines.empty());
    for (const std::string& line : lines) {
        EXPECT_EQ(line.substr(0, 5), "host ") << line;
    }
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "host unregisters module 0"), 1)
        << "with the id that it gave";
}

}  // namespace
}  // namespace k9erepl::test
