// Files on POSIX systems: descriptors, modes, what is no regular file, links, moves between
// volumes, and the writer's lock in forked children.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "files_fixture.h"
#include "platform/file_names.h"

namespace k9erepl::test {
namespace {

using platform::FollowLink;
using platform::LinkFile;
using platform::LockResult;
using platform::MoveFileReplacing;

constexpr uid_t kNobody = 65534;

struct stat StatOf(const std::string& path) {
    struct stat info = {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
    return info;
}

class PosixFiles : public FilesFixture {
  protected:
    static int DescriptorOf(const File& file) {
        return static_cast<int>(reinterpret_cast<std::intptr_t>(file.Native()));
    }
    mode_t ModeOf(const std::string& name) const { return StatOf(PathOf(name)).st_mode & 07777; }
    // A file "model" with that mode, whose owner and mode the new file "a" takes.
    bool TakeFrom(mode_t mode, File& file) const {
        WriteText(PathOf("model"), "");
        EXPECT_EQ(chmod(PathOf("model").c_str(), mode), 0);
        return Create(file, "a") && file.TakeOwnerAndMode(PathOf("model").c_str());
    }
    // Opening `path` fails for every access, with that error.
    static void ExpectRefused(const std::string& path, platform::SystemError error) {
        for (const FileAccess access :
             {FileAccess::kRead, FileAccess::kWrite, FileAccess::kReadWrite}) {
            File file;
            EXPECT_FALSE(file.Open(path.c_str(), {.access = access})) << path;
            EXPECT_EQ(platform::LastSystemError(), error) << path;
        }
    }
    static int NextDescriptor() {
        const int next = dup(0);
        close(next);
        return next;
    }
};

class ScopedUmask {
  public:
    explicit ScopedUmask(mode_t mask) : m_before(umask(mask)) {}
    ~ScopedUmask() { umask(m_before); }
    ScopedUmask(const ScopedUmask&) = delete;
    ScopedUmask& operator=(const ScopedUmask&) = delete;

  private:
    mode_t m_before;
};

TEST_F(PosixFiles, WhatIsNoRegularFileIsRefusedWithoutBlockingAndLeavesNoDescriptor) {
    const int socketDescriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    PathOf("socket").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(socketDescriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(mkfifo(PathOf("fifo").c_str(), 0600), 0);
    const int next = NextDescriptor();
    const auto refusal = platform::SystemErrorOf(SystemErrorKind::kNotARegularFile);
    for (const std::string& path : {PathOf("fifo"), PathOf("socket"), std::string("/dev/null")}) {
        ExpectRefused(path, refusal);
    }
    ExpectRefused(m_folder.Path(), static_cast<u32>(EISDIR));
    File file;
    EXPECT_FALSE(Open(file, "fifo", {.disposition = FileDisposition::kCreateAlways}));
    EXPECT_EQ(platform::LastSystemError(), refusal);
    EXPECT_EQ(NextDescriptor(), next);
    close(socketDescriptor);
}

TEST_F(PosixFiles, DescriptorsAreClosedAtExecAndWriteThroughMakesEachWriteWaitForTheDisk) {
    File through;
    File buffered;
    ASSERT_TRUE(Create(through, "a") && Open(through, "a", {.writeThrough = true}));
    ASSERT_TRUE(Open(buffered, "a"));
    EXPECT_EQ(fcntl(DescriptorOf(through), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(DescriptorOf(through), F_GETFL) & O_DSYNC, O_DSYNC);
    EXPECT_EQ(fcntl(DescriptorOf(buffered), F_GETFL) & O_DSYNC, 0);
}

TEST_F(PosixFiles, NewFilesRespectTheUmaskAndMayBeClosedToOthers) {
    const ScopedUmask umaskOfTheTest(027);
    File file;
    ASSERT_TRUE(Create(file, "a"));
    EXPECT_EQ(ModeOf("a"), 0640U);
    ASSERT_TRUE(Open(file, "b", {.disposition = FileDisposition::kCreateNew, .ownerOnly = true}));
    EXPECT_EQ(ModeOf("b"), 0600U);
}

TEST_F(PosixFiles, ModeIsTakenWithoutSetIdBits) {
    File file;
    ASSERT_TRUE(TakeFrom(06751, file));
    EXPECT_EQ(ModeOf("a"), 0751U);
    EXPECT_FALSE(file.TakeOwnerAndMode(PathOf("none").c_str()));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotFound));
}

TEST_F(PosixFiles, RootTakesTheOwnerTooAndOthersKeepIt) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may give files away";
    }
    WriteText(PathOf("model"), "");
    ASSERT_EQ(chown(PathOf("model").c_str(), 4711, 4712), 0);
    File file;
    ASSERT_TRUE(TakeFrom(0604, file));
    EXPECT_EQ(StatOf(PathOf("a")).st_uid, 4711U);
    EXPECT_EQ(StatOf(PathOf("a")).st_gid, 4712U);
    ASSERT_EQ(unlink(PathOf("a").c_str()), 0);
    ASSERT_EQ(chmod(m_folder.Path().c_str(), 0777), 0);
    ASSERT_EQ(seteuid(kNobody), 0);
    const bool done = Create(file, "a") && file.TakeOwnerAndMode(PathOf("model").c_str());
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_TRUE(done);
    EXPECT_EQ(StatOf(PathOf("a")).st_uid, kNobody);
    EXPECT_EQ(ModeOf("a"), 0604U);
}

// The system's own limit on file sizes, in place of a full disk.
class ScopedFileSizeLimit {
  public:
    explicit ScopedFileSizeLimit(rlim_t bytes) : m_handler(std::signal(SIGXFSZ, SIG_IGN)) {
        EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &m_before), 0);
        const rlimit limit = {.rlim_cur = bytes, .rlim_max = m_before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~ScopedFileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &m_before);
        (void)std::signal(SIGXFSZ, m_handler);
    }
    ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
    ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;

  private:
    void (*m_handler)(int);
    rlimit m_before = {};
};

