// Append: each failure is one sentence and a status that is not 0, and what came before it is
// stored; an input that pauses is stored without waiting for the next record, and --ack tells how
// far; an interrupt commits what was read and closes the storage.
#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>

#include "tools/tool_fixture.h"

namespace k9erepl::test {
namespace {

// "MEANING (system error NUMBER)".
std::string InWords(int error) {
    return std::system_category().message(error) + " (system error " + std::to_string(error) + ")";
}

class ToolAppendFailure : public ToolTest {
  protected:
    // Appending `input` with these settings fails and says exactly `sentence`.
    void ExpectRefused(const std::string& settings, std::string_view input,
                       const std::string& sentence) {
        ExpectFailure(Run({"append", "--create", "--conn", Conn(settings)}, input),
                      "append: " + sentence);
    }
    // The same with length-prefixed records.
    void ExpectPrefixedRefused(const std::string& input, const std::string& sentence) {
        ExpectFailure(Append(input, {"--length-prefixed"}), "append: " + sentence);
    }
};

constexpr const char* kTooLong =
    " of standard input is longer than 176 bytes, the most that a record can have with "
    "block_size=200; give a block_size of the record's bytes and 24 more, at most 10485760; ";

TEST_F(ToolAppendFailure, AStorageThatCannotBeOpenedIsNamed) {
    ExpectFailure(Command("append", {}, "x\n"), "append: " + Missing());
    EXPECT_FALSE(Exists(StorageFile()));
    const std::string cannot = "cannot open the storage '" + StorageFile() + "': ";
    ExpectRefused(
        "block_size=137", "x\n",
        cannot + "Wrong block_size value 137, minimum block_size value is 138 " + kInvalidArg);
    WriteText(StorageFile(), std::string(2000, 'x'));
    ExpectRefused("", "x\n",
                  cannot + "Wrong file signature, file path " + StorageFile() + " " + kInvalidArg);
    ExpectFailure(Run({"append", "--create", "--conn", "block_size=1000"}, "x\n"),
                  std::string("append: cannot create the storage: Failed to get file parameter "
                              "value ") +
                      kInvalidArg);
    ExpectFailure(
        Run({"append", "--conn", std::string(kNoFile) + ";file=:memory:"}, "x\n"),
        "append: nothing appended to the storage ':memory:' would be kept: flush_mode=NoFlush "
        "writes no file");
}

TEST_F(ToolAppendFailure, AnInputThatCannotBeReadIsNamedAndNothingCreated) {
    ExpectFailure(
        Append("", {File("missing.txt")}),
        "append: cannot open the input '" + File("missing.txt") + "': " + InWords(ENOENT));
    EXPECT_FALSE(Exists(StorageFile()));
    constexpr int kAccessDenied = 5;  // of Windows
    ExpectFailure(Append("", {"/"}),
                  kOnWindows ? "append: cannot open the input '/': " + InWords(kAccessDenied)
                             : "append: cannot read the input '/': " + InWords(EISDIR) +
                                   "; nothing is stored");
}

TEST_F(ToolAppendFailure, ALineLongerThanABlockHoldsIsNamedAndWhatCameBeforeIsStored) {
    const std::string fits(176, 'x');
    ExpectRefused("block_size=200", fits + "\ntwo\n" + fits + "x\nfour\n",
                  std::string("line 3") + kTooLong + "safely stored up to revision 2");
    EXPECT_EQ(Cat(), fits + "\ntwo\n");
}

TEST_F(ToolAppendFailure, ALineWithoutEndIsRefusedBeforeItIsRead) {
    ChildProcess child(PipedOptions({"append", "--create", "--conn", Conn("block_size=200")}));
    child.Write(std::string(1000, 'x'));  // and the input stays open
    ExpectFailure(Finish(child), std::string("append: line 1") + kTooLong + "nothing is stored");
}

TEST_F(ToolAppendFailure, ALineBeyondTheLargestRecordOfAFileIsRefused) {
    std::string fits;
    fits.resize(10485736, 'x');
    ExpectRefused("block_size=20000000", fits + "\n" + fits + "x",
                  "line 2 of standard input is longer than 10485736 bytes, the most that a record "
                  "of a storage file can have, whatever its block_size; cut it into smaller "
                  "records; safely stored up to revision 1");
}

TEST_F(ToolAppendFailure, HostileAndCutOffRecordsAreErrorsAndWhatCameBeforeIsStored) {
    ExpectPrefixedRefused(std::string("\x01\0\0\0a\xFF\xFF\xFF\xFF", 9),
                          "record 2 of standard input, at byte 5, claims 4294967295 bytes, more "
                          "than 1048648, the most that a record can have with "
                          "block_size=1048672, the default; give a block_size of the record's "
                          "bytes and 24 more, at most 10485760; safely stored up to revision 1");
    ExpectPrefixedRefused(std::string("\x01\0\0\0b\x05\0\0\0bcd", 12),
                          "record 2 of standard input, at byte 5, is cut off: the input ends with "
                          "3 of its 5 bytes; safely stored up to revision 2");
    EXPECT_EQ(Cat(), "a\nb\n");
    std::filesystem::remove(StorageFile());
    ExpectPrefixedRefused(std::string("\x01\0\0", 3),
                          "record 1 of standard input, at byte 0, is cut off: the input ends with "
                          "3 of the 4 bytes of its length; nothing is stored");
}

class ToolAppendWaiting : public ToolTest {
  protected:
    // An append from a pipe that commits what has come after `ms` milliseconds.
    ChildOptions FromPipe(const std::string& ms, const std::string& settings = {},
                          const Words& more = {}) const {
        ChildOptions options =
            PipedOptions({"append", "--create", "--commit-after", ms, "--conn", Conn(settings)});
        options.arguments.insert(options.arguments.end(), more.begin(), more.end());
        return options;
    }
    // The same at once, with acknowledgements on a pipe.
    ChildOptions WithAcks(const std::string& settings = {}, const Words& more = {}) const {
        ChildOptions options = FromPipe("1", settings, more);
        options.arguments.emplace_back("--ack");
        options.outputPath.clear();
        return options;
    }

