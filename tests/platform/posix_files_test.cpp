// Open files on POSIX systems: descriptors, modes, and what is no regular file.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "files_fixture.h"

namespace k9erepl::test {
namespace {

class PosixFiles : public FilesFixture {
  protected:
    static int DescriptorOf(const File& file) {
        return static_cast<int>(reinterpret_cast<std::intptr_t>(file.Native()));
    }
    mode_t ModeOf(const std::string& name) const {
        struct stat info = {};
        EXPECT_EQ(stat(PathOf(name).c_str(), &info), 0);
        return info.st_mode & 07777;
    }
    void MakeFifo(const std::string& name) const {
        ASSERT_EQ(mkfifo(PathOf(name).c_str(), 0600), 0);
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

TEST_F(PosixFiles, AFifoIsRefusedWithoutBlockingForEveryAccess) {
    MakeFifo("fifo");
    for (const FileAccess access :
         {FileAccess::kRead, FileAccess::kWrite, FileAccess::kReadWrite}) {
        File file;
        EXPECT_FALSE(Open(file, "fifo", {.access = access}));
        EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotARegularFile));
    }
}

TEST_F(PosixFiles, AFifoIsRefusedWhereAFileWouldBeCreated) {
    MakeFifo("fifo");
    File file;
    EXPECT_FALSE(Open(file, "fifo", {.disposition = FileDisposition::kCreateAlways}));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotARegularFile));
}

TEST_F(PosixFiles, ADeviceIsRefused) {
    File file;
    EXPECT_FALSE(file.Open("/dev/null", {}));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotARegularFile));
}

TEST_F(PosixFiles, ASocketIsRefused) {
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    PathOf("socket").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    File file;
    EXPECT_FALSE(Open(file, "socket"));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotARegularFile));
    close(descriptor);
}

TEST_F(PosixFiles, ADirectoryIsRefusedForEveryAccess) {
    for (const FileAccess access :
         {FileAccess::kRead, FileAccess::kWrite, FileAccess::kReadWrite}) {
        File file;
        EXPECT_FALSE(file.Open(m_folder.Path().c_str(), {.access = access}));
        EXPECT_EQ(platform::LastSystemError(), static_cast<u32>(EISDIR));
    }
}

TEST_F(PosixFiles, ARefusedFileLeavesNoDescriptor) {
    MakeFifo("fifo");
    const int next = dup(0);
    close(next);
    File file;
    EXPECT_FALSE(Open(file, "fifo"));
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, next);
}

TEST_F(PosixFiles, OpeningFollowsASymbolicLink) {
    WriteText(PathOf("target"), "text");
    ASSERT_EQ(symlink("target", PathOf("link").c_str()), 0);
    File file;
    ASSERT_TRUE(Open(file, "link"));
    EXPECT_EQ(Read(file, 10), "text");
}

TEST_F(PosixFiles, DescriptorsAreClosedAtExec) {
    File file;
    ASSERT_TRUE(Create(file, "a"));
    EXPECT_EQ(fcntl(DescriptorOf(file), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(PosixFiles, WriteThroughMakesEachWriteWaitForTheDisk) {
    File through;
    File buffered;
    ASSERT_TRUE(Create(through, "a") && Open(through, "a", {.writeThrough = true}));
    ASSERT_TRUE(Open(buffered, "a"));
    EXPECT_EQ(fcntl(DescriptorOf(through), F_GETFL) & O_DSYNC, O_DSYNC);
    EXPECT_EQ(fcntl(DescriptorOf(buffered), F_GETFL) & O_DSYNC, 0);
}

TEST_F(PosixFiles, NewFilesRespectTheUmask) {
    const ScopedUmask umaskOfTheTest(027);
    File file;
    ASSERT_TRUE(Create(file, "a"));
    EXPECT_EQ(ModeOf("a"), 0640U);
}

TEST_F(PosixFiles, AnOwnerOnlyFileIsClosedToOthers) {
    const ScopedUmask umaskOfTheTest(0);
    File file;
    ASSERT_TRUE(Open(file, "a", {.disposition = FileDisposition::kCreateNew, .ownerOnly = true}));
    EXPECT_EQ(ModeOf("a"), 0600U);
}

TEST_F(PosixFiles, ModeIsTakenWithoutSetIdBits) {
    WriteText(PathOf("model"), "");
    ASSERT_EQ(chmod(PathOf("model").c_str(), 06751), 0);
    File file;
    ASSERT_TRUE(Create(file, "a") && file.TakeOwnerAndMode(PathOf("model").c_str()));
    EXPECT_EQ(ModeOf("a"), 0751U);
}

TEST_F(PosixFiles, TakingTheModeOfNoFileFails) {
    File file;
    ASSERT_TRUE(Create(file, "a"));
    EXPECT_FALSE(file.TakeOwnerAndMode(PathOf("none").c_str()));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotFound));
}

TEST_F(PosixFiles, RootTakesTheOwnerToo) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may give files away";
    }
    WriteText(PathOf("model"), "");
    ASSERT_EQ(chown(PathOf("model").c_str(), 4711, 4712), 0);
    File file;
    ASSERT_TRUE(Create(file, "a") && file.TakeOwnerAndMode(PathOf("model").c_str()));
    struct stat info = {};
    ASSERT_EQ(stat(PathOf("a").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 4711U);
    EXPECT_EQ(info.st_gid, 4712U);
}

TEST_F(PosixFiles, OthersKeepTheOwnerAndTakeTheMode) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs a file of another user";
    }
    constexpr uid_t kNobody = 65534;
    WriteText(PathOf("model"), "");
    ASSERT_EQ(chmod(PathOf("model").c_str(), 0604), 0);
    ASSERT_EQ(chmod(m_folder.Path().c_str(), 0777), 0);
    ASSERT_EQ(seteuid(kNobody), 0);
    File file;
    const bool done = Create(file, "a") && file.TakeOwnerAndMode(PathOf("model").c_str());
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_TRUE(done);
    struct stat info = {};
    ASSERT_EQ(stat(PathOf("a").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, kNobody);
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

}  // namespace
}  // namespace k9erepl::test
