// The writer's lock on an open file, and the identity of files.
#include <filesystem>
#include <utility>

#include "files_fixture.h"
#include "platform/file_names.h"

namespace k9erepl::test {
namespace {

using platform::FileIdentity;
using platform::LockResult;

class FileLock : public FilesFixture {
  protected:
    FileLock() {
        EXPECT_TRUE(Create(m_first, "data"));
        EXPECT_TRUE(Open(m_second, "data"));
    }

    File m_first;
    File m_second;
};

using FileIdentities = FilesFixture;

TEST_F(FileLock, IsRefusedToASecondHandleUntilItsOwnIsClosed) {
    EXPECT_EQ(m_first.TryLock(), LockResult::kTaken);
    EXPECT_EQ(m_second.TryLock(), LockResult::kHeldByAnother);
    EXPECT_TRUE(m_first.IsLocked());
    EXPECT_FALSE(m_second.IsLocked());
    m_first.Close();
    EXPECT_FALSE(m_first.IsLocked());
    EXPECT_EQ(m_second.TryLock(), LockResult::kTaken);
}

TEST_F(FileLock, StaysWhenAnotherHandleOfTheFileIsClosed) {
    ASSERT_EQ(m_first.TryLock(), LockResult::kTaken);
    m_second.Close();
    ASSERT_TRUE(Open(m_second, "data"));
    EXPECT_EQ(m_second.TryLock(), LockResult::kHeldByAnother);
}

TEST_F(FileLock, MovesWithTheFile) {
    ASSERT_EQ(m_first.TryLock(), LockResult::kTaken);
    File moved(std::move(m_first));
    EXPECT_TRUE(moved.IsLocked());
    EXPECT_EQ(m_second.TryLock(), LockResult::kHeldByAnother);
    File assigned;
    assigned = std::move(moved);
    EXPECT_EQ(m_second.TryLock(), LockResult::kHeldByAnother);
    assigned.Close();
    EXPECT_EQ(m_second.TryLock(), LockResult::kTaken);
}

TEST_F(FileLock, HindersNobodysReadingAndWriting) {
    ASSERT_EQ(m_first.TryLock(), LockResult::kTaken);
    EXPECT_TRUE(Write(m_second, "text"));
    EXPECT_TRUE(m_second.SetEnd(2));
    EXPECT_EQ(Read(m_first, 10), "te");
    File reader;
    EXPECT_TRUE(Open(reader, "data", {.access = FileAccess::kRead}));
    EXPECT_EQ(Read(reader, 10), "te");
}

TEST_F(FileLock, OfOneFileSaysNothingOfAnother) {
    File other;
    ASSERT_TRUE(Create(other, "other"));
    EXPECT_EQ(m_first.TryLock(), LockResult::kTaken);
    EXPECT_EQ(other.TryLock(), LockResult::kTaken);
}

TEST_F(FileLock, TellsASystemWithoutLocksFromAFailureAndTriesAgainAfterASignal) {
    ScopedSystemCalls systemCalls;
    Fail(SystemCall::kLockFile, 1, SystemErrorKind::kNotSupported);
    EXPECT_EQ(m_first.TryLock(), LockResult::kNotSupported);
    Fail(SystemCall::kLockFile, 1, SystemErrorKind::kInputOutput);
    EXPECT_EQ(m_first.TryLock(), LockResult::kFailed);
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kInputOutput));
    EXPECT_FALSE(m_first.IsLocked());
    Fail(SystemCall::kLockFile, 1, SystemErrorKind::kInterrupted);
    EXPECT_EQ(m_first.TryLock(), LockResult::kTaken);
    EXPECT_EQ(CallCount(SystemCall::kLockFile), 4U);
}

TEST_F(FileIdentities, AreTheSameForAllHandlesAndPathsOfOneFile) {
    File file;
    ASSERT_TRUE(Create(file, "data"));
    FileIdentity identity;
    ASSERT_TRUE(file.GetIdentity(&identity));
    std::filesystem::create_directory(PathOf("folder"));
    for (const char* path : {"data", "./data", "folder/../data"}) {
        FileIdentity named;
        ASSERT_TRUE(platform::GetIdentity(PathOf(path), &named)) << path;
        EXPECT_EQ(named, identity) << path;
    }
}

TEST_F(FileIdentities, DifferForTwoFilesThatAreEqualAndAMissingFileHasNone) {
    WriteText(PathOf("one"), "text");
    WriteText(PathOf("two"), "text");
    FileIdentity one;
    FileIdentity two;
    ASSERT_TRUE(platform::GetIdentity(PathOf("one"), &one));
    ASSERT_TRUE(platform::GetIdentity(PathOf("two"), &two));
    EXPECT_NE(one, two);
    EXPECT_TRUE(platform::GetIdentity(m_folder.Path(), &one)) << "a folder has one, too";
    EXPECT_NE(one, two);
    EXPECT_FALSE(platform::GetIdentity(PathOf("missing"), &one));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotFound));
}

}  // namespace
}  // namespace k9erepl::test