    // Writes `input` and reads `text` from the output of the child, which takes at most a minute to
    // print it.
    static void ExpectAck(ChildProcess& child, const std::string& input, const std::string& text) {
        child.Write(input);
        std::string got(text.size(), '\0');
        std::size_t size = 0;
        while (size < text.size()) {
            const std::size_t more = child.Read(got.data() + size, text.size() - size, 60000);
            ASSERT_GT(more, 0U) << "the output is '" << got.substr(0, size) << "'";
            size += more;
        }
        EXPECT_EQ(got, text);
    }
    // What a second process reads while the first one has the storage open.
    bool WaitUntilReadable(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (std::chrono::steady_clock::now() < deadline) {
            if (Run({"cat", "--conn", "file=" + StorageFile()}).out == text) {
                return true;
            }
        }
        return false;
    }
    ToolRun CloseAndFinish(ChildProcess& child) const {
        child.CloseInput();
        ToolRun run = Finish(child);
        EXPECT_EQ(run.exitStatus, 0) << run;
        return run;
    }
};

TEST_F(ToolAppendWaiting, RecordsAreStoredThoughNoFurtherLineComes) {
    ChildOptions options = FromPipe("1");
    options.outputPath = File("append.out");  // cat has its own
    options.errorPath = File("append.err");
    ChildProcess child(options);
    child.Write("one\ntwo\na part");
    EXPECT_TRUE(WaitUntilReadable("one\ntwo\n"));
    child.Write(" of a line\n");
    EXPECT_TRUE(WaitUntilReadable("one\ntwo\na part of a line\n"));
    child.CloseInput();
    EXPECT_EQ(child.Wait(), (ChildEnd{0, 0}));
}

TEST_F(ToolAppendWaiting, AnAcknowledgedRevisionSurvivesAKill) {
    ChildProcess child(WithAcks());
    ExpectAck(child, "one\ntwo\n", "1\n2\n");
    ExpectAck(child, "three\n", "3\n");
    child.Kill();
    child.Wait();
    EXPECT_EQ(Cat(), "one\ntwo\nthree\n");
}

TEST_F(ToolAppendWaiting, RecordsOfLengthsAreAcknowledgedLikeLines) {
    ChildProcess child(WithAcks({}, {"--length-prefixed"}));
    ExpectAck(child, std::string("\x01\0\0\0a\x02\0\0\0b", 10), "1\n");
    ExpectAck(child, "c", "2\n");
    CloseAndFinish(child);
    EXPECT_EQ(Cat(), "a\nbc\n");
}

TEST_F(ToolAppendWaiting, NoThresholdKeepsARecordFromBeingStored) {
    i64 rev = 0;
    for (const char* settings : {"flush_mode=PerTrans;flush_trans_num=1000;flush_timeout=3600000",
                                 "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=100",
                                 "flush_mode=PerData;flush_data_size=99999999;flush_timeout=100",
                                 "force_flush=yes;commit_barrier=yes", "write_through=yes"}) {
        SCOPED_TRACE(settings);
        ChildProcess child(WithAcks(settings));
        for (int i = 0; i < 3; ++i) {
            ExpectAck(child, "a line\n", std::to_string(++rev) + "\n");
        }
        CloseAndFinish(child);
    }
}

TEST_F(ToolAppendWaiting, AcksAreAloneOnStandardOutput) {
    ASSERT_EQ(Append("one\n").exitStatus, 0);
    const ToolRun run = Append("two\nthree\n", {"--ack"});
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.out, "2\n3\n");
    EXPECT_EQ(UpTo(run.err, " in "), "appended 2 records, 8 bytes, revisions 2 to 3,");
}

TEST_F(ToolAppendWaiting, RecordsAreAppendedThoughNobodyReadsTheAcks) {
    ChildProcess child(WithAcks());
    child.CloseOutput();
    child.Write("one\n");
    ASSERT_TRUE(WaitUntilFileHolds(StorageFile(), "one"));
    child.Write("two\n");
    CloseAndFinish(child);
    EXPECT_EQ(Cat(), "one\ntwo\n");
}

TEST_F(ToolAppendWaiting, TheTimeToCommitIsANumberAboveZero) {
    ExpectFailure(Append("x\n", {"--commit-after", "0"}),
                  "append: --commit-after: 0 is no number from 1 to 4294967295; see k9repl append "
                  "--help",
                  2);
}

class ToolInterrupt : public ToolAppendWaiting {
  protected:
    // An append that waits for input has put `stored` of what it read into the file; its interrupt
    // makes it store everything up to `rev`.
    ToolRun Interrupt(const Words& more, const std::string& input, const std::string& stored,
                      i64 rev) {
        ChildOptions options = FromPipe("3600000", kEachCommit, more);
        options.interruptible = true;
        ChildProcess child(options);
        child.Write(input);  // one piece of a pipe: read as one
        EXPECT_TRUE(WaitUntilFileHolds(StorageFile(), stored));
        child.Interrupt();
        ToolRun run = Finish(child);
        EXPECT_EQ(run.exitStatus, 130);
        EXPECT_EQ(run.err.substr(run.err.find("k9repl")),
                  "k9repl append: interrupted by SIGINT; safely stored up to revision " +
                      std::to_string(rev) + "\n");
        return run;
    }
};

TEST_F(ToolInterrupt, CommitsTheOpenTransaction) {
    std::string lines;
    for (int i = 1; i <= 150; ++i) {
        lines += "line " + std::to_string(i) + "\n";
    }
    const ToolRun run =
        Interrupt({"--per-trans", "100"}, lines + "a part of a line", "line 100", 150);
    EXPECT_EQ(UpTo(run.out, ","), "appended 150 records");
    EXPECT_EQ(Cat(), lines);
}

TEST_F(ToolInterrupt, EndsAWaitForInputAndAcknowledgesWhatItStores) {
    EXPECT_EQ(Interrupt({"--ack", "--per-trans", "2"}, "one\ntwo\nthree\n", "two", 3).out,
              "1\n2\n3\n");
    EXPECT_EQ(UpTo(Interrupt({"--per-trans", "1"}, "four\n", "four", 4).out, ","),
              "appended 1 record");
    EXPECT_EQ(Stat("nextRev"), "5");
}

TEST_F(ToolInterrupt, EndsACatWhoseReaderDoesNotRead) {
    ASSERT_EQ(Append(std::string(500000, '\n')).exitStatus, 0);
    ChildOptions options = PipedOptions({"cat", "--conn", Conn(), "--format", "json"});
    options.outputPath.clear();
    options.interruptible = true;
    ChildProcess child(options);
    char byte = 0;
    ASSERT_EQ(child.Read(&byte, 1, 60000), 1U);  // it writes, and will soon wait
    child.Interrupt();
    const ToolRun run = Finish(child);
    EXPECT_EQ(run.exitStatus, 130);
    EXPECT_EQ(run.err, "k9repl cat: interrupted by SIGINT\n");
}

}  // namespace
}  // namespace k9erepl::test
