// The lock that keeps a storage file to one writer: who is refused, what stays as it was, and when
// the lock goes.
#include <functional>

#include "platform/file_names.h"
#include "solid/squeeze_fixture.h"
#include "solid/storage_file_admin.h"

namespace k9erepl::test {
namespace {

class WriterLockTest : public SolidTest {
  protected:
    WriterLockTest() { TwoTransactions().Save(Path()); }

    u32 OpenSecond(const std::string& settings = "") {
        CSolidStorage second;
        return second.Open(Path(), Conn(settings).c_str());
    }
    std::string InUse() const {
        return "Storage file is in use by another writer;file path '" + Path() + "'";
    }
    std::string CannotLock(const std::string& error) const {
        return "Cannot lock storage file '" + Path() + "';" + error;
    }
    std::string NoLocksWarning() const {
        return "The file system has no locks, nothing keeps a second writer away;file path '" +
               Path() + "'," + SysErr(SystemErrorKind::kNotSupported);
    }
    std::string Index() const { return m_folder.File("data.edb-idx"); }
    // `action` answers RC_SYSTEM_ERROR with the one error that the file is in use.
    void ExpectRefused(const std::function<u32()>& action) {
        m_log.Clear();
        EXPECT_EQ(action(), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), Texts{InUse()});
        EXPECT_EQ(m_log.CodeOf(InUse()), RC_SYSTEM_ERROR);
        EXPECT_EQ(ReadBytes(Path()), m_bytes);
    }

    const std::vector<u8> m_bytes = TwoTransactions().Bytes();
};

using WriterLockSqueeze = SqueezeTest;

TEST_F(WriterLockTest, ASecondWriterIsRefused) {
    Open();
    ExpectRefused([&] { return OpenSecond(); });
    ExpectRefused([&] { return OpenSecond("file_lock=yes"); });
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
}

TEST_F(WriterLockTest, GoesWithTheCloseOrAnOpeningThatFails) {
    Open();
    CSolidStorage reader;
    EXPECT_EQ(reader.Open(Path(), Conn().c_str(), FileUse::kNoLock), RC_OK);
    m_solid.Close();
    EXPECT_EQ(OpenSecond(), RC_OK) << "whoever only looks does not take it";
    EXPECT_EQ(OpenSecond(), RC_OK);
    FailFileSize(1);
    EXPECT_EQ(TryOpen(), RC_SYSTEM_ERROR);
    EXPECT_EQ(OpenSecond(), RC_OK);
}

TEST_F(WriterLockTest, FileLockNoSwitchesItOffAndTheSettingIsToldWhenItIsGiven) {
    EXPECT_EQ(OpenSecond(), RC_OK);
    EXPECT_EQ(m_log.CountContaining("file_lock"), 0U) << m_log;
    const u32 locks = CallCount(SystemCall::kLockFile);
    ASSERT_EQ(TryOpen("file_lock=no"), RC_OK);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Use file_lock no")) << m_log;
    EXPECT_EQ(CallCount(SystemCall::kLockFile), locks);
    EXPECT_EQ(OpenSecond("file_lock=no"), RC_OK);
    EXPECT_EQ(OpenSecond("file_lock=yes"), RC_OK);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Use file_lock yes")) << m_log;
}

TEST_F(WriterLockTest, AnUnknownValueOfTheSettingIsRefused) {
    for (const u32 rc :
         {OpenSecond("file_lock=maybe"), CreateStorageFile(Conn("file_lock=maybe").c_str(), 1),
          DeleteStorage(Conn("file_lock=maybe").c_str())}) {
        EXPECT_EQ(rc, RC_INVALID_ARG);
    }
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), Texts(3, "Unknown file_lock value (maybe)"));
    EXPECT_EQ(ReadBytes(Path()), m_bytes);
}

TEST_F(WriterLockTest, WithoutLocksWorkGoesOnAfterOneWarning) {
    Fail(SystemCall::kLockFile, 1, SystemErrorKind::kNotSupported, Repeat::kFromThenOn);
    ASSERT_EQ(TryOpen(), RC_OK);
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_WARNING), Texts{NoLocksWarning()});
    EXPECT_EQ(OpenSecond(), RC_OK);
    m_log.Clear();
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), K9EREPL_CREATE_REPLACE), RC_OK);
    EXPECT_EQ(DeleteStorage(Conn().c_str()),
              platform::kOpenFilesCanBeRenamed ? RC_OK : RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Texts(K9SYS_LOG_WARNING).empty()) << m_log;
}