TEST_F(PosixFiles, AWriteThatTheSystemCutsReportsItsPartAndTheCause) {
    File file;
    ASSERT_TRUE(Create(file, "a"));
    const ScopedFileSizeLimit limit(100);
    u32 put = 0;
    EXPECT_FALSE(file.Write(std::string(150, 'x').data(), 150, &put));
    EXPECT_EQ(put, 100U);
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kFileTooBig));
    EXPECT_FALSE(file.SetEnd(101));
    EXPECT_EQ(FileSize(PathOf("a")), 100);
}

class PosixNames : public FilesFixture {
  protected:
    void MakeLink(const std::string& target, const std::string& name) const {
        ASSERT_EQ(symlink(target.c_str(), PathOf(name).c_str()), 0);
    }
    void ExpectFollowed(const std::string& name, const std::string& target) const {
        EXPECT_EQ(FollowLink(PathOf(name)), target);
    }
};

TEST_F(PosixNames, OnlyTheSlashSeparates) {
    EXPECT_TRUE(platform::IsPathSeparator('/'));
    EXPECT_FALSE(platform::IsPathSeparator('\\'));
    EXPECT_FALSE(platform::IsPathSeparator(':'));
}

TEST_F(PosixNames, AHardLinkIsTheSameFileAndReplacesNothing) {
    WriteText(PathOf("a"), "x");
    WriteText(PathOf("b"), "y");
    EXPECT_FALSE(LinkFile(PathOf("a"), PathOf("b")));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kAlreadyExists));
    EXPECT_EQ(ReadText(PathOf("b")), "y");
    const ScopedSystemCalls systemCalls;
    Fail(SystemCall::kLink, 1, SystemErrorKind::kInputOutput);
    EXPECT_FALSE(LinkFile(PathOf("a"), PathOf("c")));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kInputOutput));
    Fail(SystemCall::kLink, 1, SystemErrorKind::kInterrupted);
    EXPECT_TRUE(LinkFile(PathOf("a"), PathOf("c")));
    EXPECT_EQ(CallCount(SystemCall::kLink), 3U);
    EXPECT_EQ(StatOf(PathOf("a")).st_ino, StatOf(PathOf("c")).st_ino);
    std::filesystem::create_directory(PathOf("d"));
    EXPECT_FALSE(LinkFile(PathOf("d"), PathOf("e")));  // no system lets us link a directory
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotSupported));
}

TEST_F(PosixNames, LinksAreFollowedToTheirEnd) {
    MakeLink("second", "first");
    MakeLink(PathOf("third"), "second");
    MakeLink("target", "third");
    MakeLink("/some/where", "absolute");
    ExpectFollowed("first", PathOf("target"));
    ExpectFollowed("third", PathOf("target"));
    ExpectFollowed("absolute", "/some/where");
    ExpectFollowed("none", PathOf("none"));
    EXPECT_EQ(FollowLink("none"), "none");
    EXPECT_EQ(FollowLink(""), "");
}

TEST_F(PosixNames, ACircleOfLinksIsLeftToTheSystem) {
    MakeLink("second", "first");
    MakeLink("first", "second");
    ExpectFollowed("first", PathOf("first"));
    File file;
    EXPECT_FALSE(Open(file, "first"));
}

