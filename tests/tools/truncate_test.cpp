// Truncate: what it leaves, and that it does nothing unasked.
#include <string>

#include "tools/system_differences.h"
#include "tools/truncate_fixture.h"

namespace k9erepl::test {

namespace {

class ToolTruncate : public ToolTruncateTest {};

TEST_F(ToolTruncate, YesThrowsEverythingAwayWithoutAsking) {
    Fill();
    const ToolRun run = Run({"truncate", "--yes", "--conn", Conn()});
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.out, kTruncateReport);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(Cat(), "");
    EXPECT_EQ(Stat("nextRev"), "1");
    ASSERT_EQ(Append("again\n").exitStatus, 0);
    EXPECT_EQ(Cat({"--from", "1", "--to", "1"}), "again\n");
}

TEST_F(ToolTruncate, TheMarkGoesToo) {
    Fill();
    ASSERT_EQ(Run({"clear", "--conn", Conn(), "--to", "4", "--mode", "mark"}).exitStatus, 0);
    const ToolRun run = Run({"truncate", "--yes", "--conn", Conn("file_initial_size=1")});
    EXPECT_EQ(run.out,
              "truncated            everything is thrown away\n"
              "oldest revision      1 -> none\n"
              "next revision        6 -> 1\n"
              "clear mark           4 -> 0\n"
              "storage file size    1218 -> 1048576\n"
              "backup file          none\n");
}

TEST_F(ToolTruncate, ABackupOfASqueezeStays) {
    Fill();
    ASSERT_EQ(Run({"clear", "--conn", Conn(), "--to", "4", "--mode", "squeeze-backup"}).exitStatus,
              0);
    const ToolRun run = Run({"truncate", "--yes", "--conn", Conn()});
    EXPECT_NE(run.out.find("backup file          '" + StorageFile() +
                           ".backup' (1218 bytes), of an earlier squeeze\n"),
              std::string::npos)
        << run;
    EXPECT_EQ(ReadBytes(StorageFile() + ".backup"), m_before);
}

TEST_F(ToolTruncate, WithoutATerminalItRefuses) {
    Fill();
    const ToolRun run = Run({"truncate", "--conn", Conn()}, "y\n");
    EXPECT_EQ(run.exitStatus, 2) << run;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err,
              "k9repl truncate: there is no terminal to ask for confirmation on; --yes truncates "
              "without asking; nothing was changed\n");
    ExpectNothingChanged();
}

TEST_F(ToolTruncate, TheNullDeviceIsNoTerminal) {
    Fill();
    ChildOptions options = PipedOptions({"truncate", "--conn", Conn()});
    options.inputPath = NullDevice();
    options.errorPath = NullDevice();
    ChildProcess child(options);
    EXPECT_EQ(child.Wait(), (ChildEnd{2, 0}));
    ExpectNothingChanged();
}

TEST_F(ToolTruncate, AStorageThatWritesNoFileIsRefused) {
    Fill();
    const ToolRun run =
        Run({"truncate", "--yes", "--conn", Conn("cache_type=AllInMem;flush_mode=NoFlush")});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err, "k9repl truncate: nothing done to the storage '" + StorageFile() +
                           "' would be kept: flush_mode=NoFlush writes no file\n");
    ExpectNothingChanged();
}

TEST_F(ToolTruncate, AFileThatIsNoStorageIsLeftAsItIs) {
    WriteText(StorageFile(), std::string(2000, 'x'));
    EXPECT_EQ(Run({"truncate", "--yes", "--conn", Conn()}).exitStatus, 1);
    EXPECT_EQ(ReadText(StorageFile()), std::string(2000, 'x'));
}

}  // namespace

}  // namespace k9erepl::test
