// What the system may do to the tool, in the system's own words: full disks, folders and files
// without permission, closed streams, signals, links. Nothing is lost.
#include <csignal>
#include <filesystem>
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFullOutput =
    "cannot write to standard output: No space left on device (system error 28)";

using ToolFullOutput = ToolTest;

TEST_F(ToolFullOutput, IsAFailureThatTellsWhatIsDoneAllTheSame) {
    Fill();
    const std::string full = kFullOutput;
    m_outputPath = "/dev/full";
    ExpectFailure(Command("cat"), "cat: " + full);
    EXPECT_EQ(Run({"cat", "--help"}).err, "k9repl: " + full + "\n");
    ExpectFailure(Clear("5", "logical"), "clear: " + full + "; the clear is done");
    ExpectFailure(Append("6\n7\n"), "append: " + full + "; safely stored up to revision 7");
    ExpectFailure(Append("8\n", {"--ack"}), "append: " + full + "; safely stored up to revision 8");
    m_outputPath.clear();
    EXPECT_EQ(Cat(), "r5\n6\n7\n8\n");
}

class ToolAppendToFullDisk : public ToolTest {
  protected:
    // The revision up to which a failed run says that everything is stored.
    static i64 StoredRevision(const ToolRun& run) {
        const std::string told = "safely stored up to revision ";
        const std::size_t at = run.err.find(told);
        if (at == std::string::npos) {
            EXPECT_TRUE(run.err.ends_with("; nothing is stored\n")) << run;
            return 0;
        }
        return std::stoll(run.err.substr(at + told.size()));
    }
    static std::string ManyRecords() {
        std::string input;
        for (int i = 0; i < 1000; ++i) {
            input += "a record of some length\n";
        }
        return input;
    }
    // The library's message of a write that does not fit.
    const std::string m_tooLarge =
        std::string("Cannot write data;sys-err 27 (File too large) ") + kSystemError;
};

TEST_F(ToolAppendToFullDisk, TellsTheLastRevisionThatIsStored) {
    SKIP_WHEN_ASYNC("a failed write is reported by the commit that made it");
    m_fileSizeMax = 10000;
    const ToolRun run = Append(ManyRecords(), {"--per-trans", "10"});
    const i64 stored = StoredRevision(run);
    ExpectFailure(run, "append: cannot commit to the storage '" + StorageFile() + "': " +
                           m_tooLarge + "; safely stored up to revision " + std::to_string(stored));
    EXPECT_GT(stored, 0);
    EXPECT_EQ(Stat("nextRev"), std::to_string(stored + 1));
}

// The write that fails may have stored some of its transactions all the same.
TEST_F(ToolAppendToFullDisk, IsToldByWhateverFollowsTheQueuedWrite) {
    m_fileSizeMax = 10000;
    const ToolRun run = Run({"append", "--create", "--per-trans", "10", "--conn",
                             "async_mode=yes;file=" + StorageFile()},
                            ManyRecords());
    EXPECT_EQ(run.exitStatus, 1) << run;
    EXPECT_NE(run.err.find(m_tooLarge), std::string::npos) << run;
    EXPECT_GT(std::stoll(Stat("nextRev")), StoredRevision(run));
}

TEST_F(ToolAppendToFullDisk, IsAFailureAtTheLastFlush) {
    m_fileSizeMax = 2000;
    const std::string conn =
        Conn("flush_mode=PerData;flush_data_size=1000000;flush_timeout=3600000");
    ExpectFailure(Run({"append", "--create", "--conn", conn}, std::string(3000, '\n')),
                  "append: cannot flush up to revision 3000 while closing the storage '" +
                      StorageFile() + "': " + m_tooLarge + "; nothing is stored");
    EXPECT_EQ(Stat("nextRev"), "1");
}

using ToolPermissions = ToolTest;

TEST_F(ToolPermissions, AFolderThatCannotBeMadeIsNamed) {
    WriteText(File("no-folder"), "x");
    const std::string path = File("no-folder") + "/data.edb";
    ExpectFailure(Run({"append", "--create", "--conn", "file=" + path}, "x\n"),
                  "append: cannot create the storage '" + path + "': Failed to create file '" +
                      path + "';sys-err 20 (Not a directory) " + kSystemError);
}

TEST_F(ToolPermissions, ClosedStandardStreamsNeverBecomeTheStorage) {
    ASSERT_EQ(Append("one\n").exitStatus, 0);
    WriteText(File("lines.txt"), "two\n");
    ChildOptions options = PipedOptions({});
    options.arguments = {"/bin/sh", "-c",
                         "exec " K9REPL_PROGRAM " append --conn '" + Conn() + "' " +
                             File("lines.txt") + " <&- >&- 2>&-"};
    ChildProcess child(options);
    EXPECT_EQ(Finish(child).exitStatus, 1);  // the summary cannot be printed
    EXPECT_EQ(Cat(), "one\ntwo\n");
}

TEST_F(ToolPermissions, AFileThatMayOnlyBeReadIsPrintedAndDescribed) {
    const std::string folder = File("folder");
    const std::string path = folder + "/data.edb";
    fs::create_directory(folder);
    const std::string conn = "file=" + path;
    ASSERT_EQ(Run({"append", "--create", "--conn", conn}, "one\ntwo\n").exitStatus, 0);
    fs::remove(path + "-idx");
    fs::permissions(path, fs::perms(0444));
    fs::permissions(folder, fs::perms(0555));
    fs::permissions(fs::path(folder).parent_path(), fs::perms(0755));
    m_obeysPermissions = true;
    EXPECT_EQ(Run({"cat", "--conn", conn}).out, "one\ntwo\n");
    EXPECT_EQ(Run({"stat", "--conn", conn}).exitStatus, 0);
    EXPECT_EQ(Run({"verify", "--conn", conn}).exitStatus, 0);
    EXPECT_EQ(Run({"append", "--conn", conn}, "three\n").exitStatus, 1);
    fs::permissions(folder, fs::perms(0755));
    EXPECT_FALSE(Exists(path + "-idx"));
}

