// Each failure of clear: one sentence that says what to do, a status that is not 0, nothing lost.
#include <string>

#include "tools/clear_failure_fixture.h"

namespace k9erepl::test {

namespace {

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

TEST_F(ToolClearFailure, ARevisionAboveTheNextOneIsRefusedWithoutAll) {
    Fill();
    const std::vector<u8> before = ReadBytes(StorageFile());
    for (const char* mode : {"logical", "squeeze", "squeeze-backup"}) {
        ExpectFailure(Clear("7", mode),
                      "7 is above the next revision, 6, and would take everything away; with --all "
                      "it does; nothing was changed",
                      2);
        EXPECT_EQ(ReadBytes(StorageFile()), before);
    }
}

TEST_F(ToolClearFailure, AllIsRefusedWithoutATerminalToAskOn) {
    Fill();
    std::vector<std::string> arguments = ClearArguments("7", "logical");
    arguments.push_back("--all");
    ExpectFailure(Run(arguments, "y\n"),
                  "there is no terminal to ask for confirmation on; --yes clears without asking; "
                  "nothing was changed",
                  2);
    EXPECT_EQ(Cat(), kEverything);
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

}  // namespace

}  // namespace k9erepl::test
