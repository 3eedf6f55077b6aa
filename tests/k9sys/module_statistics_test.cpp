// Registration of modules with the statistics service.
#include <gtest/gtest.h>
#include <k9sys/k9sys.h>

#include <filesystem>
#include <string>

#include "k9sys/registration.h"
#include "platform/process.h"

namespace k9erepl::test {

namespace {

constexpr std::uint32_t kInvalidArg = 2;

}  // namespace

TEST(ModuleStatistics, CountsRegisteredModules) {
    const std::uint32_t before = K9SysRegisteredModuleCount();
    {
        const Registration first;
        const Registration second;
        EXPECT_EQ(first.result, 0U);
        EXPECT_NE(first.id, 0U);
        EXPECT_NE(first.id, second.id);
        EXPECT_EQ(K9SysRegisteredModuleCount(), before + 2);
    }
    EXPECT_EQ(K9SysRegisteredModuleCount(), before);
}

TEST(ModuleStatistics, ANullModuleIsTheProgram) {
    const Registration registration;
    EXPECT_EQ(std::filesystem::path(registration.name).stem(), "k9sys_tests");
    EXPECT_EQ(std::filesystem::path(registration.path).filename(), registration.name);
    EXPECT_TRUE(std::filesystem::exists(registration.path));
}

TEST(ModuleStatistics, TheHandleOfTheProgramIsTheProgram) {
    const Registration registration(platform::ProcessModuleHandle());
    EXPECT_EQ(std::filesystem::path(registration.name).stem(), "k9sys_tests");
}

TEST(ModuleStatistics, TextsAreCutToTheirBuffers) {
    std::uint32_t id = 0;
    char name[4] = "";
    EXPECT_EQ(K9MQStatSetBinaryModuleVersion(nullptr, "p", "v", &id, name, sizeof name, nullptr, 0),
              0U);
    EXPECT_STREQ(name, "k9s");
    K9MQStatUnregisterModule(id);
}

TEST(ModuleStatistics, RefusesNullTextsAndNoPlaceForTheId) {
    const std::uint32_t before = K9SysRegisteredModuleCount();
    std::uint32_t id = 77;
    EXPECT_EQ(K9MQStatSetBinaryModuleVersion(nullptr, nullptr, "v", &id, nullptr, 0, nullptr, 0),
              kInvalidArg);
    EXPECT_EQ(K9MQStatSetBinaryModuleVersion(nullptr, "p", nullptr, &id, nullptr, 0, nullptr, 0),
              kInvalidArg);
    EXPECT_EQ(K9MQStatSetBinaryModuleVersion(nullptr, "p", "v", nullptr, nullptr, 0, nullptr, 0),
              kInvalidArg);
    EXPECT_EQ(id, 77U);
    EXPECT_EQ(K9SysRegisteredModuleCount(), before);
}

TEST(ModuleStatistics, UnregisteringTwiceOrUnknownIdsDoesNothing) {
    const std::uint32_t before = K9SysRegisteredModuleCount();
    const Registration other;
    std::uint32_t id = 0;
    K9MQStatSetBinaryModuleVersion(nullptr, "p", "v", &id, nullptr, 0, nullptr, 0);
    K9MQStatUnregisterModule(id);
    K9MQStatUnregisterModule(id);
    K9MQStatUnregisterModule(0);
    EXPECT_EQ(K9SysRegisteredModuleCount(), before + 1);
}

}  // namespace k9erepl::test
