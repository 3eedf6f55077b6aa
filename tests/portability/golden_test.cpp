// The portable storages against the files in tests/data/portable: what this build writes equals
// them byte for byte, stamps included, and it opens them. And the sum of a file leaves out the
// stamps of commit blocks, and nothing else.
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

#include "portability/portable.h"
#include "support/fault_injection.h"
#include "support/storage_file_builder.h"
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

TEST_P(GoldenStorage, OpensWithAndWithoutItsIndexAndTakesMoreRecords) {
    EXPECT_NO_THROW(CheckWithIndex(GetParam(), kGoldenFolder));
    EXPECT_NO_THROW(CheckWithoutIndex(GetParam(), kGoldenFolder));
    EXPECT_NO_THROW(CheckAppending(GetParam(), kGoldenFolder));
}

std::string NameOf(const testing::TestParamInfo<Content>& info) {
    std::string name = info.param.fileName;
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Portable, GoldenStorage, testing::ValuesIn(Contents()), NameOf);

using test::FileBuilder;

TCommitBlock Block(u32 prevSequence, u32 sequence, i64 commitRev) {
    TCommitBlock block = NewCommitBlock(sequence, commitRev);
    block.prevSequence = prevSequence;
    return block;
}

FileBuilder TwoCommits(u32 first, u32 second, u32 linkedTo) {
    FileBuilder file;
    file.Header().RawCommit(Block(0, first, 0)).Record(1, "one");
    file.RawCommit(Block(linkedTo, second, 1));
    return file;
}

TEST(FileDigest, IsThatOfAFileWithOtherStampsUnlessTheChainIsBroken) {
    EXPECT_EQ(Digest(TwoCommits(100, 200, 100).Bytes()), Digest(TwoCommits(7, 8, 7).Bytes()));
    EXPECT_NE(Digest(TwoCommits(100, 200, 100).Bytes()), Digest(TwoCommits(100, 200, 101).Bytes()));
}

TEST(FileDigest, DiffersWithEveryOtherByte) {
    const std::vector<u8> bytes = TwoCommits(100, 200, 100).Bytes();
    for (std::size_t offset = 0; offset < bytes.size(); ++offset) {
        const bool isStamp = (offset >= 1024 + 4 && offset < 1024 + 12) ||
                             (offset >= bytes.size() - 28 && offset < bytes.size() - 20);
        std::vector<u8> changed = bytes;
        changed[offset] ^= 1;
        EXPECT_TRUE(isStamp || Digest(changed) != Digest(bytes)) << offset;
    }
}

// A file that was started over keeps bytes behind its eight zeros.
TEST(FileDigest, LeavesOutStampsBehindTheValidData) {
    const auto startedOver = [](u32 stamp) {
        FileBuilder file;
        file.Header().RawCommit(Block(stamp, stamp + 1, 1)).Zeros(8).Fill(5, 0x55);
        file.RawCommit(Block(stamp - 1, stamp, 1));
        return Digest(file.Bytes());
    };
    EXPECT_EQ(startedOver(1000), startedOver(2000));
}

TEST(FileDigest, TakesOtherFilesAsTheyAre) {
    const std::vector<u8> bytes(2000, 0x7D);
    EXPECT_EQ(WithoutStamps(bytes), bytes);
    EXPECT_EQ(Digest({}), "cbf29ce484222325 0");
}

}  // namespace
}  // namespace k9erepl::portable
