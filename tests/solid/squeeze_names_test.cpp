// The names around a squeeze: the backup, the temporary file, and the directory. What only POSIX
// has is in posix/squeeze_links_test.cpp.
#include <filesystem>

#include "solid/squeeze_fixture.h"

namespace k9erepl::test {
namespace {

class SqueezeNamesTest : public SqueezeTest {
  protected:
    Texts Errors() const { return m_log.Texts(K9SYS_LOG_ERROR); }
    // A notification that writes a transaction of its own.
    static void WriteBehindRevision5(std::int64_t rev, void* ctx) {
        if (rev == 5) {
            static_cast<SqueezeNamesTest*>(ctx)->WriteTransaction(6, "six");
        }
    }

    const std::string m_denied = std::to_string(SystemErrorOf(SystemErrorKind::kAccessDenied));
};

TEST_F(SqueezeNamesTest, TheBackupHoldsWhatTheFileHeldBefore) {
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    EXPECT_FALSE(Exists(Temporary()));
    EXPECT_FALSE(Exists(BackupIndex()));
}

TEST_F(SqueezeNamesTest, TheBackupIsAStorageOfItsOwn) {
    EXPECT_EQ(Squeeze(), RC_OK);
    CSolidStorage backup;
    EXPECT_EQ(backup.Open(Backup(), ("file=" + Backup()).c_str()), RC_OK);
    WriteTransaction(6, "six");
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    backup.Close();  // an open file keeps its name on Windows
    m_solid.Close();
    std::filesystem::rename(Backup(), Path());
    EXPECT_EQ(ItemsOfFile().size(), 9U);
    EXPECT_EQ(ItemsOfFile().back(), "commit 0 5");
}

TEST_F(SqueezeNamesTest, TheBackupOfAPresizedFileEndsWithItsData) {
    OpenScanned(ThreeTransactions().Zeros(5000));
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
}

TEST_F(SqueezeNamesTest, TheBackupLeavesOutWhatANotificationWrote) {
    SKIP_WHEN_ASYNC("the notification may write");
    m_solid.SetWrittenRevisionCallback(&WriteBehindRevision5, this);
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    EXPECT_EQ(ItemsOfFile().back(), "commit 4 6");
    EXPECT_EQ(Enumerated(6, 6), Items{"record 6 at 1208: six"});
}

TEST_F(SqueezeNamesTest, TheBackupReplacesAnOlderOneAndItsIndex) {
    WriteText(Backup(), "old backup");
    WriteText(BackupIndex(), "old index");
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    EXPECT_FALSE(Exists(BackupIndex()));
    EXPECT_EQ(WrittenBytes(), NewBytes());
}

TEST_F(SqueezeNamesTest, WithoutABackupAnOlderOneStays) {
    WriteText(Backup(), "old backup");
    WriteText(BackupIndex(), "old index");
    EXPECT_EQ(Squeeze(false), RC_OK);
    EXPECT_EQ(ReadText(Backup()), "old backup");
    EXPECT_EQ(ReadText(BackupIndex()), "old index");
    EXPECT_EQ(WrittenBytes(), NewBytes());
    EXPECT_FALSE(Exists(Temporary()));
}

TEST_F(SqueezeNamesTest, WithoutABackupNoneIsMade) {
    EXPECT_EQ(Squeeze(false), RC_OK);
    EXPECT_FALSE(Exists(Backup()));
    EXPECT_EQ(CallCount(SystemCall::kSetEnd), 0U);
    EXPECT_EQ(CallCount(SystemCall::kLink), 0U);
    EXPECT_EQ(CallCount(SystemCall::kRemove), 0U);
}

TEST_F(SqueezeNamesTest, ABackupIndexThatCannotBeDeletedIsIgnored) {
    WriteText(BackupIndex(), "old index");
    FailRemove(1);
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(ReadText(BackupIndex()), "old index");
    EXPECT_EQ(Errors(), Texts{});
}

TEST_F(SqueezeNamesTest, ABackupThatIsADirectoryIsAnError) {
    std::filesystem::create_directory(Backup());
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CountContaining("Cannot create backup file; sys-err: "), 1U);
    ExpectNothingLost();
}

// --- Without hard links
// -------------------------------------------------------------------------------------

TEST_F(SqueezeNamesTest, WithoutHardLinksTheFileIsMoved) {
    Fail(SystemCall::kLink, 1, SystemErrorKind::kNotSupported);
    WriteText(Backup(), "old backup");
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kRename), 2U);
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 1U);
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    EXPECT_EQ(WrittenBytes(), NewBytes());
    EXPECT_EQ(WriteTransaction(6, "six"), kNewEnd);
}

TEST_F(SqueezeNamesTest, WithoutHardLinksAnOldBackupIsNoHindrance) {
    WriteText(Backup(), "old backup");
    Fail(SystemCall::kLink, 2, SystemErrorKind::kNotSupported);  // the first finds the old one
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    EXPECT_EQ(WrittenBytes(), NewBytes());
}

TEST_F(SqueezeNamesTest, AFailedMoveToTheBackupLeavesTheFile) {
    Fail(SystemCall::kLink, 1, SystemErrorKind::kNotSupported);
    FailRename(1);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(), Texts{"Cannot create backup file; sys-err: " + m_denied + "; of file: '" +
                              Path() + "'"});
    EXPECT_EQ(WrittenBytes(), OldBytes());
    EXPECT_FALSE(Exists(Backup()));
    ExpectNothingLost();
}

TEST_F(SqueezeNamesTest, TheBackupIsMovedBackWhenTheNewFileCannotBeRenamed) {
    Fail(SystemCall::kLink, 1, SystemErrorKind::kNotSupported);
    FailRename(2);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(), Texts{"Cannot rename file; sys-err: " + m_denied + "; tempfile: '" +
                              Temporary() + "'"});
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 1U);
    EXPECT_EQ(WrittenBytes(), OldBytes());
    EXPECT_FALSE(Exists(Backup()));
    EXPECT_FALSE(Exists(Temporary()));
    ExpectNothingLost();
}

TEST_F(SqueezeNamesTest, ABackupThatCannotBeMovedBackIsNamed) {
    Fail(SystemCall::kLink, 1, SystemErrorKind::kNotSupported);
    Fail(SystemCall::kRename, 2, SystemErrorKind::kAccessDenied, Repeat::kFromThenOn);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors().back(), "Cannot move backup back; sys-err: " + m_denied +
                                   "; storage data is in file: '" + Backup() + "'");
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    EXPECT_FALSE(Exists(Path()));
    EXPECT_FALSE(Exists(Temporary()));
}

// --- The directory -----------------------------------------------------------------------------

TEST_F(SqueezeNamesTest, WithoutABackupTheOneChangeIsMadeDurable) {
    EXPECT_EQ(Squeeze(false), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 1U);
}

}  // namespace
}  // namespace k9erepl::test
