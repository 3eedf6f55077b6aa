// The services of the stand-in beside logging: registration of modules with the statistics service,
// and parser memory with its limit.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <filesystem>

#include "k9sys/stand_in_fixture.h"
#include "platform/memory.h"
#include "platform/process.h"

namespace k9erepl::test {
namespace {

constexpr std::uint32_t kInvalidArg = 2;

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

TEST(ModuleStatistics, TheProgramIsNullOrItsHandle) {
    for (void* const module : {static_cast<void*>(nullptr), platform::ProcessModuleHandle()}) {
        const Registration registration(module);
        EXPECT_EQ(std::filesystem::path(registration.name).stem(), "k9sys_tests");
        EXPECT_EQ(std::filesystem::path(registration.path).filename(), registration.name);
        EXPECT_TRUE(std::filesystem::exists(registration.path));
    }
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
    const auto set = [](const char* product, const char* version, std::uint32_t* place) {
        return K9MQStatSetBinaryModuleVersion(nullptr, product, version, place, nullptr, 0, nullptr,
                                              0);
    };
    EXPECT_EQ(set(nullptr, "v", &id), kInvalidArg);
    EXPECT_EQ(set("p", nullptr, &id), kInvalidArg);
    EXPECT_EQ(set("p", "v", nullptr), kInvalidArg);
    EXPECT_EQ(id, 77U);
    EXPECT_EQ(K9SysRegisteredModuleCount(), before);
}

TEST(ModuleStatistics, UnregisteringTwiceOrUnknownIdsDoesNothing) {
    const std::uint32_t before = K9SysRegisteredModuleCount();
    const Registration other;
    { const Registration gone; }
    K9MQStatUnregisterModule(other.id + 1);
    K9MQStatUnregisterModule(0);
    EXPECT_EQ(K9SysRegisteredModuleCount(), before + 1);
}

class ParserMemory : public ::testing::Test {
  protected:
    ~ParserMemory() override {
        K9SysSetParserMemLimit(SIZE_MAX);
        EXPECT_EQ(K9SysParserMemInUse(), m_before);
    }

    const std::size_t m_before = K9SysParserMemInUse();
};

TEST_F(ParserMemory, CountsTheBytesInUse) {
    void* const first = K9SysParserMemAlloc(100);
    void* const second = K9SysParserMemAlloc(28);
    EXPECT_EQ(K9SysParserMemInUse(), m_before + 128);
    K9SysParserMemFree(first);
    EXPECT_EQ(K9SysParserMemInUse(), m_before + 28);
    K9SysParserMemFree(second);
    K9SysParserMemFree(nullptr);
}

TEST_F(ParserMemory, IsAlignedAndWritableThoughItHasNoBytes) {
    for (const std::size_t size : {33U, 0U}) {
        void* const memory = K9SysParserMemAlloc(size);
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % platform::kHeapAlignment, 0U);
        std::memset(memory, 0xAA, size);
        K9SysParserMemFree(memory);
    }
}

TEST_F(ParserMemory, IsRefusedBeyondTheLimit) {
    K9SysSetParserMemLimit(m_before + 100);
    void* const memory = K9SysParserMemAlloc(60);
    EXPECT_NE(memory, nullptr);
    EXPECT_EQ(K9SysParserMemAlloc(41), nullptr);
    K9SysSetParserMemLimit(0);
    EXPECT_EQ(K9SysParserMemAlloc(1), nullptr);
    K9SysSetParserMemLimit(SIZE_MAX);
    EXPECT_EQ(K9SysParserMemAlloc(SIZE_MAX), nullptr) << "no machine has it";
    EXPECT_EQ(K9SysParserMemInUse(), m_before + 60);
    K9SysParserMemFree(memory);
}

}  // namespace
}  // namespace k9erepl::test
