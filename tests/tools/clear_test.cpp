// What clear does to a storage in each mode and how it tells it; each failure, of which nothing is
// lost; and the files that a squeeze leaves when it is cut off, which every command names.
#include <filesystem>
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {
namespace {

// The modes that take records away.
constexpr const char* kModes[] = {"logical", "squeeze", "squeeze-backup"};

using ToolClear = ToolTest;

// A report about the storage of Fill; the clear mark only where it changes.
std::string Report(const std::string& cleared, const std::string& oldest, const std::string& size,
                   const std::string& backup = "none", const std::string& mark = "") {
    return "cleared              " + cleared + "\noldest revision      " + oldest +
           "\nnext revision        6 -> 6\n" +
           (mark.empty() ? "" : "clear mark           " + mark + "\n") + "storage file size    " +
           size + "\nbackup file          " + backup + "\n";
}

const std::string kEverythingReport =
    Report("everything: no record is left", "1 -> none", "1218 -> 1218");

TEST_F(ToolClear, LogicalLeavesTheRecordsInTheFile) {
    Fill();
    ExpectReport(Clear("3", "logical"), Report("the revisions below 3", "1 -> 3", "1218 -> 1250"));
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
    EXPECT_NE(ReadText(StorageFile()).find("r1"), std::string::npos);
    EXPECT_FALSE(Exists(Backup()));
}

TEST_F(ToolClear, SqueezeTakesThemOutOfTheFile) {
    Fill();
    ExpectReport(Clear("3", "squeeze"), Report("the revisions below 3", "1 -> 3", "1218 -> 1198"));
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
    EXPECT_EQ(ReadText(StorageFile()).find("r2"), std::string::npos);
    EXPECT_FALSE(Exists(Backup()));
    EXPECT_FALSE(Exists(Temporary()));
}

TEST_F(ToolClear, SqueezeBackupKeepsTheOldFileAsAStorage) {
    Fill();
    ExpectReport(Clear("3", "squeeze-backup"),
                 Report("the revisions below 3", "1 -> 3", "1218 -> 1198",
                        "'" + Backup() + "' (1218 bytes)"));
    EXPECT_EQ(ReadBytes(Backup()), m_before);
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
    EXPECT_EQ(Run({"cat", "--conn", "file=" + Backup()}).out, kEverything);
    ASSERT_EQ(Clear("4", "squeeze-backup").exitStatus, 0);
    EXPECT_EQ(Run({"cat", "--conn", "file=" + Backup()}).out, "r3\nr4\nr5\n") << "replaced";
}

TEST_F(ToolClear, MarkOnlyNotesTheRevision) {
    Fill();
    ExpectReport(Clear("3", "mark"), Report("nothing: the clear mark is 3 now", "1 -> 1",
                                            "1218 -> 1218", "none", "0 -> 3"));
    EXPECT_EQ(Clear("7", "mark").exitStatus, 0) << "above the next revision, too";
    EXPECT_EQ(Stat("clearMark"), "7");
    EXPECT_EQ(Cat(), kEverything);
}

TEST_F(ToolClear, TheNextRevisionTakesEverythingAndMakesNoBackup) {
    for (const char* mode : kModes) {
        Fill();
        ExpectReport(Clear("6", mode), kEverythingReport);
        EXPECT_EQ(Cat(), "");
        EXPECT_EQ(Stat("nextRev"), "6");
    }
    Fill();
    ExpectPrinted(Clear("6", "logical", "file_initial_size=1"), "1218 -> 1048576\n");
}

TEST_F(ToolClear, AboveTheNextRevisionOnlyAllTakesEverything) {
    for (const char* rev : {"7", "9223372036854775807"}) {
        Fill();
        for (const char* mode : kModes) {
            ExpectFailure(Clear(rev, mode),
                          std::string("clear: ") + rev +
                              " is above the next revision, 6, and would take everything away; "
                              "with --all it does; nothing was changed",
                          2);
            ExpectNothingChanged();
        }
        const Words to = {"--to", rev, "--mode", "squeeze-backup", "--all"};
        ExpectFailure(Command("clear", to, "y\n"),
                      "clear: there is no terminal to ask for confirmation on; --yes clears "
                      "without asking; nothing was changed",
                      2);
        ExpectNothingChanged();
        ExpectReport(Command("clear", {"--to", rev, "--mode", "squeeze-backup", "--all", "--yes"}),
                     kEverythingReport);
        EXPECT_EQ(Stat("nextRev"), "6");
    }
}

TEST_F(ToolClear, NothingToDoSaysSo) {
    Fill();
    for (const char* mode : kModes) {
        for (const std::string rev : {"0", "1"}) {
            ExpectReport(Clear(rev, mode),
                         Report("nothing: the oldest revision, 1, is not below " + rev, "1 -> 1",
                                "1218 -> 1218"));
        }
    }
    ExpectNothingChanged();
}

TEST_F(ToolClear, AnEmptyStorageHasNothingToClear) {
    ASSERT_EQ(Append("").exitStatus, 0);
    ExpectReport(Clear("7", "squeeze"),
                 "cleared              nothing: the storage holds no record\n"
                 "oldest revision      none -> none\n"
                 "next revision        1 -> 1\n"
                 "storage file size    1064 -> 1064\n"
                 "backup file          none\n");
}

TEST_F(ToolClear, ASqueezeTakesOutWhatWasClearedLogicallyBefore) {
    Fill();
    ASSERT_EQ(Clear("3", "logical").exitStatus, 0);
    ExpectReport(Clear("2", "squeeze-backup"),
                 Report("nothing new, but squeezed: the oldest revision, 3, is not below 2",
                        "3 -> 3", "1250 -> 1230", "'" + Backup() + "' (1250 bytes)"));
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
    EXPECT_EQ(ReadText(StorageFile()).find("r2"), std::string::npos);
}

TEST_F(ToolClear, ABackupThatWasThereBeforeIsNotTakenForItsOwn) {
    Fill();
    ASSERT_EQ(Clear("2", "squeeze-backup").exitStatus, 0);
    for (const char* mode : {"logical", "squeeze", "mark"}) {
        ExpectPrinted(Clear("3", mode), "backup file          '" + Backup() +
                                            "' (1218 bytes), of an earlier squeeze\n");
    }
}

TEST_F(ToolClear, TheStorageGoesOnBehindIt) {
    for (const char* mode : kModes) {
        Fill();
        ASSERT_EQ(Clear("4", mode).exitStatus, 0);
        ASSERT_EQ(Append("r6\n").exitStatus, 0);
        EXPECT_EQ(Cat(), "r4\nr5\nr6\n") << mode;
    }
}

TEST_F(ToolClear, HelpTellsModesRoomAndFiles) {
    const ToolRun help = Run({"clear", "--help"});
    for (const char* text :
         {"logical  ", "squeeze  ", "squeeze-backup  ", "mark  ", "second copy of what is kept",
          "PATH.temporary", "PATH.backup", "EVERYTHING", "NO BACKUP IS MADE", "ends it at once"}) {
        ExpectPrinted(help, text);
    }
}

using ToolClearFailure = ToolTest;

TEST_F(ToolClearFailure, ARevisionThatIsNoNumberIsRefused) {
    Fill();
    for (const std::string rev : {"-1", "x", "3x", "0x3", "+3", " 3", "3.0", "9223372036854775808",
                                  "99999999999999999999999"}) {
        ExpectFailure(Command("clear", {"--mode", "logical", "--to=" + rev}),
                      "clear: --to: " + rev +
                          " is no number from 0 to 9223372036854775807; see k9repl clear --help",
                      2);
    }
    ExpectNothingChanged();
    EXPECT_EQ(Clear("05", "logical").exitStatus, 0);
    EXPECT_EQ(Cat(), "r5\n") << "a zero in front changes nothing";
}

TEST_F(ToolClearFailure, RevisionAndModeMustBeGivenAndKnown) {
    ExpectFailure(Clear("3", "backup"),
                  "clear: --mode: backup not in {logical,squeeze,squeeze-backup,mark}; see k9repl "
                  "clear --help",
                  2);
    ExpectFailure(Command("clear", {"--mode", "mark"}),
                  "clear: --to is required; see k9repl clear --help", 2);
    ExpectFailure(Command("clear", {"--to", "3"}),
                  "clear: --mode is required; see k9repl clear --help", 2);
}

TEST_F(ToolClearFailure, AMissingStorageIsNamedAndNotMade) {
    ExpectFailure(Clear("3", "squeeze"), "clear: " + Missing());
    EXPECT_FALSE(Exists(StorageFile()));
}

TEST_F(ToolClearFailure, AFileThatIsNoStorageIsRefusedAndLeft) {
    m_before.assign(2000, 'x');
    WriteBytes(StorageFile(), m_before);
    ExpectFailure(Clear("3", "squeeze"), "clear: cannot open the storage '" + StorageFile() +
                                             "': Wrong file signature, file path " + StorageFile() +
                                             " " + kInvalidArg);
    ExpectNothingChanged();
}

TEST_F(ToolClearFailure, AStorageThatWritesNoFileIsRefused) {
    Fill();
    ExpectFailure(Clear("3", "squeeze", kNoFile),
                  "clear: nothing done to the storage '" + StorageFile() +
                      "' would be kept: flush_mode=NoFlush writes no file");
    ExpectNothingChanged();
}

TEST_F(ToolClearFailure, ATemporaryFileInTheWayOfASqueezeIsNamedBeforeAnythingChanges) {
    Fill();
    WriteText(Temporary(), "half a copy");
    for (const char* mode : {"squeeze", "squeeze-backup"}) {
        ExpectFailure(Clear("3", mode),
                      "clear: cannot squeeze the storage '" + StorageFile() + "': '" + Temporary() +
                          "' (11 bytes) is in the way, the unfinished copy of a squeeze that was "
                          "cut off; the storage at '" +
                          StorageFile() + "' is whole: delete '" + Temporary() +
                          "' and run the command again");
        EXPECT_EQ(ReadBytes(StorageFile()), m_before);
    }
    EXPECT_EQ(Clear("2", "mark").exitStatus, 0);
    EXPECT_EQ(Clear("2", "logical").exitStatus, 0);
    EXPECT_EQ(Clear("6", "squeeze").exitStatus, 0) << "begins the file anew";
    EXPECT_EQ(ReadText(Temporary()), "half a copy");
    EXPECT_FALSE(Exists(Backup()));
}

class ToolLeftovers : public ToolTest {
  protected:
    // As an end between two renames leaves it, where a file cannot have two names.
    void LeaveOnlyTheBackup() {
        Fill();
        std::filesystem::rename(StorageFile(), Backup());
    }
    // The command names the backup and makes no storage file.
    void ExpectToldOfBackup(const ToolRun& run, const std::string& command,
                            const std::string& advice) {
        ExpectFailure(run, command + ": there is no storage file '" + StorageFile() +
                               "', but its backup '" + Backup() +
                               "' (1218 bytes) is there; when a squeeze was cut off, all data is "
                               "in the backup: rename it to '" +
                               StorageFile() + "'" + advice);
        EXPECT_FALSE(Exists(StorageFile())) << command;
    }
};

TEST_F(ToolLeftovers, EveryCommandSaysThatTheDataIsInTheBackupWhichIsTrue) {
    LeaveOnlyTheBackup();
    const std::string code = std::string(" ") + kSystemError;
    for (const Words& words : {Words{"append"},
                               {"cat"},
                               {"stat"},
                               {"clear", "--to", "3", "--mode", "squeeze"},
                               {"truncate", "--yes"}}) {
        ExpectToldOfBackup(Command(words[0], Words(words.begin() + 1, words.end()), "x\n"),
                           words[0], code);
    }
    ExpectToldOfBackup(Run({"cat", "--conn", Conn(kNoFile)}), "cat", code);
    ExpectToldOfBackup(Append("x\n"), "append",
                       "; to begin an empty storage, move the backup away first");
    std::filesystem::rename(Backup(), StorageFile());
    EXPECT_EQ(Cat(), kEverything);
}

TEST_F(ToolLeftovers, StatNamesBothFilesWithTheirSizesIfTheyAreThere) {
    Fill();
    ASSERT_EQ(Append("").exitStatus, 0);  // its load lists the block in the index
    const ToolRun without = Command("stat");
    EXPECT_EQ(without.out.find("backup"), std::string::npos);
    EXPECT_EQ(without.out.find("temporary"), std::string::npos);
    WriteText(Backup(), "an old file");
    WriteText(Temporary(), "half");
    ExpectPrinted(Command("stat"), "blocks in the index  1\nbackup file          " + Backup() +
                                       "\nbackup file size     11\ntemporary file       " +
                                       Temporary() + "\ntemporary file size  4\n");
    EXPECT_EQ(Stat("backupFile"), AsJson(Backup()));
    EXPECT_EQ(Stat("backupSize"), "11");
    EXPECT_EQ(Stat("temporaryFile"), AsJson(Temporary()));
    EXPECT_EQ(Stat("temporarySize"), "4");
}

}  // namespace
}  // namespace k9erepl::test
