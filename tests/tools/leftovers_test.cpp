// Files that a squeeze leaves beside a storage when it is cut off: every command names them.
#include <cstdio>
#include <filesystem>
#include <string>

#include "tools/clear_fixture.h"

namespace k9erepl::test {

namespace {

class ToolLeftovers : public ToolClearTest {
  protected:
    // As an end between two renames leaves it, where a file cannot have two names.
    void LeaveOnlyTheBackup() {
        Fill();
        std::filesystem::rename(StorageFile(), Backup());
    }

    std::string DataIsInTheBackup() const {
        return "there is no storage file '" + StorageFile() + "', but its backup '" + Backup() +
               "' (1218 bytes) is there; when a squeeze was cut off, all data is in the backup: "
               "rename it to '" +
               StorageFile() + "'";
    }
};

TEST_F(ToolLeftovers, EveryCommandSaysThatTheDataIsInTheBackup) {
    LeaveOnlyTheBackup();
    const std::vector<std::vector<std::string>> commands = {
        {"append"},
        {"cat"},
        {"stat"},
        {"clear", "--to", "3", "--mode", "squeeze"},
        {"truncate", "--yes"}};
    for (std::vector<std::string> arguments : commands) {
        const std::string name = arguments.front();
        arguments.insert(arguments.end(), {"--conn", Conn()});
        const ToolRun run = Run(arguments, "x\n");
        EXPECT_EQ(run.exitStatus, 1) << name;
        EXPECT_EQ(run.err,
                  "k9repl " + name + ": " + DataIsInTheBackup() + " " + kSystemError + "\n");
        EXPECT_FALSE(Exists(StorageFile())) << name;
    }
}

TEST_F(ToolLeftovers, CreateDoesNotStartAnEmptyStorageBesideTheBackup) {
    LeaveOnlyTheBackup();
    const ToolRun run = Append("x\n");
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err, "k9repl append: " + DataIsInTheBackup() +
                           "; to begin an empty storage, move the backup away first\n");
    EXPECT_FALSE(Exists(StorageFile()));
}

TEST_F(ToolLeftovers, LookingWithoutWritingSaysSoToo) {
    LeaveOnlyTheBackup();
    const ToolRun run = Run({"cat", "--conn", Conn("cache_type=AllInMem;flush_mode=NoFlush")});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err, "k9repl cat: " + DataIsInTheBackup() + " " + kSystemError + "\n");
}

TEST_F(ToolLeftovers, TheAdviceBringsEverythingBack) {
    LeaveOnlyTheBackup();
    std::filesystem::rename(Backup(), StorageFile());
    EXPECT_EQ(Cat(), "r1\nr2\nr3\nr4\nr5\n");
}

TEST_F(ToolLeftovers, StatNamesBothFilesWithTheirSizes) {
    Fill();
    ASSERT_EQ(Append("").exitStatus, 0);  // its load lists the block in the index
    WriteText(Backup(), "an old file");
    WriteText(Temporary(), "half");
    const ToolRun run = Run({"stat", "--conn", Conn()});
    EXPECT_EQ(run.exitStatus, 0);
    EXPECT_NE(run.out.find("blocks in the index  1\n"
                           "backup file          " +
                           Backup() +
                           "\n"
                           "backup file size     11\n"
                           "temporary file       " +
                           Temporary() +
                           "\n"
                           "temporary file size  4\n"),
              std::string::npos)
        << run;
    EXPECT_EQ(Stat("backupFile"), AsJson(Backup()));
    EXPECT_EQ(Stat("backupSize"), "11");
    EXPECT_EQ(Stat("temporaryFile"), AsJson(Temporary()));
    EXPECT_EQ(Stat("temporarySize"), "4");
}

TEST_F(ToolLeftovers, StatSaysNothingOfFilesThatAreNotThere) {
    Fill();
    const ToolRun run = Run({"stat", "--conn", Conn()});
    EXPECT_EQ(run.out.find("backup"), std::string::npos);
    EXPECT_EQ(run.out.find("temporary"), std::string::npos);
}

}  // namespace

}  // namespace k9erepl::test
