// Storage files that hard and symbolic links lead to: names of one storage that lead to one file,
// where a file is created, and where what is kept of a damaged one lies. What a squeeze does with
// the names and the owners of files there.
#include <sys/stat.h>
#include <filesystem>

#include "platform/one_file.h"
#include "solid/solid_fixture.h"
#include "solid/squeeze_fixture.h"
#include "solid/storage_file_admin.h"
#include "solid/storage_names.h"
#include "solid/tail_copy.h"

namespace k9erepl::test {
namespace {

namespace fs = std::filesystem;

class NameLinks : public SolidTest {
  protected:
    // What all changing calls answer, with `index` as the index file and `file` as the storage.
    void ExpectRefused(const std::string& file, const std::string& index) const {
        const std::string conn =
            "file=" + m_folder.File(file) + ";index_file=" + m_folder.File(index);
        EXPECT_EQ(CheckStorageNames(conn.c_str()), RC_INVALID_ARG) << conn;
        EXPECT_EQ(CreateStorageFile(conn.c_str(), 1), RC_INVALID_ARG) << conn;
        EXPECT_EQ(DeleteStorage(conn.c_str()), RC_INVALID_ARG) << conn;
    }
};

TEST_F(NameLinks, AnIndexFileThatIsALinkToTheStorageIsRefusedAlsoToOneYetToBeMade) {
    fs::create_symlink("data.edb", m_folder.File("symbolic"));
    fs::create_symlink(m_folder.File("symbolic"), m_folder.File("chain"));
    fs::create_directory_symlink(".", m_folder.File("folder"));
    const auto expectRefused = [this](const char* index) {
        ExpectRefused("data.edb", index);
        ExpectRefused(index, "data.edb");
    };
    for (const char* index : {"symbolic", "folder/data.edb", "folder/symbolic"}) {
        expectRefused(index);
    }
    EXPECT_FALSE(Exists(Path()));
    TwoTransactions().Save(Path());
    fs::create_hard_link(Path(), m_folder.File("hard"));
    for (const char* index : {"hard", "symbolic", "chain", "folder/data.edb", "folder/hard"}) {
        expectRefused(index);
    }
    EXPECT_EQ(ReadBytes(Path()), TwoTransactions().Bytes());
}

TEST_F(NameLinks, TheNamesOfASqueezeAreThoseOfTheLinksTarget) {
    fs::create_directory(m_folder.File("folder"));
    TwoTransactions().Save(m_folder.File("folder/target"));
    fs::create_symlink("folder/target", Path());
    ExpectRefused("data.edb", "folder/target.backup");
    ExpectRefused("data.edb", "folder/target.temporary");
    EXPECT_EQ(CheckStorageNames(Conn("index_file=" + Path() + ".backup").c_str()), RC_OK);
}

class SymbolicLink : public SolidTest {
  protected:
    // The storage's path leads to `target`.
    void LinkTo(const std::string& target) { std::filesystem::create_symlink(target, Path()); }
};

TEST_F(SymbolicLink, LeadsToTheFileThatIsCreatedAndToItsDirectoryThatIsFlushed) {
    static Texts s_flushed;
    s_flushed.clear();
    fs::create_directory(m_folder.File("other"));
    LinkTo("other/target.edb");
    platform::TheSystemCalls().flushDirectory = [](const char* path) {
        s_flushed.emplace_back(path);
        return true;
    };
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 2), RC_OK);
    EXPECT_EQ(s_flushed, Texts{m_folder.File("other/")});
    EXPECT_EQ(FileSize(m_folder.File("other/target.edb")), 1064);
    EXPECT_TRUE(fs::is_symlink(Path()));
}

TEST_F(SymbolicLink, HasTheCopyOfADamagedTailBesideItsTarget) {
    const std::string target = m_folder.File("target.edb");
    TwoTransactions().Save(target);
    PatchBytes(target, kFirstItemOffset, std::vector<u8>{0x55});
    LinkTo("target.edb");
    Open();
    ASSERT_EQ(Scan(), RC_OK);
    m_solid.KeepTailIfDamaged(TailCare::kKeepCopy);
    EXPECT_TRUE(Exists(DamagedTailName(target, 0)));
    EXPECT_FALSE(Exists(DamagedTailName(Path(), 0)));
}

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
