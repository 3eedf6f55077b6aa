// Storage files that hard and symbolic links lead to: names of one storage that lead to one file,
// where a file is created, and where what is kept of a damaged one lies.
#include <filesystem>

#include "platform/one_file.h"
#include "solid/solid_fixture.h"
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

}  // namespace
}  // namespace k9erepl::test