TEST_F(PosixNames, OpeningFollowsALinkAndMovingOverAFollowedOneReplacesItsTarget) {
    WriteText(PathOf("target"), "old");
    WriteText(PathOf("from"), "new");
    MakeLink("target", "link");
    File file;
    ASSERT_TRUE(Open(file, "link"));
    EXPECT_EQ(Read(file, 10), "old");
    EXPECT_TRUE(MoveFileReplacing(PathOf("from"), FollowLink(PathOf("link"))));
    EXPECT_TRUE(std::filesystem::is_symlink(PathOf("link")));
    EXPECT_EQ(ReadText(PathOf("link")), "new");
}

mode_t g_modeWhileCopying = 0;

TEST_F(PosixNames, AFileKeepsItsModeAcrossVolumesAndIsNeverOpenToMoreUsers) {
    WriteText(PathOf("from"), "secret");
    ASSERT_EQ(chmod(PathOf("from").c_str(), 0640), 0);
    const ScopedSystemCalls systemCalls;
    FailRename(1, SystemErrorKind::kCrossVolume);
    platform::TheSystemCalls().takeOwnerAndMode = [](platform::NativeFile file, const char* from) {
        struct stat info = {};
        EXPECT_EQ(fstat(static_cast<int>(file), &info), 0);
        g_modeWhileCopying = info.st_mode & 07777;
        return platform::NativeSystemCalls().takeOwnerAndMode(file, from);
    };
    ASSERT_TRUE(MoveFileReplacing(PathOf("from"), PathOf("to")));
    EXPECT_EQ(g_modeWhileCopying, 0600U);
    EXPECT_EQ(StatOf(PathOf("to")).st_mode & 07777, 0640U);
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

class PosixLocks : public FilesFixture {
  protected:
    PosixLocks() {
        EXPECT_TRUE(Create(m_holder, "data"));
        EXPECT_EQ(m_holder.TryLock(), LockResult::kTaken);
    }

    LockResult TryAnew() const {
        File other;
        return Open(other, "data") ? other.TryLock() : LockResult::kFailed;
    }
    // A forked child that does `action` and ends when this closes its pipe; `action` was done when
    // the function returns.
    template <typename Action>
    pid_t Fork(Action action) {
        int told[2];
        EXPECT_EQ(pipe(told), 0);
        EXPECT_EQ(pipe(m_untilEnd), 0);
        const pid_t child = fork();
        if (child == 0) {
            close(m_untilEnd[1]);
            action();
            char byte = 0;
            const bool waited = write(told[1], "x", 1) == 1 && read(m_untilEnd[0], &byte, 1) == 0;
            _exit(waited ? 0 : 1);
        }
        char byte = 0;
        EXPECT_EQ(read(told[0], &byte, 1), 1);
        close(told[0]);
        close(told[1]);
        close(m_untilEnd[0]);
        return child;
    }
    void End(pid_t child) const {
        close(m_untilEnd[1]);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }

    File m_holder;
    int m_untilEnd[2] = {-1, -1};
};

TEST_F(PosixLocks, AForkedChildThatClosesTheFileFreesNothing) {
    const pid_t child = Fork([&] { m_holder.Close(); });
    EXPECT_EQ(TryAnew(), LockResult::kHeldByAnother);
    End(child);
    EXPECT_EQ(TryAnew(), LockResult::kHeldByAnother);
}

TEST_F(PosixLocks, TheParentsCloseFreesALockThatAChildHasInherited) {
    const pid_t child = Fork([&] {
        if (TryAnew() != LockResult::kHeldByAnother) {
            _exit(2);  // its own handle is refused like any other
        }
    });
    m_holder.Close();
    EXPECT_EQ(TryAnew(), LockResult::kTaken);
    End(child);
}

TEST_F(PosixLocks, FilesReadOnlyCannotBeLocked) {
    File reader;
    ASSERT_TRUE(Open(reader, "data", {.access = FileAccess::kRead}));
    EXPECT_EQ(reader.TryLock(), LockResult::kFailed);
}

TEST_F(PosixLocks, HardAndSymbolicLinksLeadToOneFile) {
    ASSERT_TRUE(LinkFile(PathOf("data"), PathOf("hard")));
    std::filesystem::create_symlink("data", PathOf("symbolic"));
    std::filesystem::create_directory_symlink(".", PathOf("folder"));
    platform::FileIdentity identity;
    ASSERT_TRUE(m_holder.GetIdentity(&identity));
    for (const char* path : {"hard", "symbolic", "folder/data", "folder/folder/symbolic"}) {
        platform::FileIdentity named;
        ASSERT_TRUE(platform::GetIdentity(PathOf(path), &named)) << path;
        EXPECT_EQ(named, identity) << path;
    }
}

}  // namespace
}  // namespace k9erepl::test
