// Names of files: deleting them, making and flushing directories, paths that lead to one file, and
// moving a file over another one, within a volume and across two.
#include "platform/file_names.h"

#include <filesystem>
#include <functional>

#include "files_fixture.h"
#include "platform/memory.h"
#include "platform/one_file.h"

namespace k9erepl::test {
namespace {

using platform::FlushParentDirectory;
using platform::LeadToOneFile;
using platform::MakeParentDirectories;
using platform::MoveFileReplacing;
using platform::RemoveFile;

class FileNames : public FilesFixture {
  protected:
    bool IsDirectory(const std::string& name) const {
        return std::filesystem::is_directory(PathOf(name));
    }
};

TEST_F(FileNames, RemoveFileDeletesAFileOnly) {
    WriteText(PathOf("a"), "x");
    EXPECT_TRUE(RemoveFile(PathOf("a")));
    EXPECT_FALSE(Exists(PathOf("a")));
    EXPECT_FALSE(RemoveFile(PathOf("a")));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotFound));
    std::filesystem::create_directory(PathOf("d"));
    EXPECT_FALSE(RemoveFile(PathOf("d")));
    EXPECT_TRUE(IsDirectory("d"));
}

TEST_F(FileNames, ParentDirectoriesAreMadeOutermostFirst) {
    for (const char* path : {"file", "d/e/f/file", "d/e/f/file", "g//h///file"}) {
        EXPECT_TRUE(MakeParentDirectories(PathOf(path)));
        EXPECT_FALSE(Exists(PathOf(path)));
    }
    EXPECT_TRUE(IsDirectory("d/e/f"));
    EXPECT_TRUE(IsDirectory("g/h"));
}

TEST_F(FileNames, APathWithoutDirectoryNeedsNone) {
    const ScopedSystemCalls systemCalls;
    for (const char* path : {"file", "", "/file"}) {
        EXPECT_TRUE(MakeParentDirectories(path));
    }
    EXPECT_EQ(CallCount(SystemCall::kMakeDirectory), 0U);
}

TEST_F(FileNames, AFileOnTheWayStopsTheDirectories) {
    WriteText(PathOf("d"), "x");
    EXPECT_FALSE(MakeParentDirectories(PathOf("d/e/file")));
    EXPECT_EQ(ReadText(PathOf("d")), "x");
}

TEST_F(FileNames, ADirectoryThatCannotBeMadeIsReportedUnlessItIsAnOuterOne) {
    const ScopedSystemCalls systemCalls;
    std::filesystem::create_directory(PathOf("d"));
    Fail(SystemCall::kMakeDirectory, 1, SystemErrorKind::kAccessDenied);  // as a root may be
    EXPECT_TRUE(MakeParentDirectories(PathOf("d/e/file")));
    EXPECT_TRUE(IsDirectory("d/e"));
    Fail(SystemCall::kMakeDirectory, 1, SystemErrorKind::kAccessDenied, Repeat::kFromThenOn);
    EXPECT_FALSE(MakeParentDirectories(PathOf("f/file")));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kAccessDenied));
}

TEST_F(FileNames, EachNewDirectoryIsFlushedInItsParentIfThatMayBeRead) {
    const ScopedSystemCalls systemCalls;
    EXPECT_TRUE(MakeParentDirectories(PathOf("d/e/file")));
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 2U);
    Fail(SystemCall::kFlushDirectory, 1, SystemErrorKind::kAccessDenied, Repeat::kFromThenOn);
    EXPECT_TRUE(MakeParentDirectories(PathOf("d/f/file")));
    EXPECT_TRUE(IsDirectory("d/f"));
}

TEST_F(FileNames, TheParentDirectoryIsFlushed) {
    EXPECT_TRUE(FlushParentDirectory(PathOf("file")));
    EXPECT_TRUE(FlushParentDirectory("file"));
}

