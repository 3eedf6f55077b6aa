// A storage file that is reached through a symbolic link.
#include <filesystem>
#include <string>

#include "tools/clear_fixture.h"

namespace k9erepl::test {

namespace {

class ToolLink : public ToolClearTest {};

TEST_F(ToolLink, FilesLieBesideWhatALinkLeadsTo) {
    Fill();
    std::filesystem::create_symlink("data.edb", File("link"));
    const ToolRun run =
        Run({"clear", "--conn", "file=" + File("link"), "--to", "3", "--mode", "squeeze-backup"});
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_NE(run.out.find("storage file size    1218 -> 1198\n"), std::string::npos) << run;
    EXPECT_NE(run.out.find("backup file          '" + Backup() + "' (1218 bytes)\n"),
              std::string::npos)
        << run;
    EXPECT_TRUE(std::filesystem::is_symlink(File("link")));
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
}

TEST_F(ToolLink, ALinkIsFollowedToTheBackup) {
    Fill();
    std::filesystem::rename(StorageFile(), Backup());
    std::filesystem::create_symlink("data.edb", File("link"));
    const ToolRun run = Run({"cat", "--conn", "file=" + File("link")});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.err.find("but its backup '" + Backup() + "' (1218 bytes) is there"),
              std::string::npos)
        << run;
    EXPECT_NE(run.err.find("rename it to '" + StorageFile() + "'"), std::string::npos) << run;
}

}  // namespace

}  // namespace k9erepl::test
