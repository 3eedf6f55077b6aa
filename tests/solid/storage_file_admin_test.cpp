// Creating and deleting storage files: which files the flags leave alone, which bytes a new file
// has, what is left when the system fails. Names of one storage that lead to one file are refused
// before anything is touched.
#include "solid/storage_file_admin.h"

#include <filesystem>
#include <utility>

#include "platform/system_error.h"
#include "solid/squeeze_fixture.h"
#include "solid/storage_names.h"

namespace k9erepl::test {
namespace {

class CreateStorageFileTest : public SolidTest {
  protected:
    static constexpr u64 kStamp = 0x1122'3344'5566'7788;

    u32 Create(u32 flags = 0, const std::string& settings = "") {
        SetTimeStampCounter(kStamp);
        return CreateStorageFile(Conn(settings).c_str(), flags);
    }
    // A new file as it must be.
    static std::vector<u8> NewFile() {
        return FileBuilder()
            .Header()
            .RawCommit({.signature = kCommitSignature,
                        .prevSequence = 0,
                        .sequence = 0x5566'7788,
                        .zero = 0,
                        .clearRev = 0,
                        .commitRev = 0})
            .Zeros(8)
            .Bytes();
    }
    // The path of this length in the temporary folder.
    std::string PathOfLength(std::size_t length) const {
        std::string path = m_folder.Path() + "/";
        while (path.size() + 101 < length) {
            path += std::string(99, 'd') + "/";
        }
        return path + std::string(length - path.size(), 'f');
    }
    std::string FailedToCreate(SystemErrorKind kind) const {
        return "Failed to create file '" + Path() + "';" + SysErr(kind);
    }
};

TEST_F(CreateStorageFileTest, WritesHeaderFirstCommitBlockAndEightZeros) {
    const std::size_t descriptors = OpenDescriptors();
    EXPECT_EQ(Create(), RC_OK);
    EXPECT_EQ(ReadBytes(Path()), NewFile());
    EXPECT_EQ(ReadBytes(Path()).size(), 1064U);
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
    EXPECT_EQ(CallCount(SystemCall::kFlush), 1U);
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 1U);
    EXPECT_EQ(OpenDescriptors(), descriptors);
    Open();
    EXPECT_EQ(Scanned(), Items{"commit 0 0"});
}

TEST_F(CreateStorageFileTest, WithoutFlagsRefusesAnExistingFileWhichFlag1Replaces) {
    const std::vector<u8> before(5000, 0xEE);
    WriteBytes(Path(), before);
    EXPECT_EQ(Create(0), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(FailedToCreate(SystemErrorKind::kAlreadyExists)), RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(ReadBytes(Path()), before);
    EXPECT_EQ(Create(1), RC_OK);
    EXPECT_EQ(ReadBytes(Path()), NewFile());
}

TEST_F(CreateStorageFileTest, OnlyFlag1DeletesTheIndexFileAlsoWhenTheCreationFails) {
    const std::string index = m_folder.File("data.edb-idx");
    WriteText(index, "old");
    EXPECT_EQ(Create(0), RC_OK);
    EXPECT_EQ(Create(2), RC_OK);
    EXPECT_EQ(Create(3), RC_OK);
    EXPECT_TRUE(Exists(index));
    std::filesystem::remove(Path());
    std::filesystem::create_directory(Path());
    EXPECT_EQ(Create(1), RC_SYSTEM_ERROR);
    EXPECT_FALSE(Exists(index));
    FailOpen(1, SystemErrorKind::kAccessDenied);
    EXPECT_EQ(Create(1), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has(FailedToCreate(SystemErrorKind::kAccessDenied))) << m_log;
}

TEST_F(CreateStorageFileTest, Flag2LeavesAnExistingFileWhateverItHoldsAndCreatesAMissingOne) {
    WriteText(Path(), "no storage file");
    EXPECT_EQ(Create(2), RC_OK);
    EXPECT_EQ(Create(3), RC_OK) << "it wins over flag 1";
    EXPECT_EQ(ReadText(Path()), "no storage file");
    EXPECT_EQ(CallCount(SystemCall::kWrite), 0U);
    EXPECT_EQ(CallCount(SystemCall::kRead), 0U);
    std::filesystem::remove(Path());
    EXPECT_EQ(Create(2), RC_OK);
    EXPECT_EQ(ReadBytes(Path()), NewFile());
}

TEST_F(CreateStorageFileTest, Flag2NeverEmptiesAFileThatCannotBeOpenedOrAppearsMeanwhile) {
    WriteText(Path(), "precious");
    FailOpen(1, SystemErrorKind::kAccessDenied);
    EXPECT_EQ(Create(2), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(FailedToCreate(SystemErrorKind::kAccessDenied)), RC_SYSTEM_ERROR);
    FailOpen(1, SystemErrorKind::kNotFound);
    EXPECT_EQ(Create(2), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has(FailedToCreate(SystemErrorKind::kAlreadyExists))) << m_log;
    EXPECT_EQ(ReadText(Path()), "precious");
}

TEST_F(CreateStorageFileTest, MakesTheMissingDirectories) {
    const std::string path = m_folder.File("a/b/c/data.edb");
    EXPECT_EQ(CreateStorageFile(("file=" + path).c_str(), 0), RC_OK);
    EXPECT_EQ(FileSize(path), 1064);
    // One that cannot be made shows when the file is created.
    EXPECT_EQ(CreateStorageFile(("file=" + path + "/data.edb").c_str(), 2), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CountContaining("Failed to create file '" + path + "/data.edb';sys-err "), 1U)
        << m_log;
}

TEST_F(CreateStorageFileTest, MemoryInAnyCaseOfLettersTouchesNothing) {
    for (const char* conn : {"file=:memory:", "file=:MEMORY:", "file=:MeMory:"}) {
        EXPECT_EQ(CreateStorageFile(conn, 1), RC_OK) << conn;
        EXPECT_EQ(DeleteStorageFile(conn), RC_OK) << conn;
    }
    EXPECT_EQ(CallCount(SystemCall::kOpen), 0U);
    EXPECT_EQ(CallCount(SystemCall::kMakeDirectory), 0U);
    EXPECT_EQ(CallCount(SystemCall::kRemove), 0U);
}

TEST_F(CreateStorageFileTest, WithoutAPathAnswersInvalidArgument) {
    for (const std::string conn : {"", "file=", "block_size=5", "file"}) {
        m_log.Clear();
        EXPECT_EQ(CreateStorageFile(conn.c_str(), 0), RC_INVALID_ARG) << conn;
        EXPECT_EQ(DeleteStorageFile(conn.c_str()), RC_INVALID_ARG) << conn;
        const std::string text = "Failed to get file parameter value;conn-str " + conn;
        EXPECT_EQ(m_log.Count(text), 2U) << m_log;
        EXPECT_EQ(m_log.CodeOf(text), RC_INVALID_ARG);
    }
}

TEST_F(CreateStorageFileTest, APathHasUpTo259Characters) {
    const std::string path = PathOfLength(259);
    EXPECT_EQ(CreateStorageFile(("file=" + path).c_str(), 0), RC_OK) << m_log;
    EXPECT_EQ(FileSize(path), 1064);
    EXPECT_EQ(DeleteStorageFile(("file=" + path).c_str()), RC_OK);
    const std::string conn = "file=" + PathOfLength(260);
    EXPECT_EQ(CreateStorageFile(conn.c_str(), 0), RC_PATH_TOO_LONG);
    EXPECT_EQ(DeleteStorageFile(conn.c_str()), RC_PATH_TOO_LONG);
    const std::string text = "Failed to get file parameter value;conn-str " + conn;
    EXPECT_EQ(m_log.CodeOf(text), RC_PATH_TOO_LONG) << m_log;
    EXPECT_EQ(m_log.Count(text), 2U);
}

TEST_F(CreateStorageFileTest, TheInitialSizeIsFilledWithZerosAndNotRefusedHere) {
    for (const auto& [size, bytes] : {std::pair{0, 1064}, {-3, 1064}, {1, 1'048'576}}) {
        EXPECT_EQ(Create(1, "file_initial_size=" + std::to_string(size)), RC_OK);
        std::vector<u8> expected = NewFile();
        expected.resize(static_cast<std::size_t>(bytes));
        EXPECT_EQ(ReadBytes(Path()), expected);
        EXPECT_TRUE(
            m_log.Has(K9SYS_LOG_INFO, "Use file_initial_size " + std::to_string(size * 1'048'576)))
            << m_log;
    }
}

using CreateFailure = SolidTest;

TEST_F(CreateFailure, IsReportedAndLeavesNoFile) {
    const struct {
        SystemCall call;
        u32 nth;
        std::string message;
    } faults[] = {
        {SystemCall::kSeek, 1, "Cannot seek to offset 0;"},
        {SystemCall::kWrite, 1, "Cannot write file header to file;"},
        {SystemCall::kSetEnd, 1, "Cannot set initial file size (1048576);"},
        {SystemCall::kSeek, 2, "Cannot seek to offset 1056;"},
        {SystemCall::kFlush, 1, "Cannot flush file;"},
        {SystemCall::kFlushDirectory, 1, "Cannot flush directory of file '" + Path() + "';"}};
    const std::size_t descriptors = OpenDescriptors();
    const std::string conn = Conn("file_initial_size=1");
    for (const auto& fault : faults) {
        for (const u32 flags : {0U, 1U, 2U, 3U}) {
            m_log.Clear();
            Fail(fault.call, fault.nth);
            EXPECT_EQ(CreateStorageFile(conn.c_str(), flags), RC_SYSTEM_ERROR);
            const std::string text = fault.message + SysErr(SystemErrorKind::kInputOutput);
            EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), Texts{text});
            EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR);
            EXPECT_EQ(OpenDescriptors(), descriptors);
            EXPECT_FALSE(Exists(Path()));
        }
    }
    FailAlloc(1, kNewFileSize);
    EXPECT_EQ(CreateStorageFile(conn.c_str(), 0), RC_NO_MEMORY);
    ShortWrite(1, 1063);
    EXPECT_EQ(CreateStorageFile(conn.c_str(), 0), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has("Cannot write file header to file;" + SysErr(SystemErrorKind::kNoSpace)));
    EXPECT_FALSE(Exists(Path()));
    EXPECT_EQ(CreateStorageFile(conn.c_str(), 0), RC_OK);
    Open();
}