TEST_F(FileNames, EachOperationFailsOnceWithTheSystemsErrorAndIsRepeatedWhenInterrupted) {
    const ScopedSystemCalls systemCalls;
    WriteText(PathOf("a"), "x");
    const struct {
        SystemCall call;
        std::function<bool()> run;
    } operations[] = {
        {SystemCall::kFlushDirectory, [&] { return FlushParentDirectory(PathOf("a")); }},
        {SystemCall::kRename, [&] { return MoveFileReplacing(PathOf("a"), PathOf("b")); }},
        {SystemCall::kRemove, [&] { return RemoveFile(PathOf("b")); }},
    };
    for (const auto& [call, run] : operations) {
        SCOPED_TRACE(static_cast<int>(call));
        const u32 before = CallCount(call);
        Fail(call, 1, SystemErrorKind::kInputOutput);
        EXPECT_FALSE(run());
        EXPECT_TRUE(LastErrorIs(SystemErrorKind::kInputOutput));
        Fail(call, 1, SystemErrorKind::kInterrupted);
        EXPECT_TRUE(run());
        EXPECT_EQ(CallCount(call), before + 3);
    }
}

class OneFile : public FilesFixture {
  protected:
    // Whether each of the paths leads to the file `one`, asked in both directions.
    void Expect(bool same, const std::string& one, const std::vector<std::string>& paths) const {
        for (const std::string& path : paths) {
            EXPECT_EQ(LeadToOneFile(PathOf(one), PathOf(path)), same) << path;
            EXPECT_EQ(LeadToOneFile(PathOf(path), PathOf(one)), same) << path;
        }
    }
};

TEST_F(OneFile, HasAsManyPathsAsThereAreWaysThroughFolders) {
    std::filesystem::create_directory(PathOf("folder"));
    for (const bool exists : {false, true}) {
        if (exists) {
            WriteText(PathOf("data"), "text");
        }
        Expect(true, "data",
               {"data", "./data", ".//.//data", "folder/../data", "folder/.././folder/../data"});
        Expect(false, "data", {"other", "folder/data", "data2", "dat", "folder/../other"});
    }
}

TEST_F(OneFile, MayLieInFoldersThatAreYetToBeMade) {
    Expect(true, "new/deep/data",
           {"new/deep/data", "new//deep/./data", "new/other/../deep/data",
            "other/../new/x/y/../../deep/data"});
    Expect(false, "new/deep/data", {"new/data", "deep/data", "new/deep/data/data", "newdeep/data"});
}

TEST_F(OneFile, MayBeNamedFromTheCurrentFolder) {
    EXPECT_TRUE(LeadToOneFile("no-such-file", "./no-such-file"));
    EXPECT_TRUE(
        LeadToOneFile("no-such-file", (std::filesystem::current_path() / "no-such-file").string()));
    EXPECT_FALSE(LeadToOneFile("no-such-file", "../no-such-file"));
}

class MoveFile : public FilesFixture {
  protected:
    MoveFile() { WriteText(PathOf("from"), "new"); }

    bool Move() const { return MoveFileReplacing(PathOf("from"), PathOf("to")); }
    void ExpectMoved(const std::string& text = "new") const {
        EXPECT_EQ(ReadText(PathOf("to")), text);
        EXPECT_FALSE(Exists(PathOf("from")));
        EXPECT_FALSE(Exists(PathOf("to.moving")));
    }
};

TEST_F(MoveFile, GivesTheFileItsNewNameInPlaceOfTheFileThatStandsThere) {
    EXPECT_TRUE(Move());
    ExpectMoved();
    WriteText(PathOf("from"), "newer");
    EXPECT_TRUE(Move());
    ExpectMoved("newer");
}

TEST_F(MoveFile, ReplacesAFileThatAReaderHasOpen) {
    WriteText(PathOf("to"), "old");
    File reader;
    ASSERT_TRUE(
        Open(reader, "to", {.access = FileAccess::kRead, .sharing = platform::FileSharing::kAll}));
    EXPECT_TRUE(Move());
    ExpectMoved();
    EXPECT_EQ(Read(reader, 4), "old");
    reader.Close();
    EXPECT_FALSE(Exists(PathOf("to.replaced-0")));
}