class ToolClearWithoutRoom : public ToolTest {
  protected:
    // The clear of the storage at `path` failed, and its oldest revision is `oldest`.
    static void ExpectWhole(const ToolRun& run, const std::string& path, const std::string& cause,
                            int oldest) {
        ExpectFailure(run, "clear: cannot clear the storage '" + path + "': " + cause + " " +
                               kSystemError + "; the storage is whole, oldest revision " +
                               std::to_string(oldest) + ", next revision 6");
    }
    void ExpectNoTraces() {
        EXPECT_FALSE(Exists(Temporary()));
        EXPECT_FALSE(Exists(Backup()));
        EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
    }
};

TEST_F(ToolClearWithoutRoom, AFolderThatTakesNoNewFileLosesNothing) {
    Fill();
    const auto folder = fs::path(StorageFile()).parent_path();
    // The tool's own output lies in that folder, too.
    ASSERT_EQ(Command("stat").exitStatus, 0);
    WriteText(File("tool.in"), "");
    fs::permissions(folder, fs::perms::owner_read | fs::perms::owner_exec);
    m_obeysPermissions = true;
    const ToolRun run = Clear("3", "squeeze");
    fs::permissions(folder, fs::perms::owner_all);
    ExpectWhole(run, StorageFile(),
                "Cannot create temporary file '" + Temporary() + "';sys-err 13 (Permission denied)",
                3);
    ExpectNoTraces();
}

TEST_F(ToolClearWithoutRoom, ANameTooLongForTheTemporaryFileLosesNothing) {
    Fill();
    const std::string path = File(std::string(247, 'n'));
    fs::rename(StorageFile(), path);
    ExpectWhole(
        Run({"clear", "--conn", "file=" + path + ";index_file=" + File("i"), "--to", "3", "--mode",
             "squeeze"}),
        path,
        "Cannot create temporary file '" + path + ".temporary';sys-err 36 (File name too long)", 3);
}

TEST_F(ToolClearWithoutRoom, AFullDiskLosesNothing) {
    Fill();
    m_fileSizeMax = 1218;
    ExpectWhole(Clear("3", "logical"), StorageFile(),
                "Cannot write data;sys-err 27 (File too large)", 1);
    EXPECT_EQ(Cat(), kEverything);
    m_fileSizeMax = 100000;
    ExpectWhole(Clear("3", "squeeze-backup", "file_initial_size=1"), StorageFile(),
                "Cannot set initial file size (1048576);sys-err 27 (File too large)", 3);
    m_fileSizeMax = 0;
    ExpectNoTraces();
    EXPECT_NE(ReadText(StorageFile()).find("r1"), std::string::npos);
}

using ToolSignal = ToolTest;

TEST_F(ToolSignal, EndsAWaitForInput) {
    i64 rev = 0;
    for (const auto& [signal, name] : {std::pair(SIGINT, "SIGINT"), std::pair(SIGTERM, "SIGTERM"),
                                       std::pair(SIGHUP, "SIGHUP")}) {
        ChildProcess child(
            PipedOptions({"append", "--create", "--conn", Conn(kEachCommit), "--per-trans", "1"}));
        const std::string line = std::string("a line for <") + name + ">";
        child.Write(line + "\n");
        ASSERT_TRUE(WaitUntilFileHolds(StorageFile(), line));
        child.Signal(signal);
        const ToolRun run = Finish(child);
        EXPECT_EQ(run.exitStatus, 128 + signal);
        EXPECT_EQ(run.err, std::string("k9repl append: interrupted by ") + name +
                               "; safely stored up to revision " + std::to_string(++rev) + "\n");
    }
    EXPECT_EQ(Stat("nextRev"), "4");
}

using ToolLinkedStorage = ToolTest;

// A storage file that is reached through a symbolic link: files lie beside what it leads to.
TEST_F(ToolLinkedStorage, SqueezesAndIsLookedForWhereItsLinkLeads) {
    Fill();
    fs::create_symlink("data.edb", File("link"));
    const std::string conn = "file=" + File("link");
    const ToolRun run = Run({"clear", "--conn", conn, "--to", "3", "--mode", "squeeze-backup"});
    EXPECT_EQ(run.exitStatus, 0) << run;
    ExpectPrinted(run, "storage file size    1218 -> 1198\n");
    ExpectPrinted(run, "backup file          '" + Backup() + "' (1218 bytes)\n");
    EXPECT_TRUE(fs::is_symlink(File("link")));
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
    fs::remove(StorageFile());
    const ToolRun cat = Run({"cat", "--conn", conn});
    EXPECT_EQ(cat.exitStatus, 1);
    EXPECT_NE(cat.err.find("but its backup '" + Backup() + "' (1218 bytes) is there"),
              std::string::npos)
        << cat;
    EXPECT_NE(cat.err.find("rename it to '" + StorageFile() + "'"), std::string::npos) << cat;
}

}  // namespace
}  // namespace k9erepl::test
