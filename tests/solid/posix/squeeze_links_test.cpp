// What a squeeze does with the names and the owners of files where a file can have several names,
// symbolic links lead to it, and it has permissions.
#include <sys/stat.h>
#include <filesystem>

#include "solid/squeeze_fixture.h"

namespace k9erepl::test {
namespace {

class SqueezeLinks : public SqueezeFailure {
  protected:
    static struct stat StatOf(const std::string& path) {
        struct stat info = {};
        EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
        return info;
    }

    const std::string m_denied = std::to_string(SystemErrorOf(SystemErrorKind::kAccessDenied));
};

TEST_F(SqueezeLinks, AnOldBackupThatCannotBeDeletedIsAnError) {
    WriteText(Backup(), "old backup");
    FailRemove(2);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(), Texts{"Cannot create backup file; sys-err: " + m_denied + "; of file: '" +
                              Path() + "'"});
    EXPECT_EQ(ReadText(Backup()), "old backup");
    EXPECT_EQ(WrittenBytes(), OldBytes());
    EXPECT_FALSE(Exists(Temporary()));
}

TEST_F(SqueezeLinks, TheStoragesNameNeverGoesAway) {
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kLink), 1U);
    EXPECT_EQ(CallCount(SystemCall::kRename), 1U);
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 2U);
    EXPECT_EQ(StatOf(Backup()).st_nlink, 1U);
    EXPECT_EQ(StatOf(Path()).st_nlink, 1U);
    OpenScanned(ThreeTransactions());
    FailRename(1);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_FALSE(Exists(Backup()));
    EXPECT_EQ(StatOf(Path()).st_nlink, 1U);
}

TEST_F(SqueezeLinks, ABackupLeftAsASecondNameIsNamedAndReplacedByTheNextSqueeze) {
    FailRename(1);
    FailRemove(2);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors().back(), "Cannot delete backup; sys-err: " + m_denied +
                                   "; it is still the storage file: '" + Backup() + "'");
    EXPECT_EQ(WrittenBytes(), OldBytes());
    EXPECT_FALSE(Exists(Temporary()));
    Reopen();
    EXPECT_EQ(Scan(), RC_OK);
    SetTimeStampCounter(kClearSequence, 1);
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    EXPECT_EQ(WrittenBytes(), NewBytes());
}

constexpr Step kLinks[] = {
    {"FlushOfTheBackupsName", SystemCall::kFlushDirectory, 1,
     "Cannot flush directory of file '{P}.backup';sys-err {E}", Left::kOld, false},
    {"Rename", SystemCall::kRename, 1,
     "Cannot rename file; sys-err: {E}; tempfile: '{P}.temporary'", Left::kOld, false},
    {"FlushOfTheNewName", SystemCall::kFlushDirectory, 2,
     "Cannot flush directory of file '{P}';sys-err {E}", Left::kNew, false},
};

INSTANTIATE_TEST_SUITE_P(Links, SqueezeStep, ::testing::ValuesIn(kLinks),
                         [](const auto& step) { return std::string(step.param.name); });

class SqueezeSymbolicLink : public SqueezeLinks {
  protected:
    // The storage's path becomes a symbolic link to a file in a folder of its own.
    SqueezeSymbolicLink() {
        m_solid.Close();
        std::filesystem::create_directory(m_folder.File("real"));
        std::filesystem::rename(Path(), m_target);
        std::filesystem::create_symlink("real/target.edb", Path());
        Open();
        EXPECT_EQ(Scan(), RC_OK);
        m_log.Clear();
    }
    const std::string m_target = m_folder.File("real/target.edb");
};

TEST_F(SqueezeSymbolicLink, StaysAndItsTargetIsReplacedWithTheOtherFilesBesideIt) {
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(m_solid.Path(), Path());
    EXPECT_TRUE(std::filesystem::is_symlink(Path()));
    EXPECT_FALSE(std::filesystem::is_symlink(m_target));
    EXPECT_EQ(ReadBytes(m_target), NewBytes());
    EXPECT_EQ(ReadBytes(m_target + ".backup"), OldBytes());
    EXPECT_FALSE(Exists(Backup()));
    EXPECT_TRUE(m_log.Has("Creating temp file '" + m_target + ".temporary'")) << m_log;
    EXPECT_EQ(WriteTransaction(6, "six"), kNewEnd);
    EXPECT_EQ(ItemsOfFile().back(), "commit 4 6");
}

TEST_F(SqueezeLinks, TheNewFileHasTheOwnerAndPermissionsOfTheOldFromTheBeginning) {
    ASSERT_EQ(chmod(Path().c_str(), 0604), 0);
    const struct stat old = StatOf(Path());
    EXPECT_EQ(SqueezeWith([&] {
                  EXPECT_EQ(StatOf(Temporary()).st_mode, old.st_mode);
                  return RC_OK;
              }),
              RC_OK);
    const struct stat squeezed = StatOf(Path());
    EXPECT_EQ(squeezed.st_mode, old.st_mode);
    EXPECT_EQ(squeezed.st_uid, old.st_uid);
    EXPECT_EQ(squeezed.st_gid, old.st_gid);
    EXPECT_NE(squeezed.st_ino, old.st_ino);
    EXPECT_EQ(StatOf(Backup()).st_ino, old.st_ino);
}

}  // namespace
}  // namespace k9erepl::test