TEST_F(WriterLockTest, AFailureOfTheSystemIsAnError) {
    Fail(SystemCall::kLockFile, 1);
    EXPECT_EQ(TryOpen(), RC_SYSTEM_ERROR);
    Fail(SystemCall::kFileIdentity, 1);
    EXPECT_EQ(TryOpen(), RC_SYSTEM_ERROR);
    Fail(SystemCall::kNameIdentity, 1);
    EXPECT_EQ(TryOpen(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR),
              Texts(3, CannotLock(SysErr(SystemErrorKind::kInputOutput))));
    EXPECT_EQ(OpenSecond(), RC_OK);
}

TEST_F(WriterLockTest, APathThatNeverLeadsToTheOpenedFileIsAnError) {
    Fail(SystemCall::kNameIdentity, 1, SystemErrorKind::kNotFound, Repeat::kFromThenOn);
    EXPECT_EQ(TryOpen(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), Texts{CannotLock("sys-err 0")});
    EXPECT_EQ(CallCount(SystemCall::kOpen), 100U);
    EXPECT_EQ(CallCount(SystemCall::kClose), 100U);
}

TEST_F(WriterLockTest, AReplacingCreateOrADeletionBesideAWriterTouchesNothing) {
    WriteText(Index(), "its index");
    Open();
    ExpectRefused([&] { return CreateStorageFile(Conn().c_str(), K9EREPL_CREATE_REPLACE); });
    ExpectRefused([&] { return DeleteStorage(Conn().c_str()); });
    EXPECT_EQ(ReadText(Index()), "its index");
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), K9EREPL_CREATE_KEEP_EXISTING), RC_OK);
    EXPECT_EQ(ReadBytes(Path()), m_bytes);
    m_solid.Close();
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), K9EREPL_CREATE_REPLACE), RC_OK);
    EXPECT_EQ(FileSize(Path()), 1064);
    WriteText(Path(), "no storage");
    WriteText(Index(), "its index");
    EXPECT_EQ(DeleteStorage(Conn().c_str()), RC_OK);
    EXPECT_FALSE(Exists(Path()));
    EXPECT_FALSE(Exists(Index()));
}

TEST_F(WriterLockTest, AReplacingCreateThatCannotEmptyTheFileIsAnError) {
    FailSetEnd(1);
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), K9EREPL_CREATE_REPLACE), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR).back(),
              "Failed to create file '" + Path() + "';" + SysErr(SystemErrorKind::kNoSpace));
    EXPECT_EQ(ReadBytes(Path()), m_bytes);
}

TEST_F(WriterLockSqueeze, MovesAlongToTheNewFile) {
    CSolidStorage second;
    for (int squeezes = 0; squeezes < 2; ++squeezes) {
        EXPECT_EQ(Squeeze(), RC_OK) << m_log;
        EXPECT_EQ(second.Open(Path(), Conn().c_str()), RC_SYSTEM_ERROR);
        EXPECT_EQ(second.Open(Backup(), Conn().c_str()), RC_OK) << m_log;
        second.Close();
        OpenScanned(ThreeTransactions());
    }
    m_solid.Close();
    EXPECT_EQ(second.Open(Path(), Conn().c_str()), RC_OK);
}

TEST_F(WriterLockSqueeze, StaysWhenTheCopyFailsAndGoesWhenTheSqueezeLosesTheFile) {
    for (const SystemCall call : {SystemCall::kOpen, SystemCall::kRename, SystemCall::kSetEnd}) {
        OpenScanned(ThreeTransactions());
        Fail(call, 1, SystemErrorKind::kInputOutput, Repeat::kFromThenOn);
        EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
        StopFailing(call);
        CSolidStorage second;
        const std::string path = Exists(Path()) ? Path() : Backup();
        EXPECT_EQ(second.Open(path, Conn().c_str()),
                  call == SystemCall::kOpen ? RC_SYSTEM_ERROR : RC_OK)
            << m_log;
    }
}

}  // namespace
}  // namespace k9erepl::test
