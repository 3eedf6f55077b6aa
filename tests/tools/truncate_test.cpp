// Truncate: what it leaves, and that it does nothing unasked.
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {
namespace {

using ToolTruncate = ToolTest;

TEST_F(ToolTruncate, YesThrowsEverythingAwayWithoutAsking) {
    Fill();
    ASSERT_EQ(Clear("4", "mark").exitStatus, 0);
    const std::string conn = Conn("file_initial_size=1");
    ExpectReport(Run({"truncate", "--yes", "--conn", conn}),
                 "truncated            everything is thrown away\n"
                 "oldest revision      1 -> none\n"
                 "next revision        6 -> 1\n"
                 "clear mark           4 -> 0\n"
                 "storage file size    1218 -> 1048576\n"
                 "backup file          none\n");
    EXPECT_EQ(Cat(), "");
    EXPECT_EQ(Stat("nextRev"), "1");
    ASSERT_EQ(Append("again\n").exitStatus, 0);
    EXPECT_EQ(Cat({"--from", "1", "--to", "1"}), "again\n");
}

TEST_F(ToolTruncate, ABackupOfASqueezeStays) {
    Fill();
    ASSERT_EQ(Clear("4", "squeeze-backup").exitStatus, 0);
    ExpectPrinted(Command("truncate", {"--yes"}),
                  "backup file          '" + Backup() + "' (1218 bytes), of an earlier squeeze\n");
    EXPECT_EQ(ReadBytes(Backup()), m_before);
}

TEST_F(ToolTruncate, WithoutATerminalItRefuses) {
    Fill();
    ExpectFailure(Command("truncate", {}, "y\n"),
                  "truncate: there is no terminal to ask for confirmation on; --yes truncates "
                  "without asking; nothing was changed",
                  2);
    ExpectNothingChanged();
    ChildOptions options = PipedOptions({"truncate", "--conn", Conn()});
    options.inputPath = kNullDevice;
    options.errorPath = kNullDevice;
    ChildProcess child(options);
    EXPECT_EQ(child.Wait(), (ChildEnd{2, 0}));
    ExpectNothingChanged();
}

TEST_F(ToolTruncate, AStorageThatWritesNoFileIsRefused) {
    Fill();
    ExpectFailure(Run({"truncate", "--yes", "--conn", Conn(kNoFile)}),
                  "truncate: nothing done to the storage '" + StorageFile() +
                      "' would be kept: flush_mode=NoFlush writes no file");
    ExpectNothingChanged();
}

TEST_F(ToolTruncate, AFileThatIsNoStorageIsLeftAsItIs) {
    m_before.assign(2000, 'x');
    WriteBytes(StorageFile(), m_before);
    EXPECT_EQ(Command("truncate", {"--yes"}).exitStatus, 1);
    ExpectNothingChanged();
}

}  // namespace
}  // namespace k9erepl::test
