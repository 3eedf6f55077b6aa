// Moving a file over another one, within a volume and across two.
#include <functional>

#include "files_fixture.h"
#include "platform/file_names.h"
#include "platform/memory.h"

namespace k9erepl::test {
namespace {

using platform::File;
using platform::FileAccess;
using platform::FileSharing;
using platform::MakeParentDirectories;
using platform::MoveFileReplacing;

class MoveFile : public FilesFixture {
  protected:
    MoveFile() { WriteText(PathOf("from"), "new"); }

    bool Move() const { return MoveFileReplacing(PathOf("from"), PathOf("to")); }
    void ExpectMoved(const std::string& text) const {
        EXPECT_EQ(ReadText(PathOf("to")), text);
        EXPECT_FALSE(Exists(PathOf("from")));
        EXPECT_FALSE(Exists(PathOf("to.moving")));
    }
};

TEST_F(MoveFile, GivesTheFileItsNewName) {
    EXPECT_TRUE(Move());
    ExpectMoved("new");
}

TEST_F(MoveFile, ReplacesTheFileThatStandsThere) {
    WriteText(PathOf("to"), "old and longer");
    EXPECT_TRUE(Move());
    ExpectMoved("new");
}

TEST_F(MoveFile, ReplacesAFileThatAReaderHasOpen) {
    WriteText(PathOf("to"), "old");
    File reader;
    ASSERT_TRUE(reader.Open(PathOf("to").c_str(),
                            {.access = FileAccess::kRead, .sharing = FileSharing::kAll}));
    EXPECT_TRUE(Move());
    ExpectMoved("new");
    char bytes[4] = {};
    u32 got = 0;
    EXPECT_TRUE(reader.Read(bytes, sizeof bytes, &got));
    EXPECT_EQ(std::string(bytes, got), "old");
    reader.Close();
    EXPECT_FALSE(Exists(PathOf("to.replaced-0")));
}

TEST_F(MoveFile, ReplacesNoFolder) {
    ASSERT_TRUE(MakeParentDirectories(PathOf("to") + "/file"));
    EXPECT_FALSE(Move());
    EXPECT_TRUE(Exists(PathOf("from")));
    EXPECT_FALSE(Exists(PathOf("to.replaced-0")));
}

TEST_F(MoveFile, FailsWithoutAFile) {
    EXPECT_FALSE(MoveFileReplacing(PathOf("none"), PathOf("to")));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotFound));
}

TEST_F(MoveFile, CopiesOnlyAcrossVolumes) {
    const ScopedSystemCalls systemCalls;
    FailRename(1, SystemErrorKind::kAccessDenied);
    EXPECT_FALSE(Move());
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kAccessDenied));
    EXPECT_EQ(CallCount(SystemCall::kOpen), 0U);
    EXPECT_EQ(ReadText(PathOf("from")), "new");
}

class MoveAcrossVolumes : public MoveFile {
  protected:
    MoveAcrossVolumes() { FailRename(1, SystemErrorKind::kCrossVolume); }

    const ScopedSystemCalls m_systemCalls;
};

TEST_F(MoveAcrossVolumes, CopiesAndDeletesTheSource) {
    WriteText(PathOf("to"), "old and longer");
    EXPECT_TRUE(Move());
    ExpectMoved("new");
    EXPECT_EQ(CallCount(SystemCall::kFlush), 1U);
}

TEST_F(MoveAcrossVolumes, MovesAnEmptyFile) {
    WriteText(PathOf("from"), "");
    EXPECT_TRUE(Move());
    ExpectMoved("");
}

TEST_F(MoveAcrossVolumes, MovesExactlyOnePieceOfTheCopy) {
    const std::string text(std::size_t{1024} * 1024, 'p');
    WriteText(PathOf("from"), text);
    EXPECT_TRUE(Move());
    ExpectMoved(text);
}

TEST_F(MoveAcrossVolumes, MovesManyPieces) {
    std::string text;
    for (u32 n = 0; text.size() < 3'000'000; ++n) {
        text += std::to_string(n);
    }
    WriteText(PathOf("from"), text);
    EXPECT_TRUE(Move());
    ExpectMoved(text);
}