TEST_F(CreateFailure, KeepsAFileThatWasThereBefore) {
    WriteText(Path(), "was there before");
    FailWrite(1);
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 1), RC_SYSTEM_ERROR);
    EXPECT_EQ(FileSize(Path()), 0);
    EXPECT_EQ(TryOpen(), RC_SYSTEM_ERROR);
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 1), RC_OK);
    Open();
}

TEST_F(CreateFailure, OfAFileThatCannotBeDeletedAgainIsLogged) {
    FailWrite(1);
    FailRemove(1);
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 0), RC_SYSTEM_ERROR);
    EXPECT_TRUE(Exists(Path()));
    EXPECT_EQ(m_log.CodeOf("Cannot delete file that was not completed;file path '" + Path() + "'," +
                           SysErr(SystemErrorKind::kAccessDenied)),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(TryOpen(), RC_SYSTEM_ERROR);
    EXPECT_EQ(
        m_log.CodeOf("Storage file is empty, its creation was not completed;file path " + Path()),
        RC_SYSTEM_ERROR)
        << m_log;
}

// A folder that may be written but not read cannot be flushed, and can be used all the same.
TEST_F(CreateFailure, AFolderThatMayNotBeReadIsNone) {
    Fail(SystemCall::kFlushDirectory, 1, SystemErrorKind::kAccessDenied, Repeat::kFromThenOn);
    const std::string warning =
        "Directory may not be read and cannot be flushed, a crash may undo what was done to its "
        "names;file path '" +
        Path() + "'," + SysErr(SystemErrorKind::kAccessDenied);
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 0), RC_OK);
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_WARNING), Texts{warning});
    EXPECT_EQ(DeleteStorageFile(Conn().c_str()), RC_OK);
    EXPECT_EQ(m_log.Count(warning), 2U) << m_log;
    EXPECT_TRUE(m_log.Texts(K9SYS_LOG_ERROR).empty()) << m_log;
}

