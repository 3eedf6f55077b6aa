// Each failure of clear: one sentence that says what to do, a status that is not 0, nothing lost.
#include <filesystem>
#include <string>

#include "tools/clear_fixture.h"

namespace k9erepl::test {

namespace {

constexpr const char* kSystemError =
    "(code 4, RC_SYSTEM_ERROR: a call to the operating system failed)";
constexpr const char* kEverything = "r1\nr2\nr3\nr4\nr5\n";

class ToolClearFailure : public ToolClearTest {
  protected:
    void ExpectFailure(const ToolRun& run, const std::string& sentence, int exitStatus = 1) {
        EXPECT_EQ(run.exitStatus, exitStatus) << run;
        EXPECT_EQ(run.err, "k9repl clear: " + sentence + "\n");
        EXPECT_EQ(run.out, "");
    }

    // The files that a squeeze leaves when it goes wrong, and no other storage file.
    void ExpectNoTraces() {
        EXPECT_FALSE(Exists(Temporary()));
        EXPECT_FALSE(Exists(Backup()));
    }

    std::string Cannot(const std::string& cause) const {
        return "cannot clear the storage '" + StorageFile() + "': " + cause + " " + kSystemError;
    }
};

TEST_F(ToolClearFailure, ARevisionThatIsNoNumberIsRefused) {
    Fill();
    for (const char* rev : {"-1", "x", "3x", "0x3", "+3", " 3", "3.0", "9223372036854775808",
                            "99999999999999999999999"}) {
        ExpectFailure(
            Run({"clear", "--conn", Conn(), "--mode", "logical", "--to=" + std::string(rev)}),
            std::string("--to: ") + rev +
                " is no number from 0 to 9223372036854775807; see k9repl clear --help",
            2);
    }
    EXPECT_EQ(Cat(), kEverything);
}

TEST_F(ToolClearFailure, AZeroInFrontDoesNotChangeTheNumber) {
    ASSERT_EQ(Append("1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n11\n").exitStatus, 0);
    EXPECT_EQ(Clear("010", "logical").exitStatus, 0);
    EXPECT_EQ(Cat(), "10\n11\n");
}

TEST_F(ToolClearFailure, AnUnknownModeIsRefused) {
    Fill();
    ExpectFailure(Clear("3", "backup"),
                  "--mode: backup not in {logical,squeeze,squeeze-backup,mark}; see k9repl clear "
                  "--help",
                  2);
    EXPECT_EQ(Cat(), kEverything);
}

TEST_F(ToolClearFailure, RevisionAndModeMustBeGiven) {
    ExpectFailure(Run({"clear", "--conn", Conn(), "--mode", "mark"}),
                  "--to is required; see k9repl clear --help", 2);
    ExpectFailure(Run({"clear", "--conn", Conn(), "--to", "3"}),
                  "--mode is required; see k9repl clear --help", 2);
}

TEST_F(ToolClearFailure, AMissingStorageIsNamedAndNotMade) {
    ExpectFailure(Clear("3", "squeeze"), "there is no storage file '" + StorageFile() +
                                             "'; append --create makes it " + kSystemError);
    EXPECT_FALSE(Exists(StorageFile()));
}

TEST_F(ToolClearFailure, AFileThatIsNoStorageIsRefusedAndLeft) {
    const std::string text(2000, 'x');
    WriteText(StorageFile(), text);
    ExpectFailure(Clear("3", "squeeze"),
                  "cannot open the storage '" + StorageFile() +
                      "': Wrong file signature, file path " + StorageFile() +
                      " (code 2, RC_INVALID_ARG: an argument, a setting or the file's signature is "
                      "wrong)");
    EXPECT_EQ(ReadText(StorageFile()), text);
    ExpectNoTraces();
}

TEST_F(ToolClearFailure, AStorageThatWritesNoFileIsRefused) {
    Fill();
    ExpectFailure(Clear("3", "squeeze", "cache_type=AllInMem;flush_mode=NoFlush"),
                  "nothing done to the storage '" + StorageFile() +
                      "' would be kept: flush_mode=NoFlush writes no file");
    EXPECT_EQ(Cat(), kEverything);
}

TEST_F(ToolClearFailure, ATemporaryFileInTheWayIsNamedBeforeAnythingChanges) {
    Fill();
    WriteText(Temporary(), "half a copy");
    const std::vector<u8> before = ReadBytes(StorageFile());
    for (const char* mode : {"squeeze", "squeeze-backup"}) {
        ExpectFailure(Clear("3", mode),
                      "cannot squeeze the storage '" + StorageFile() + "': '" + Temporary() +
                          "' (11 bytes) is in the way, the unfinished copy of a squeeze that was "
                          "cut off; the storage at '" +
                          StorageFile() + "' is whole: delete '" + Temporary() +
                          "' and run the command again");
        EXPECT_EQ(ReadBytes(StorageFile()), before);
    }
    EXPECT_EQ(ReadText(Temporary()), "half a copy");
    EXPECT_FALSE(Exists(Backup()));
}

TEST_F(ToolClearFailure, ATemporaryFileIsNotInTheWayOfOtherModes) {
    Fill();
    WriteText(Temporary(), "half a copy");
    EXPECT_EQ(Clear("2", "mark").exitStatus, 0);
    EXPECT_EQ(Clear("2", "logical").exitStatus, 0);
    EXPECT_EQ(Clear("6", "squeeze").exitStatus, 0);
    EXPECT_EQ(ReadText(Temporary()), "half a copy");
}

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
