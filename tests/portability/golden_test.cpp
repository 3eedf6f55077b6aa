// The portable storages against the files in tests/data/portable: what this build writes equals
// them byte for byte, stamps included, and it opens them.
//
// The golden files stand for all storages that exist: when the first test of these fails, the
// format has changed, and the code is wrong. To make them anew on purpose, into an empty folder:
//     K9EREPL_GOLDEN_OUTPUT=FOLDER build/release/bin/portability_tests
//         --gtest_filter='*WritesItByteForByte*'
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "portability/portable_contents.h"
#include "support/fault_injection.h"
#include "support/temp_folder.h"

namespace k9erepl::portable {
namespace {

constexpr const char* kGoldenFolder = GOLDEN_FOLDER;
constexpr u64 kFirstStamp = 0x0123456789ABCDEF;

// Where the files of this build are wanted, instead of a comparison.
std::optional<std::string> WantedOutput() {
    const char* const folder = std::getenv("K9EREPL_GOLDEN_OUTPUT");  // NOLINT(concurrency-mt-*)
    return folder == nullptr ? std::nullopt : std::optional<std::string>(folder);
}

// The storages of this build, written once for all tests of the program.
const std::string& FolderOfThisBuild() {
    static const test::TempFolder temporary;
    static const std::string folder = [] {
        const std::string wanted = WantedOutput().value_or(temporary.Path());
        const test::ScopedSystemCalls systemCalls;
        test::SetTimeStampCounter(kFirstStamp, 1);
        WriteAll(wanted);
        return wanted;
    }();
    return folder;
}

TEST(Golden, ThisBuildWritesItByteForByte) {
    const std::string& folder = FolderOfThisBuild();
    if (WantedOutput()) {
        GTEST_SKIP() << "written to " << folder;
    }
    for (const std::string& name : FileNames()) {
        EXPECT_EQ(ReadFile(folder + "/" + name), ReadFile(std::string(kGoldenFolder) + "/" + name))
            << name;
    }
}

// No golden file is left that nobody writes any more.
TEST(Golden, HasNoOtherFiles) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kGoldenFolder)) {
        names.push_back(entry.path().filename().string());
    }
    std::vector<std::string> expected = FileNames();
    std::sort(names.begin(), names.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names, expected);
}

class GoldenStorage : public testing::TestWithParam<Content> {};

TEST_P(GoldenStorage, OpensWithItsIndex) {
    EXPECT_NO_THROW(CheckWithIndex(GetParam(), kGoldenFolder));
}

TEST_P(GoldenStorage, OpensWithoutItsIndex) {
    EXPECT_NO_THROW(CheckWithoutIndex(GetParam(), kGoldenFolder));
}

TEST_P(GoldenStorage, TakesMoreRecords) {
    EXPECT_NO_THROW(CheckAppending(GetParam(), kGoldenFolder));
}

std::string NameOf(const testing::TestParamInfo<Content>& info) {
    std::string name = info.param.fileName;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Portable, GoldenStorage, testing::ValuesIn(Contents()), NameOf);

}  // namespace
}  // namespace k9erepl::portable
