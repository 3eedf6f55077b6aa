// Failures of clear that the system causes, in the system's own words: nothing is lost.
#include <filesystem>
#include <string>

#include "tools/clear_failure_fixture.h"

namespace k9erepl::test {

namespace {

TEST_F(ToolClearFailure, AFolderThatTakesNoNewFileLosesNothing) {
    Fill();
    const auto folder = std::filesystem::path(StorageFile()).parent_path();
    using std::filesystem::perms;
    // The tool's own output lies in that folder, too.
    ASSERT_EQ(Run({"stat", "--conn", Conn()}).exitStatus, 0);
    WriteText(File("tool.in"), "");
    std::filesystem::permissions(folder, perms::owner_read | perms::owner_exec);
    m_obeysPermissions = true;
    const ToolRun run = Clear("3", "squeeze");
    std::filesystem::permissions(folder, perms::owner_all);
    ExpectFailure(run, Cannot("Cannot create temporary file '" + Temporary() +
                              "';sys-err 13 (Permission denied)") +
                           "; the storage is whole, oldest revision 3, next revision 6");
    ExpectNoTraces();
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
}

TEST_F(ToolClearFailure, ANameTooLongForTheTemporaryFileLosesNothing) {
    Fill();
    const std::string path = File(std::string(247, 'n'));
    std::filesystem::rename(StorageFile(), path);
    const ToolRun run = Run({"clear", "--conn", "file=" + path + ";index_file=" + File("i"), "--to",
                             "3", "--mode", "squeeze"});
    ExpectFailure(run, "cannot clear the storage '" + path + "': Cannot create temporary file '" +
                           path + ".temporary';sys-err 36 (File name too long) " + kSystemError +
                           "; the storage is whole, oldest revision 3, next revision 6");
}

TEST_F(ToolClearFailure, ADiskFullOfTheCopyLosesNothing) {
    Fill();
    m_fileSizeMax = 100000;
    const ToolRun run = Clear("3", "squeeze-backup", "file_initial_size=1");
    ExpectFailure(run,
                  Cannot("Cannot set initial file size (1048576);sys-err 27 (File too large)") +
                      "; the storage is whole, oldest revision 3, next revision 6");
    m_fileSizeMax = 0;
    ExpectNoTraces();
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
    EXPECT_NE(ReadText(StorageFile()).find("r1"), std::string::npos);
}

TEST_F(ToolClearFailure, ADiskFullOfTheClearRevisionLosesNothing) {
    Fill();
    m_fileSizeMax = 1218;
    const ToolRun run = Clear("3", "logical");
    ExpectFailure(run, Cannot("Cannot write data;sys-err 27 (File too large)") +
                           "; the storage is whole, oldest revision 1, next revision 6");
    m_fileSizeMax = 0;
    EXPECT_EQ(Cat(), kEverything);
}

TEST_F(ToolClearFailure, AReportThatCannotBePrintedTellsThatTheClearIsDone) {
    Fill();
    std::filesystem::remove(File("tool.out"));
    m_outputPath = "/dev/full";
    ExpectFailure(Clear("3", "logical"),
                  "cannot write to standard output: No space left on device (system error 28); the "
                  "clear is done");
    m_outputPath.clear();
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
}

}  // namespace

}  // namespace k9erepl::test
