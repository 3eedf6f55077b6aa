// Names on POSIX systems: links, modes of moved files, real volumes.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "files_fixture.h"
#include "platform/file_names.h"

namespace k9erepl::test {
namespace {

using platform::FollowLink;
using platform::LinkFile;
using platform::MoveFileReplacing;

struct stat StatOf(const std::string& path) {
    struct stat info = {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
    return info;
}

class PosixNames : public FilesFixture {
  protected:
    void MakeLink(const std::string& target, const std::string& name) const {
        ASSERT_EQ(symlink(target.c_str(), PathOf(name).c_str()), 0);
    }
};

TEST_F(PosixNames, OnlyTheSlashSeparates) {
    EXPECT_TRUE(platform::IsPathSeparator('/'));
    EXPECT_FALSE(platform::IsPathSeparator('\\'));
    EXPECT_FALSE(platform::IsPathSeparator(':'));
}

TEST_F(PosixNames, AFilesLinkIsTheSameFile) {
    WriteText(PathOf("a"), "x");
    EXPECT_TRUE(LinkFile(PathOf("a"), PathOf("b")));
    EXPECT_EQ(StatOf(PathOf("a")).st_ino, StatOf(PathOf("b")).st_ino);
}

TEST_F(PosixNames, ALinkReplacesNothing) {
    WriteText(PathOf("a"), "x");
    WriteText(PathOf("b"), "y");
    EXPECT_FALSE(LinkFile(PathOf("a"), PathOf("b")));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kAlreadyExists));
    EXPECT_EQ(ReadText(PathOf("b")), "y");
}

TEST_F(PosixNames, WhereLinksAreRefusedTheyAreNotSupported) {
    std::filesystem::create_directory(PathOf("d"));
    EXPECT_FALSE(LinkFile(PathOf("d"), PathOf("e")));  // no system lets us link a directory
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotSupported));
}

TEST_F(PosixNames, APathThatIsNoLinkStays) {
    WriteText(PathOf("a"), "x");
    EXPECT_EQ(FollowLink(PathOf("a")), PathOf("a"));
    EXPECT_EQ(FollowLink(PathOf("none")), PathOf("none"));
    EXPECT_EQ(FollowLink("none"), "none");
    EXPECT_EQ(FollowLink(""), "");
}

TEST_F(PosixNames, ARelativeLinkIsFollowedInItsFolder) {
    MakeLink("target", "link");
    EXPECT_EQ(FollowLink(PathOf("link")), PathOf("target"));
}

TEST_F(PosixNames, AnAbsoluteLinkIsFollowed) {
    MakeLink("/some/where", "link");
    EXPECT_EQ(FollowLink(PathOf("link")), "/some/where");
}

TEST_F(PosixNames, AChainOfLinksIsFollowedToItsEnd) {
    MakeLink("second", "first");
    MakeLink(PathOf("third"), "second");
    MakeLink("target", "third");
    EXPECT_EQ(FollowLink(PathOf("first")), PathOf("target"));
}

TEST_F(PosixNames, ACircleOfLinksIsLeftToTheSystem) {
    MakeLink("second", "first");
    MakeLink("first", "second");
    EXPECT_EQ(FollowLink(PathOf("first")), PathOf("first"));
    File file;
    EXPECT_FALSE(Open(file, "first"));
}

TEST_F(PosixNames, MovingOverAFollowedLinkReplacesItsTarget) {
    WriteText(PathOf("target"), "old");
    WriteText(PathOf("from"), "new");
    MakeLink("target", "link");
    EXPECT_TRUE(MoveFileReplacing(PathOf("from"), FollowLink(PathOf("link"))));
    EXPECT_TRUE(std::filesystem::is_symlink(PathOf("link")));
    EXPECT_EQ(ReadText(PathOf("link")), "new");
}

TEST_F(PosixNames, AFileKeepsItsModeAcrossVolumes) {
    WriteText(PathOf("from"), "new");
    ASSERT_EQ(chmod(PathOf("from").c_str(), 0640), 0);
    const ScopedSystemCalls systemCalls;
    FailRename(1, SystemErrorKind::kCrossVolume);
    ASSERT_TRUE(MoveFileReplacing(PathOf("from"), PathOf("to")));
    EXPECT_EQ(StatOf(PathOf("to")).st_mode & 07777, 0640U);
}

mode_t g_modeWhileCopying = 0;

TEST_F(PosixNames, TheCopyIsNeverOpenToMoreUsersThanTheSource) {
    WriteText(PathOf("from"), "secret");
    ASSERT_EQ(chmod(PathOf("from").c_str(), 0600), 0);
    const ScopedSystemCalls systemCalls;
    FailRename(1, SystemErrorKind::kCrossVolume);
    platform::TheSystemCalls().takeOwnerAndMode = [](platform::NativeFile file, const char*) {
        struct stat info = {};
        EXPECT_EQ(fstat(static_cast<int>(file), &info), 0);
        g_modeWhileCopying = info.st_mode & 07777;
        return true;
    };
    ASSERT_TRUE(MoveFileReplacing(PathOf("from"), PathOf("to")));
    EXPECT_EQ(g_modeWhileCopying, 0600U);
}

TEST_F(PosixNames, MovesBetweenRealVolumes) {
    const std::string other = "/dev/shm";
    if (!Exists(other) || StatOf(other).st_dev == StatOf(m_folder.Path()).st_dev) {
        GTEST_SKIP() << "this machine has no second volume at hand";
    }
    const std::string source = other + "/k9erepl_move_" + std::to_string(getpid());
    WriteText(source, "from afar");
    EXPECT_TRUE(MoveFileReplacing(source, PathOf("to")));
    EXPECT_EQ(ReadText(PathOf("to")), "from afar");
    EXPECT_FALSE(Exists(source));
}

TEST_F(PosixNames, FlushingTheDirectoryOfNoDirectoryFails) {
    EXPECT_FALSE(platform::FlushParentDirectory(PathOf("none/file")));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotFound));
}

}  // namespace
}  // namespace k9erepl::test