TEST_F(MoveFile, ReplacesNoFolder) {
    ASSERT_TRUE(MakeParentDirectories(PathOf("to") + "/file"));
    EXPECT_FALSE(Move());
    EXPECT_TRUE(Exists(PathOf("from")));
    EXPECT_FALSE(Exists(PathOf("to.replaced-0")));
}

TEST_F(MoveFile, CopiesOnlyAcrossVolumes) {
    EXPECT_FALSE(MoveFileReplacing(PathOf("none"), PathOf("to")));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotFound));
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

TEST_F(MoveAcrossVolumes, CopiesAndDeletesTheSourceAndWhatACrashLeftOfAnEarlierMove) {
    WriteText(PathOf("to"), "old and longer");
    WriteText(PathOf("to.moving"), "half of something");
    EXPECT_TRUE(Move());
    ExpectMoved();
    EXPECT_EQ(CallCount(SystemCall::kFlush), 1U);
}

TEST_F(MoveAcrossVolumes, MovesFilesOfEverySize) {
    constexpr std::size_t kPiece = 1024 * 1024;  // of the copy
    for (const std::size_t size : {std::size_t{0}, kPiece, 3 * kPiece - 7}) {
        std::string text(size, 'p');
        for (std::size_t at = 0; at < size; at += 1000) {
            text[at] = static_cast<char>('a' + at / 1000 % 26);
        }
        WriteText(PathOf("from"), text);
        FailRename(1, SystemErrorKind::kCrossVolume);
        EXPECT_TRUE(Move());
        ExpectMoved(text);
    }
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
    ExpectMoved();
}

TEST_F(MoveAcrossVolumes, AFailedDirectoryFlushKeepsTheSourceUnlessTheDirectoryMayNotBeRead) {
    FailFlushDirectory(1);
    EXPECT_FALSE(Move());
    EXPECT_EQ(ReadText(PathOf("from")), "new");
    EXPECT_EQ(ReadText(PathOf("to")), "new");
    FailRename(1, SystemErrorKind::kCrossVolume);
    Fail(SystemCall::kFlushDirectory, 1, SystemErrorKind::kAccessDenied);
    EXPECT_TRUE(Move());
    ExpectMoved();
}

u32 g_renames = 0;

TEST_F(MoveAcrossVolumes, AFailingStepOfTheCopyLeavesBothFilesAsTheyWereAndNoCopy) {
    constexpr auto kCause = SystemErrorKind::kOutOfMemory;
    WriteText(PathOf("to"), "old");
    const std::function<void()> steps[] = {
        [] { FailOpen(1, kCause); },  // the source
        [] { FailOpen(2, kCause); },  // the copy
        [] { Fail(SystemCall::kTakeOwnerAndMode, 1, kCause); },
        [] { FailAlloc(1); },
        [] { FailRead(1, kCause); },
        [] { ShortWrite(1, 2, kCause); },
        [] { FailFlush(1, kCause); },
        [] {  // the rename of the copy
            platform::TheSystemCalls().renameFile = [](const char*, const char*) {
                platform::SetLastSystemError(platform::SystemErrorOf(
                    ++g_renames == 1 ? SystemErrorKind::kCrossVolume : kCause));
                return false;
            };
        }};
    for (const auto& fail : steps) {
        SCOPED_TRACE(&fail - steps);
        FailRename(1, SystemErrorKind::kCrossVolume);
        fail();
        EXPECT_FALSE(Move());
        EXPECT_TRUE(LastErrorIs(SystemErrorKind::kOutOfMemory));
        EXPECT_EQ(ReadText(PathOf("from")), "new");
        EXPECT_EQ(ReadText(PathOf("to")), "old");
        EXPECT_FALSE(Exists(PathOf("to.moving")));
    }
}

}  // namespace
}  // namespace k9erepl::test