TEST_F(SolidTest, DeleteStorageFileDeletesTheFileAndNothingElse) {
    WriteText(Path(), "any file");
    WriteText(m_folder.File("data.edb-idx"), "its index");
    FailRemove(1);
    EXPECT_EQ(DeleteStorageFile(Conn().c_str()), RC_SYSTEM_ERROR);
    EXPECT_TRUE(Exists(Path()));
    EXPECT_EQ(DeleteStorageFile(Conn().c_str()), RC_OK);
    EXPECT_FALSE(Exists(Path()));
    EXPECT_TRUE(Exists(m_folder.File("data.edb-idx")));
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 1U);
    EXPECT_EQ(DeleteStorageFile(Conn().c_str()), RC_SYSTEM_ERROR) << "a missing file";
    EXPECT_EQ(m_log.CodeOf("Cannot delete storage file;path " + Path()), RC_SYSTEM_ERROR) << m_log;
    EXPECT_EQ(m_log.Count("Cannot delete storage file;path " + Path()), 2U);
}

class StorageNames : public SolidTest {
  protected:
    StorageNames() { std::filesystem::create_directory(m_folder.File("folder")); }

    std::string WithIndex(const std::string& index) const {
        return Conn("index_file=" + m_folder.File(index));
    }
    u32 Check(const std::string& index) { return CheckStorageNames(WithIndex(index).c_str()); }
    // Creating and deleting answer RC_INVALID_ARG with this error; the storage file stays.
    void ExpectRefused(const std::string& index, const std::string& error) {
        m_log.Clear();
        const std::string conn = WithIndex(index);
        for (const u32 flags : {0U, 1U, 2U, 3U}) {
            EXPECT_EQ(CreateStorageFile(conn.c_str(), flags), RC_INVALID_ARG) << index;
        }
        EXPECT_EQ(DeleteStorage(conn.c_str()), RC_INVALID_ARG) << index;
        EXPECT_EQ(m_log.Texts(), Texts(5, error));
        EXPECT_EQ(m_log.CodeOf(error), RC_INVALID_ARG);
    }
    std::string IsAnother(const std::string& name, const std::string& index) const {
        return "Index file is another file of its storage;file path '" + m_folder.File(name) +
               "',index file path '" + m_folder.File(index) + "'";
    }
};

