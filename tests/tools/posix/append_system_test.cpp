// Failures of append that the system causes, in the system's own words.
#include <string>

#include "tools/append_failure_fixture.h"

namespace k9erepl::test {

namespace {

// The revision up to which a failed run says that everything is stored.
i64 StoredRevision(const ToolRun& run) {
    const std::string told = "safely stored up to revision ";
    const std::size_t at = run.err.find(told);
    if (at == std::string::npos) {
        EXPECT_TRUE(run.err.ends_with("; nothing is stored\n")) << run;
        return 0;
    }
    return std::stoll(run.err.substr(at + told.size()));
}

std::string ManyRecords() {
    std::string input;
    for (int i = 0; i < 1000; ++i) {
        input += "a record of some length\n";
    }
    return input;
}

TEST_F(ToolAppendFailure, AFolderThatCannotBeMadeIsNamed) {
    WriteText(File("no-folder"), "x");
    const std::string path = File("no-folder") + "/data.edb";
    ExpectFailure(Run({"append", "--create", "--conn", "file=" + path}, "x\n"),
                  "cannot create the storage '" + path + "': Failed to create file '" + path +
                      "';sys-err 20 (Not a directory) " + kSystemError);
}

TEST_F(ToolAppendFailure, AFullDiskTellsTheLastRevisionThatIsStored) {
    SKIP_WHEN_ASYNC("a failed write is reported by the commit that made it");
    m_fileSizeMax = 10000;
    const ToolRun run = Append(ManyRecords(), {"--per-trans", "10"});
    const i64 stored = StoredRevision(run);
    ExpectFailure(run, "cannot commit to the storage '" + StorageFile() +
                           "': Cannot write data;sys-err 27 (File too large) " + kSystemError +
                           "; safely stored up to revision " + std::to_string(stored));
    EXPECT_GT(stored, 0);
    EXPECT_EQ(Stat("nextRev"), std::to_string(stored + 1));
}

// The write that fails may have stored some of its transactions all the same.
TEST_F(ToolAppendFailure, AFullDiskIsToldByWhateverFollowsTheQueuedWrite) {
    m_fileSizeMax = 10000;
    const ToolRun run = Run({"append", "--create", "--per-trans", "10", "--conn",
                             "async_mode=yes;file=" + StorageFile()},
                            ManyRecords());
    EXPECT_EQ(run.exitStatus, 1) << run;
    EXPECT_NE(run.err.find("Cannot write data;sys-err 27 (File too large)"), std::string::npos)
        << run;
    EXPECT_GT(std::stoll(Stat("nextRev")), StoredRevision(run));
}

TEST_F(ToolAppendFailure, ADiskThatIsFullAtTheLastFlushIsAFailure) {
    m_fileSizeMax = 2000;
    const std::string conn =
        Conn("flush_mode=PerData;flush_data_size=1000000;flush_timeout=3600000");
    const ToolRun run = Run({"append", "--create", "--conn", conn}, std::string(3000, '\n'));
    ExpectFailure(run, "cannot flush up to revision 3000 while closing the storage '" +
                           StorageFile() + "': Cannot write data;sys-err 27 (File too large) " +
                           kSystemError + "; nothing is stored");
    EXPECT_EQ(Stat("nextRev"), "1");
}

TEST_F(ToolAppendFailure, ASummaryThatCannotBePrintedIsAFailure) {
    m_outputPath = "/dev/full";
    const ToolRun run = Append("a\nb\n");
    ExpectFailure(run,
                  "cannot write to standard output: No space left on device (system error 28); "
                  "safely stored up to revision 2");
}

TEST_F(ToolAppendFailure, AcksThatCannotBePrintedAreAFailure) {
    m_outputPath = "/dev/full";
    const ToolRun run = Append("a\nb\n", {"--ack"});
    ExpectFailure(run,
                  "cannot write to standard output: No space left on device (system error 28); "
                  "safely stored up to revision 2");
    m_outputPath.clear();
    EXPECT_EQ(Cat(), "a\nb\n");
}

TEST_F(ToolAppendFailure, ClosedStandardStreamsNeverBecomeTheStorage) {
    ASSERT_EQ(Append("one\n").exitStatus, 0);
    const std::string command = "exec " K9REPL_PROGRAM " append --conn '" + Conn() + "' " +
                                File("lines.txt") + " <&- >&- 2>&-";
    WriteText(File("lines.txt"), "two\n");
    ChildOptions options = PipedOptions({});
    options.arguments = {"/bin/sh", "-c", command};
    ChildProcess child(options);
    EXPECT_EQ(Finish(child).exitStatus, 1);  // the summary cannot be printed
    EXPECT_EQ(Cat(), "one\ntwo\n");
}

}  // namespace

}  // namespace k9erepl::test
