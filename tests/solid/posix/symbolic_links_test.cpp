// Storage files that a symbolic link leads to: where they are created, and where what is kept of a
// damaged one lies.
#include <filesystem>

#include "solid/solid_fixture.h"
#include "solid/storage_file_admin.h"
#include "solid/tail_copy.h"

namespace k9erepl::test {
namespace {

class SymbolicLink : public SolidTest {
  protected:
    // The storage's path leads to `target`.
    void LinkTo(const std::string& target) { std::filesystem::create_symlink(target, Path()); }
};

TEST_F(SymbolicLink, LetsAMissingTargetBeCreated) {
    LinkTo("target.edb");
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 2), RC_OK);
    EXPECT_EQ(FileSize(m_folder.File("target.edb")), 1064);
    EXPECT_TRUE(std::filesystem::is_symlink(Path()));
}

Texts g_flushedDirectories;

TEST_F(SymbolicLink, LeadsToTheDirectoryThatIsFlushed) {
    std::filesystem::create_directory(m_folder.File("other"));
    LinkTo("other/target.edb");
    g_flushedDirectories.clear();
    platform::TheSystemCalls().flushDirectory = [](const char* path) {
        g_flushedDirectories.emplace_back(path);
        return true;
    };
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 1), RC_OK);
    EXPECT_EQ(g_flushedDirectories, Texts{m_folder.File("other/")});
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
