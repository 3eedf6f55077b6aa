// Deleting, linking, making and flushing directories.
#include "platform/file_names.h"

#include <filesystem>
#include <functional>

#include "files_fixture.h"

namespace k9erepl::test {
namespace {

using platform::FlushParentDirectory;
using platform::LinkFile;
using platform::MakeParentDirectories;
using platform::RemoveFile;

class FileNames : public FilesFixture {};

TEST_F(FileNames, RemoveFileDeletesIt) {
    WriteText(PathOf("a"), "x");
    EXPECT_TRUE(RemoveFile(PathOf("a")));
    EXPECT_FALSE(Exists(PathOf("a")));
}

TEST_F(FileNames, RemovingNoFileFails) {
    EXPECT_FALSE(RemoveFile(PathOf("a")));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotFound));
}

TEST_F(FileNames, RemoveFileRefusesADirectory) {
    std::filesystem::create_directory(PathOf("d"));
    EXPECT_FALSE(RemoveFile(PathOf("d")));
    EXPECT_TRUE(Exists(PathOf("d")));
}

TEST_F(FileNames, ParentDirectoriesAreMadeOutermostFirst) {
    EXPECT_TRUE(MakeParentDirectories(PathOf("d/e/f/file")));
    EXPECT_TRUE(std::filesystem::is_directory(PathOf("d/e/f")));
    EXPECT_FALSE(Exists(PathOf("d/e/f/file")));
}

TEST_F(FileNames, ExistingParentDirectoriesAreNoError) {
    WriteText(PathOf("kept"), "x");
    EXPECT_TRUE(MakeParentDirectories(PathOf("a")));
    EXPECT_TRUE(MakeParentDirectories(PathOf("d/a")));
    EXPECT_TRUE(MakeParentDirectories(PathOf("d/a")));
    EXPECT_EQ(ReadText(PathOf("kept")), "x");
}

TEST_F(FileNames, APathWithoutDirectoryNeedsNone) {
    const ScopedSystemCalls systemCalls;
    EXPECT_TRUE(MakeParentDirectories("file"));
    EXPECT_TRUE(MakeParentDirectories(""));
    EXPECT_TRUE(MakeParentDirectories("/file"));
    EXPECT_EQ(CallCount(SystemCall::kMakeDirectory), 0U);
}

TEST_F(FileNames, RepeatedSeparatorsCountOnce) {
    EXPECT_TRUE(MakeParentDirectories(PathOf("d//e///file")));
    EXPECT_TRUE(std::filesystem::is_directory(PathOf("d/e")));
}

TEST_F(FileNames, AFileOnTheWayStopsTheDirectories) {
    WriteText(PathOf("d"), "x");
    EXPECT_FALSE(MakeParentDirectories(PathOf("d/e/file")));
    EXPECT_EQ(ReadText(PathOf("d")), "x");
}

TEST_F(FileNames, ADirectoryThatCannotBeMadeIsReported) {
    const ScopedSystemCalls systemCalls;
    Fail(SystemCall::kMakeDirectory, 1, SystemErrorKind::kAccessDenied, Repeat::kFromThenOn);
    EXPECT_FALSE(MakeParentDirectories(PathOf("d/file")));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kAccessDenied));
}

TEST_F(FileNames, OuterDirectoriesThatCannotBeMadeDoNotHinder) {
    std::filesystem::create_directory(PathOf("d"));
    const ScopedSystemCalls systemCalls;
    Fail(SystemCall::kMakeDirectory, 1, SystemErrorKind::kAccessDenied);  // as a root may be
    EXPECT_TRUE(MakeParentDirectories(PathOf("d/e/file")));
    EXPECT_TRUE(std::filesystem::is_directory(PathOf("d/e")));
}

TEST_F(FileNames, EachNewDirectoryIsFlushedInItsParent) {
    const ScopedSystemCalls systemCalls;
    EXPECT_TRUE(MakeParentDirectories(PathOf("d/e/file")));
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 2U);
}

TEST_F(FileNames, ParentsThatMayNotBeReadAreNotFlushed) {
    const ScopedSystemCalls systemCalls;
    Fail(SystemCall::kFlushDirectory, 1, SystemErrorKind::kAccessDenied, Repeat::kFromThenOn);
    EXPECT_TRUE(MakeParentDirectories(PathOf("d/e/file")));
    EXPECT_TRUE(std::filesystem::is_directory(PathOf("d/e")));
}

TEST_F(FileNames, TheParentDirectoryIsFlushed) {
    EXPECT_TRUE(FlushParentDirectory(PathOf("file")));
    EXPECT_TRUE(FlushParentDirectory("file"));
}

// One operation on names, by the system call that it makes.
struct NameOperation {
    const char* name;
    SystemCall call;
    std::function<bool(const std::string& folder)> run;
};

void PrintTo(const NameOperation& operation, std::ostream* out) {
    *out << operation.name;
}

class EveryNameOperation : public FileNames, public ::testing::WithParamInterface<NameOperation> {
  protected:
    EveryNameOperation() { WriteText(PathOf("a"), "x"); }

    const ScopedSystemCalls m_systemCalls;
};

TEST_P(EveryNameOperation, IsRepeatedWhenInterrupted) {
    Fail(GetParam().call, 1, SystemErrorKind::kInterrupted);
    EXPECT_TRUE(GetParam().run(m_folder.Path()));
    EXPECT_EQ(CallCount(GetParam().call), 2U);
}

TEST_P(EveryNameOperation, FailsOnceWithTheSystemsError) {
    Fail(GetParam().call, 1, SystemErrorKind::kInputOutput);
    EXPECT_FALSE(GetParam().run(m_folder.Path()));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kInputOutput));
    EXPECT_EQ(CallCount(GetParam().call), 1U);
}

std::vector<NameOperation> Operations() {
    std::vector<NameOperation> all = {
        {"Remove", SystemCall::kRemove,
         [](const std::string& folder) { return RemoveFile(folder + "/a"); }},
        {"Rename", SystemCall::kRename,
         [](const std::string& folder) {
             return platform::MoveFileReplacing(folder + "/a", folder + "/b");
         }},
        {"FlushParent", SystemCall::kFlushDirectory,
         [](const std::string& folder) { return FlushParentDirectory(folder + "/a"); }},
    };
#ifndef _WIN32
    all.push_back({"Link", SystemCall::kLink, [](const std::string& folder) {
                       return LinkFile(folder + "/a", folder + "/b");
                   }});
#endif
    return all;
}

INSTANTIATE_TEST_SUITE_P(All, EveryNameOperation, ::testing::ValuesIn(Operations()),
                         [](const auto& testInfo) { return testInfo.param.name; });

}  // namespace
}  // namespace k9erepl::test