using SqueezeBesideOthers = SqueezeTest;

TEST_F(StorageNames, AnIndexFileThatIsAnotherFileOfItsStorageIsRefused) {
    for (const bool exists : {false, true}) {
        if (exists) {
            TwoTransactions().Save(Path());
        }
        for (const std::string name :
             {"data.edb", "data.edb.temporary", "data.edb.backup", "data.edb.backup-idx"}) {
            for (const std::string way : {"", "./", "folder/../"}) {
                ExpectRefused(way + name, IsAnother(name, way + name));
            }
        }
        EXPECT_EQ(Exists(Path()), exists);
    }
    const std::string other = m_folder.File("other.edb");
    TwoTransactions().Save(other);
    ExpectRefused("other.edb", "Index file is a storage file;file path '" + Path() +
                                   "',index file path '" + other + "'");
    EXPECT_EQ(ReadBytes(other), TwoTransactions().Bytes());
    EXPECT_EQ(ReadBytes(Path()), TwoTransactions().Bytes());
}

TEST_F(StorageNames, AnIndexFileNamedAsUsualIsAccepted) {
    TwoTransactions().Save(Path());
    for (const char* index : {"data.edb-idx", "folder/data.edb", "data", "new/folder/data.edb"}) {
        EXPECT_EQ(Check(index), RC_OK) << index;
    }
    EXPECT_EQ(CheckStorageNames("file=:MEMORY:;index_file=:MEMORY:"), RC_OK);
    EXPECT_EQ(CheckStorageNames("index_file=somewhere"), RC_OK);
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
}

// What an index file or a storage file may become in a crash, or be by chance, is no storage.
TEST_F(StorageNames, OnlyASignatureWithAVersionAndRoomForItemsMakesAStorage) {
    const std::string index = m_folder.File("data.edb-idx");
    const auto check = [&](std::string text, std::size_t size) {
        text.resize(size);
        WriteText(index, text);
        return Check("data.edb-idx");
    };
    for (const char* magic :
         {"K9_EREPL_IDX\3", "K9_EREPL", "K9_EREPL_", "K9_EREPL\x20", "K9_ERE"}) {
        EXPECT_EQ(check(magic, 1064), RC_OK) << magic;
    }
    for (const char* magic : {"K9_EREPL\3", "K9_EREPL\1", "K9_EREPL\x1F"}) {
        EXPECT_EQ(check(magic, 1056), RC_INVALID_ARG) << magic;
        EXPECT_EQ(check(magic, 1055), RC_OK) << magic;
        EXPECT_EQ(check(magic, 0), RC_OK) << magic;
    }
}

TEST_F(SqueezeBesideOthers, AStorageUnderTheNameOfTheBackupsIndexStays) {
    TwoTransactions().Save(BackupIndex());
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(ReadBytes(BackupIndex()), TwoTransactions().Bytes());
    EXPECT_EQ(
        m_log.Texts(K9SYS_LOG_WARNING),
        Texts{"Index file of the backup is a storage file, it stays;path '" + BackupIndex() + "'"});
}

TEST_F(SqueezeBesideOthers, ABackupThatSomebodyWritesToIsNotReplaced) {
    TwoTransactions().Save(Backup());
    CSolidStorage other;
    ASSERT_EQ(other.Open(Backup(), Conn().c_str()), RC_OK);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_ERROR,
                          "Storage file is in use by another writer;file path '" + Backup() + "'"))
        << m_log;
    EXPECT_EQ(ReadBytes(Backup()), TwoTransactions().Bytes());
    EXPECT_FALSE(Exists(Temporary()));
    EXPECT_EQ(Squeeze(false), RC_OK);
    other.Close();
}

}  // namespace
}  // namespace k9erepl::test
