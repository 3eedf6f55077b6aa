// The writer's lock and forked children, hard and symbolic links on POSIX systems.
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "files_fixture.h"
#include "platform/file_names.h"

namespace k9erepl::test {
namespace {

using platform::FileIdentity;
using platform::LockResult;

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
    const pid_t child = Fork([] {});
    m_holder.Close();
    EXPECT_EQ(TryAnew(), LockResult::kTaken);
    End(child);
}

TEST_F(PosixLocks, AChildsOwnHandleIsRefusedLikeAnyOther) {
    bool refused = false;
    const pid_t child = Fork([&] {
        refused = TryAnew() == LockResult::kHeldByAnother;
        if (!refused) {
            _exit(2);
        }
    });
    End(child);
}

TEST_F(PosixLocks, FilesReadOnlyCannotBeLocked) {
    File reader;
    ASSERT_TRUE(Open(reader, "data", {.access = FileAccess::kRead}));
    EXPECT_EQ(reader.TryLock(), LockResult::kFailed);
}

TEST_F(PosixLocks, HardAndSymbolicLinksLeadToOneFile) {
    ASSERT_TRUE(platform::LinkFile(PathOf("data"), PathOf("hard")));
    std::filesystem::create_symlink("data", PathOf("symbolic"));
    std::filesystem::create_directory_symlink(".", PathOf("folder"));
    FileIdentity identity;
    ASSERT_TRUE(m_holder.GetIdentity(&identity));
    for (const char* path : {"hard", "symbolic", "folder/data", "folder/folder/symbolic"}) {
        FileIdentity named;
        ASSERT_TRUE(platform::GetIdentity(PathOf(path), &named)) << path;
        EXPECT_EQ(named, identity) << path;
    }
}

}  // namespace
}  // namespace k9erepl::test
