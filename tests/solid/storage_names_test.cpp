// Names of one storage that lead to one file, by their text and through folders: they are refused
// before anything is touched.
#include "solid/storage_names.h"

#include <filesystem>

#include "solid/squeeze_fixture.h"
#include "solid/storage_file_admin.h"

namespace k9erepl::test {
namespace {

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

TEST_F(StorageNames, AnIndexFileThatIsTheStorageItselfIsRefused) {
    for (const bool exists : {false, true}) {
        if (exists) {
            TwoTransactions().Save(Path());
        }
        for (const char* index : {"data.edb", "./data.edb", "folder/../data.edb"}) {
            ExpectRefused(index, IsAnother("data.edb", index));
        }
        EXPECT_EQ(Exists(Path()), exists);
    }
    EXPECT_EQ(ReadBytes(Path()), TwoTransactions().Bytes());
}

TEST_F(StorageNames, AnIndexFileWithANameThatASqueezeNeedsIsRefused) {
    TwoTransactions().Save(Path());
    for (const char* name : {"data.edb.temporary", "data.edb.backup", "data.edb.backup-idx"}) {
        ExpectRefused(name, IsAnother(name, name));
        ExpectRefused("folder/../" + std::string(name),
                      IsAnother(name, "folder/../" + std::string(name)));
    }
    EXPECT_EQ(ReadBytes(Path()), TwoTransactions().Bytes());
}

TEST_F(StorageNames, AnIndexFileThatIsAnyStorageIsRefused) {
    TwoTransactions().Save(Path());
    TwoTransactions().Save(m_folder.File("other.edb"));
    ExpectRefused("other.edb", "Index file is a storage file;file path '" + Path() +
                                   "',index file path '" + m_folder.File("other.edb") + "'");
    EXPECT_EQ(ReadBytes(m_folder.File("other.edb")), TwoTransactions().Bytes());
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
