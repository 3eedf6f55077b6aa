// Each failure of append: one sentence, a status that is not 0, and what came before is stored.
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

constexpr const char* kSystemError =
    "(code 4, RC_SYSTEM_ERROR: a call to the operating system failed)";
constexpr const char* kInvalidArg =
    "(code 2, RC_INVALID_ARG: an argument, a setting or the file's signature is wrong)";

class ToolAppendFailure : public ToolTest {
  protected:
    // Fails and says exactly `sentence`.
    void ExpectFailure(const ToolRun& run, const std::string& sentence) {
        EXPECT_EQ(run.exitStatus, 1) << run;
        EXPECT_EQ(run.err, "k9repl append: " + sentence + "\n");
        EXPECT_EQ(run.out, "");
    }
};

TEST_F(ToolAppendFailure, AMissingStorageIsNamedAndCreateOffered) {
    ExpectFailure(Run({"append", "--conn", Conn()}, "x\n"),
                  "there is no storage file '" + StorageFile() + "'; append --create makes it " +
                      kSystemError);
    EXPECT_FALSE(Exists(StorageFile()));
}

TEST_F(ToolAppendFailure, AFileThatIsNoStorageIsRefused) {
    WriteText(StorageFile(), std::string(2000, 'x'));
    ExpectFailure(Append("x\n"), "cannot open the storage '" + StorageFile() +
                                     "': Wrong file signature, file path " + StorageFile() + " " +
                                     kInvalidArg);
}

TEST_F(ToolAppendFailure, ARefusedSettingIsNamed) {
    ExpectFailure(Run({"append", "--create", "--conn", Conn("block_size=137")}, "x\n"),
                  "cannot open the storage '" + StorageFile() +
                      "': Wrong block_size value 137, minimum block_size value is 138 " +
                      kInvalidArg);
}

TEST_F(ToolAppendFailure, AConnectionStringWithoutAFileIsRefused) {
    ExpectFailure(Run({"append", "--create", "--conn", "block_size=1000"}, "x\n"),
                  std::string("cannot create the storage: Failed to get file parameter value ") +
                      kInvalidArg);
}

TEST_F(ToolAppendFailure, AFolderThatCannotBeMadeIsNamed) {
    WriteText(File("no-folder"), "x");
    const std::string path = File("no-folder") + "/data.edb";
    ExpectFailure(Run({"append", "--create", "--conn", "file=" + path}, "x\n"),
                  "cannot create the storage '" + path + "': Failed to create file '" + path +
                      "';sys-err 20 (Not a directory) " + kSystemError);
}

TEST_F(ToolAppendFailure, AStorageInMemoryOnlyIsRefused) {
    ExpectFailure(
        Run({"append", "--conn", "cache_type=AllInMem;flush_mode=NoFlush;file=:memory:"}, "x\n"),
        "nothing appended to the storage ':memory:' would be kept: flush_mode=NoFlush "
        "writes no file");
}

TEST_F(ToolAppendFailure, AMissingInputIsNamedAndNothingCreated) {
    ExpectFailure(Append("", {File("missing.txt")}), "cannot open the input '" +
                                                         File("missing.txt") +
                                                         "': No such file or directory "
                                                         "(system error 2)");
    EXPECT_FALSE(Exists(StorageFile()));
}

TEST_F(ToolAppendFailure, AFolderAsInputIsRefused) {
    ExpectFailure(Append("", {"/"}),
                  "cannot read the input '/': Is a directory (system error 21); nothing is stored");
}

TEST_F(ToolAppendFailure, ALineAsLongAsABlockHoldsIsARecord) {
    const std::string line(176, 'x');
    const std::string conn = Conn("block_size=200");
    EXPECT_EQ(Run({"append", "--create", "--conn", conn}, line).exitStatus, 0);
    EXPECT_EQ(Cat(), line + "\n");
}

TEST_F(ToolAppendFailure, ALongerLineIsNamedAndWhatCameBeforeIsStored) {
    const std::string conn = Conn("block_size=200");
    const std::string input = "one\ntwo\n" + std::string(177, 'x') + "\nfour\n";
    ExpectFailure(Run({"append", "--create", "--conn", conn}, input),
                  "line 3 of standard input is longer than 176 bytes, the most that a record of "
                  "this storage can have (block_size less 24); safely stored up to revision 2");
    EXPECT_EQ(Cat(), "one\ntwo\n");
}

TEST_F(ToolAppendFailure, ALineWithoutEndIsRefusedBeforeItIsRead) {
    const std::string conn = Conn("block_size=200");
    ChildProcess child(PipedOptions({"append", "--create", "--conn", conn}));
    child.Write(std::string(1000, 'x'));  // and the input stays open
    ExpectFailure(Finish(child),
                  "line 1 of standard input is longer than 176 bytes, the most that a record of "
                  "this storage can have (block_size less 24); nothing is stored");
}

TEST_F(ToolAppendFailure, ALineBeyondTheLargestRecordOfAFileIsRefused) {
    const std::string conn = Conn("block_size=20000000");
    std::string fits;
    fits.resize(10485736, 'x');
    EXPECT_EQ(Run({"append", "--create", "--conn", conn}, fits).exitStatus, 0);
    ExpectFailure(Run({"append", "--conn", conn}, fits + "x"),
                  "line 1 of standard input is longer than 10485736 bytes, the most that a record "
                  "of this storage can have (block_size less 24); safely stored up to revision 1");
}

TEST_F(ToolAppendFailure, AHostileLengthIsRefused) {
    const std::string input("\x01\0\0\0a\xFF\xFF\xFF\xFF", 9);
    ExpectFailure(Append(input, {"--length-prefixed"}),
                  "record 2 of standard input, at byte 5, claims 4294967295 bytes, more than "
                  "1048648, the most that a record of this storage can have (block_size less 24); "
                  "safely stored up to revision 1");
    EXPECT_EQ(Cat(), "a\n");
}

TEST_F(ToolAppendFailure, ACutOffRecordIsAnErrorAndWhatCameBeforeIsStored) {
    const std::string input("\x01\0\0\0a\x05\0\0\0bcd", 12);
    ExpectFailure(Append(input, {"--length-prefixed"}),
                  "record 2 of standard input, at byte 5, is cut off: the input ends with 3 of its "
                  "5 bytes; safely stored up to revision 1");
    EXPECT_EQ(Cat(), "a\n");
}

TEST_F(ToolAppendFailure, ACutOffLengthIsAnError) {
    ExpectFailure(Append(std::string("\x01\0\0", 3), {"--length-prefixed"}),
                  "record 1 of standard input, at byte 0, is cut off: the input ends with 3 of the "
                  "4 bytes of its length; nothing is stored");
}

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

}  // namespace

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
    const ToolRun run =
        Run({"append", "--create", "--per-trans", "10", "--conn", "async_mode=yes;" + Conn()},
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
