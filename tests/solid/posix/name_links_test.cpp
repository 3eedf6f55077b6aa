// Names of one storage that lead to one file by hard and symbolic links.
#include <filesystem>

#include "platform/one_file.h"
#include "solid/solid_fixture.h"
#include "solid/storage_file_admin.h"
#include "solid/storage_names.h"

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

TEST_F(NameLinks, AnIndexFileThatIsALinkToTheStorageIsRefused) {
    TwoTransactions().Save(Path());
    fs::create_hard_link(Path(), m_folder.File("hard"));
    fs::create_symlink("data.edb", m_folder.File("symbolic"));
    fs::create_symlink(m_folder.File("symbolic"), m_folder.File("chain"));
    fs::create_directory_symlink(".", m_folder.File("folder"));
    for (const char* index : {"hard", "symbolic", "chain", "folder/data.edb", "folder/hard"}) {
        ExpectRefused("data.edb", index);
        ExpectRefused(index, "data.edb");
    }
    EXPECT_EQ(ReadBytes(Path()), TwoTransactions().Bytes());
}

TEST_F(NameLinks, AStorageThatIsYetToBeMadeThroughALinkIsCompared) {
    fs::create_symlink("data.edb", m_folder.File("symbolic"));
    fs::create_directory_symlink(".", m_folder.File("folder"));
    for (const char* index : {"symbolic", "folder/data.edb", "folder/symbolic"}) {
        ExpectRefused("data.edb", index);
        ExpectRefused(index, "data.edb");
    }
    EXPECT_FALSE(Exists(Path()));
}

TEST_F(NameLinks, TheNamesOfASqueezeAreThoseOfTheLinksTarget) {
    fs::create_directory(m_folder.File("folder"));
    TwoTransactions().Save(m_folder.File("folder/target"));
    fs::create_symlink("folder/target", Path());
    ExpectRefused("data.edb", "folder/target.backup");
    ExpectRefused("data.edb", "folder/target.temporary");
    EXPECT_EQ(CheckStorageNames(Conn("index_file=" + Path() + ".backup").c_str()), RC_OK);
}

}  // namespace
}  // namespace k9erepl::test
