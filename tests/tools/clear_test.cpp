// What clear does to a storage in each mode, and how it tells it.
#include <filesystem>
#include <string>

#include "tools/clear_fixture.h"

namespace k9erepl::test {

namespace {

class ToolClear : public ToolClearTest {};

constexpr const char* kEverythingReport =
    "cleared              everything: no record is left\n"
    "oldest revision      1 -> none\n"
    "next revision        6 -> 6\n"
    "storage file size    1218 -> 1218\n"
    "backup file          none\n";

TEST_F(ToolClear, LogicalLeavesTheRecordsInTheFile) {
    Fill();
    ExpectReport(Clear("3", "logical"),
                 "cleared              the revisions below 3\n"
                 "oldest revision      1 -> 3\n"
                 "next revision        6 -> 6\n"
                 "storage file size    1218 -> 1250\n"
                 "backup file          none\n");
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
    EXPECT_NE(ReadText(StorageFile()).find("r1"), std::string::npos);
    EXPECT_FALSE(Exists(Backup()));
}

TEST_F(ToolClear, SqueezeTakesThemOutOfTheFile) {
    Fill();
    ExpectReport(Clear("3", "squeeze"),
                 "cleared              the revisions below 3\n"
                 "oldest revision      1 -> 3\n"
                 "next revision        6 -> 6\n"
                 "storage file size    1218 -> 1198\n"
                 "backup file          none\n");
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
    EXPECT_EQ(ReadText(StorageFile()).find("r2"), std::string::npos);
    EXPECT_FALSE(Exists(Backup()));
    EXPECT_FALSE(Exists(Temporary()));
}

TEST_F(ToolClear, SqueezeBackupKeepsTheOldFileAsAStorage) {
    Fill();
    const std::vector<u8> old = ReadBytes(StorageFile());
    ExpectReport(Clear("3", "squeeze-backup"),
                 "cleared              the revisions below 3\n"
                 "oldest revision      1 -> 3\n"
                 "next revision        6 -> 6\n"
                 "storage file size    1218 -> 1198\n"
                 "backup file          '" +
                     Backup() + "' (1218 bytes)\n");
    EXPECT_EQ(ReadBytes(Backup()), old);
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
    EXPECT_EQ(Run({"cat", "--conn", "file=" + Backup()}).out, "r1\nr2\nr3\nr4\nr5\n");
}

TEST_F(ToolClear, MarkOnlyNotesTheRevision) {
    Fill();
    ExpectReport(Clear("3", "mark"),
                 "cleared              nothing: the clear mark is 3 now\n"
                 "oldest revision      1 -> 1\n"
                 "next revision        6 -> 6\n"
                 "clear mark           0 -> 3\n"
                 "storage file size    1218 -> 1218\n"
                 "backup file          none\n");
    EXPECT_EQ(Cat(), "r1\nr2\nr3\nr4\nr5\n");
    EXPECT_EQ(Stat("clearMark"), "3");
}

TEST_F(ToolClear, TheNextRevisionTakesEverythingAndMakesNoBackup) {
    for (const char* mode : {"logical", "squeeze", "squeeze-backup"}) {
        std::filesystem::remove(StorageFile());
        Fill();
        ExpectReport(Clear("6", mode), kEverythingReport);
        EXPECT_EQ(Cat(), "");
        EXPECT_EQ(Stat("nextRev"), "6");
    }
}

TEST_F(ToolClear, AboveTheNextRevisionAllTakesEverything) {
    for (const char* rev : {"7", "9223372036854775807"}) {
        std::filesystem::remove(StorageFile());
        Fill();
        std::vector<std::string> arguments = ClearArguments(rev, "squeeze-backup");
        arguments.insert(arguments.end(), {"--all", "--yes"});
        ExpectReport(Run(arguments), kEverythingReport);
        EXPECT_EQ(Stat("nextRev"), "6");
    }
}

TEST_F(ToolClear, AMarkMayBeAboveTheNextRevision) {
    Fill();
    EXPECT_EQ(Clear("7", "mark").exitStatus, 0);
    EXPECT_EQ(Stat("clearMark"), "7");
    EXPECT_EQ(Cat(), "r1\nr2\nr3\nr4\nr5\n");
}

TEST_F(ToolClear, FileInitialSizeIsTheSizeOfAFileThatIsBegunAnew) {
    Fill();
    EXPECT_NE(Clear("6", "logical", "file_initial_size=1").out.find("1218 -> 1048576\n"),
              std::string::npos);
}

TEST_F(ToolClear, NothingToDoSaysSo) {
    Fill();
    for (const char* mode : {"logical", "squeeze", "squeeze-backup"}) {
        for (const char* rev : {"0", "1"}) {
            ExpectReport(Clear(rev, mode), std::string("cleared              nothing: the oldest "
                                                       "revision, 1, is not below ") +
                                               rev +
                                               "\n"
                                               "oldest revision      1 -> 1\n"
                                               "next revision        6 -> 6\n"
                                               "storage file size    1218 -> 1218\n"
                                               "backup file          none\n");
        }
    }
    EXPECT_EQ(Cat(), "r1\nr2\nr3\nr4\nr5\n");
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
                 "cleared              nothing new, but squeezed: the oldest revision, 3, is not "
                 "below 2\n"
                 "oldest revision      3 -> 3\n"
                 "next revision        6 -> 6\n"
                 "storage file size    1250 -> 1230\n"
                 "backup file          '" +
                     Backup() + "' (1250 bytes)\n");
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
    EXPECT_EQ(ReadText(StorageFile()).find("r2"), std::string::npos);
}

TEST_F(ToolClear, ABackupThatWasThereBeforeIsNotTakenForItsOwn) {
    Fill();
    ASSERT_EQ(Clear("2", "squeeze-backup").exitStatus, 0);
    const std::string line =
        "backup file          '" + Backup() + "' (1218 bytes), of an earlier squeeze\n";
    for (const char* mode : {"logical", "squeeze", "mark"}) {
        EXPECT_NE(Clear("3", mode).out.find(line), std::string::npos) << mode;
    }
}

TEST_F(ToolClear, ASecondBackupReplacesTheFirst) {
    Fill();
    ASSERT_EQ(Clear("2", "squeeze-backup").exitStatus, 0);
    ASSERT_EQ(Clear("4", "squeeze-backup").exitStatus, 0);
    EXPECT_EQ(Run({"cat", "--conn", "file=" + Backup()}).out, "r2\nr3\nr4\nr5\n");
    EXPECT_EQ(Cat(), "r4\nr5\n");
}

TEST_F(ToolClear, TheStorageGoesOnBehindIt) {
    for (const char* mode : {"logical", "squeeze", "squeeze-backup"}) {
        std::filesystem::remove(StorageFile());
        std::filesystem::remove(Backup());
        Fill();
        ASSERT_EQ(Clear("4", mode).exitStatus, 0);
        ASSERT_EQ(Append("r6\n").exitStatus, 0);
        EXPECT_EQ(Cat(), "r4\nr5\nr6\n") << mode;
    }
}

TEST_F(ToolClear, HelpTellsModesRoomAndFiles) {
    const std::string help = Run({"clear", "--help"}).out;
    for (const char* text :
         {"logical  ", "squeeze  ", "squeeze-backup  ", "mark  ", "second copy of what is kept",
          "PATH.temporary", "PATH.backup", "EVERYTHING", "NO BACKUP IS MADE", "ends it at once"}) {
        EXPECT_NE(help.find(text), std::string::npos) << text;
    }
}

}  // namespace

}  // namespace k9erepl::test
