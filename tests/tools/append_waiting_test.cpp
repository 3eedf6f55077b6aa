// Append with an input that pauses: records are stored without waiting for the next one, and --ack
// tells which are.
#include <chrono>
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

class ToolAppendWaiting : public ToolTest {
  protected:
    // An append from a pipe that commits what has come after `ms` milliseconds.
    ChildOptions FromPipe(const std::string& ms, const std::string& settings = {}) const {
        return PipedOptions({"append", "--create", "--commit-after", ms, "--conn", Conn(settings)});
    }
    // The same at once, with acknowledgements on a pipe.
    ChildOptions WithAcks(const std::string& settings = {}) const {
        ChildOptions options = FromPipe("1", settings);
        options.arguments.push_back("--ack");
        options.outputPath.clear();
        return options;
    }

    // Reads `text` from the output of the child, which takes at most a minute to print it.
    static void ExpectOutput(ChildProcess& child, const std::string& text) {
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
    std::string CatBeside() { return Run({"cat", "--conn", "file=" + StorageFile()}).out; }
    bool WaitUntilReadable(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (std::chrono::steady_clock::now() < deadline) {
            if (CatBeside() == text) {
                return true;
            }
        }
        return false;
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
    EXPECT_EQ(Cat(), "one\ntwo\na part of a line\n");
}

TEST_F(ToolAppendWaiting, AnAcknowledgedRevisionSurvivesAKill) {
    ChildProcess child(WithAcks());
    child.Write("one\ntwo\n");
    ExpectOutput(child, "1\n2\n");
    child.Write("three\n");
    ExpectOutput(child, "3\n");
    child.Kill();
    child.Wait();
    EXPECT_EQ(Cat(), "one\ntwo\nthree\n");
}

TEST_F(ToolAppendWaiting, RecordsOfLengthsAreAcknowledgedLikeLines) {
    ChildOptions options = WithAcks();
    options.arguments.push_back("--length-prefixed");
    ChildProcess child(options);
    child.Write(std::string("\x01\0\0\0a\x02\0\0\0b", 10));
    ExpectOutput(child, "1\n");
    child.Write("c");
    ExpectOutput(child, "2\n");
    child.CloseInput();
    EXPECT_EQ(Finish(child).exitStatus, 0);
    EXPECT_EQ(Cat(), "a\nbc\n");
}

TEST_F(ToolAppendWaiting, NoThresholdKeepsARecordFromBeingStored) {
    const char* const settings[] = {
        "flush_mode=PerTrans;flush_trans_num=1000;flush_timeout=3600000",
        "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=100",
        "flush_mode=PerData;flush_data_size=99999999;flush_timeout=100",
        "force_flush=yes;commit_barrier=yes", "write_through=yes"};
    i64 rev = 0;
    for (const char* setting : settings) {
        SCOPED_TRACE(setting);
        ChildProcess child(WithAcks(setting));
        for (int i = 0; i < 3; ++i) {
            child.Write("a line\n");
            ExpectOutput(child, std::to_string(++rev) + "\n");
        }
        child.CloseInput();
        EXPECT_EQ(Finish(child).exitStatus, 0);
    }
}

TEST_F(ToolAppendWaiting, AcksAreAloneOnStandardOutput) {
    ASSERT_EQ(Append("one\n").exitStatus, 0);
    const ToolRun run = Append("two\nthree\n", {"--ack"});
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.out, "2\n3\n");
    EXPECT_EQ(run.err.substr(0, run.err.find(" in ")),
              "appended 2 records, 8 bytes, revisions 2 to 3,");
}

TEST_F(ToolAppendWaiting, AnInterruptAcknowledgesWhatItStores) {
    ChildOptions options = FromPipe("3600000", "flush_mode=PerTrans;flush_trans_num=1");
    options.arguments.insert(options.arguments.end(), {"--ack", "--per-trans", "2"});
    options.interruptible = true;
    ChildProcess child(options);
    child.Write("one\ntwo\nthree\n");  // one piece of a pipe: read as one
    ASSERT_TRUE(WaitUntilFileHolds(StorageFile(), "two"));
    child.Interrupt();
    const ToolRun run = Finish(child);
    EXPECT_EQ(run.exitStatus, 130);
    EXPECT_EQ(run.out, "1\n2\n3\n");
    EXPECT_EQ(run.err.substr(run.err.find("k9repl")),
              "k9repl append: interrupted by SIGINT; safely stored up to revision 3\n");
}

TEST_F(ToolAppendWaiting, RecordsAreAppendedThoughNobodyReadsTheAcks) {
    ChildProcess child(WithAcks());
    child.CloseOutput();
    child.Write("one\n");
    ASSERT_TRUE(WaitUntilFileHolds(StorageFile(), "one"));
    child.Write("two\n");
    child.CloseInput();
    EXPECT_EQ(Finish(child).exitStatus, 0);
    EXPECT_EQ(Cat(), "one\ntwo\n");
}

TEST_F(ToolAppendWaiting, TheTimeToCommitIsANumberAboveZero) {
    const ToolRun run = Append("x\n", {"--commit-after", "0"});
    EXPECT_EQ(run.exitStatus, 2);
    EXPECT_EQ(run.err,
              "k9repl append: --commit-after: 0 is no number from 1 to 4294967295; see k9repl "
              "append --help\n");
}

}  // namespace

}  // namespace k9erepl::test