TEST_F(MoveAcrossVolumes, ReplacesWhatACrashLeftOfAnEarlierMove) {
    WriteText(PathOf("to.moving"), "half of something");
    EXPECT_TRUE(Move());
    ExpectMoved("new");
}

TEST_F(MoveAcrossVolumes, ASourceThatCannotBeDeletedIsLeftOver) {
    WriteText(PathOf("to"), "old");
    FailRemove(2);  // the first one is for the left-over copy
    EXPECT_TRUE(Move());
    EXPECT_EQ(ReadText(PathOf("to")), "new");
    EXPECT_EQ(ReadText(PathOf("from")), "new");
}

u32 g_directoryFlushesBeforeRemoval = 0;

TEST_F(MoveAcrossVolumes, TheNewNameIsOnTheDiskBeforeTheSourceGoes) {
    platform::TheSystemCalls().removeFile = [](const char* path) {
        if (std::string(path).ends_with("/from")) {
            g_directoryFlushesBeforeRemoval = CallCount(SystemCall::kFlushDirectory);
        }
        return platform::NativeSystemCalls().removeFile(path);
    };
    EXPECT_TRUE(Move());
    EXPECT_EQ(g_directoryFlushesBeforeRemoval, 1U);
    ExpectMoved("new");
}

TEST_F(MoveAcrossVolumes, AFailedDirectoryFlushKeepsTheSource) {
    FailFlushDirectory(1);
    EXPECT_FALSE(Move());
    EXPECT_EQ(ReadText(PathOf("from")), "new");
    EXPECT_EQ(ReadText(PathOf("to")), "new");
}

TEST_F(MoveAcrossVolumes, ADirectoryThatMayNotBeReadIsNotFlushed) {
    Fail(SystemCall::kFlushDirectory, 1, SystemErrorKind::kAccessDenied);
    EXPECT_TRUE(Move());
    ExpectMoved("new");
}

// One failing step of the copy.
struct Step {
    const char* name;
    std::function<void()> fail;
};

void PrintTo(const Step& step, std::ostream* out) {
    *out << step.name;
}

class FailedCopy : public MoveAcrossVolumes, public ::testing::WithParamInterface<Step> {};

TEST_P(FailedCopy, LeavesBothFilesAsTheyWereAndNoCopy) {
    WriteText(PathOf("to"), "old");
    GetParam().fail();
    EXPECT_FALSE(Move());
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kOutOfMemory));
    EXPECT_EQ(ReadText(PathOf("from")), "new");
    EXPECT_EQ(ReadText(PathOf("to")), "old");
    EXPECT_FALSE(Exists(PathOf("to.moving")));
}

constexpr auto kCause = SystemErrorKind::kOutOfMemory;

INSTANTIATE_TEST_SUITE_P(
    All, FailedCopy,
    ::testing::Values(Step{"OpenSource", [] { FailOpen(1, kCause); }},
                      Step{"CreateCopy", [] { FailOpen(2, kCause); }},
                      Step{"OwnerAndMode", [] { Fail(SystemCall::kTakeOwnerAndMode, 1, kCause); }},
                      Step{"Buffer", [] { FailAlloc(1); }},
                      Step{"Read", [] { FailRead(1, kCause); }},
                      Step{"Write", [] { ShortWrite(1, 2, kCause); }},
                      Step{"Flush", [] { FailFlush(1, kCause); }},
                      Step{"Rename",
                           [] {
                               static u32 renames;
                               renames = 0;
                               platform::TheSystemCalls().renameFile = [](const char*,
                                                                          const char*) {
                                   platform::SetLastSystemError(platform::SystemErrorOf(
                                       ++renames == 1 ? SystemErrorKind::kCrossVolume : kCause));
                                   return false;
                               };
                           }}),
    [](const auto& testInfo) { return testInfo.param.name; });

}  // namespace
}  // namespace k9erepl::test
