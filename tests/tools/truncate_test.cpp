// Truncate: the question, its answers, and what is left.
#include <csignal>
#include <filesystem>
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

class ToolTruncate : public ToolTest {
  protected:
    void Fill() {
        ASSERT_EQ(Append("r1\nr2\nr3\nr4\nr5\n").exitStatus, 0);
        m_before = ReadBytes(StorageFile());
    }

    // Asked on a terminal, answered with `answer`.
    ToolRun Answer(const std::string& answer) {
        PseudoTerminal terminal;
        ChildProcess child(TerminalOptions(terminal, {"truncate", "--conn", Conn()}));
        EXPECT_TRUE(terminal.WaitFor("[y/N] "));
        terminal.Type(answer);
        return FinishOnTerminal(child, terminal);
    }

    std::string Question() const {
        return "Throw away everything in the storage '" + StorageFile() + "' (1218 bytes)? [y/N] ";
    }

    void ExpectNothingChanged() {
        EXPECT_EQ(ReadBytes(StorageFile()), m_before);
        EXPECT_EQ(Cat(), "r1\nr2\nr3\nr4\nr5\n");
    }

    std::vector<u8> m_before;
};

constexpr const char* kReport =
    "truncated            everything is thrown away\n"
    "oldest revision      1 -> none\n"
    "next revision        6 -> 1\n"
    "storage file size    1218 -> 1218\n"
    "backup file          none\n";

TEST_F(ToolTruncate, YesThrowsEverythingAwayWithoutAsking) {
    Fill();
    const ToolRun run = Run({"truncate", "--yes", "--conn", Conn()});
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.out, kReport);
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

TEST_F(ToolTruncate, AYesOnTheTerminalThrowsEverythingAway) {
    for (const char* answer : {"y\n", "Y\n", "yes\n", "Yes\n"}) {
        std::filesystem::remove(StorageFile());
        Fill();
        const ToolRun run = Answer(answer);
        EXPECT_EQ(run.exitStatus, 0) << run;
        EXPECT_EQ(run.out, kReport);
        EXPECT_EQ(run.err, Question());
        EXPECT_EQ(Cat(), "");
    }
}

TEST_F(ToolTruncate, AnyOtherAnswerChangesNothing) {
    Fill();
    constexpr const char* kEndOfInput = "\x04";
    for (const char* answer : {"\n", "n\n", "no\n", "yep\n", "y y\n", kEndOfInput}) {
        const ToolRun run = Answer(answer);
        EXPECT_EQ(run.exitStatus, 1) << run;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, Question() + "k9repl truncate: not confirmed; nothing was changed\n");
        ExpectNothingChanged();
    }
}

TEST_F(ToolTruncate, AnInterruptInsteadOfAnAnswerChangesNothing) {
    Fill();
    PseudoTerminal terminal;
    ChildProcess child(TerminalOptions(terminal, {"truncate", "--conn", Conn()}));
    ASSERT_TRUE(terminal.WaitFor("[y/N] "));
    child.Signal(SIGINT);
    const ToolRun run = FinishOnTerminal(child, terminal);
    EXPECT_EQ(run.exitStatus, 128 + SIGINT);
    EXPECT_EQ(run.err,
              Question() + "\nk9repl truncate: interrupted by SIGINT; nothing was changed\n");
    ExpectNothingChanged();
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

TEST_F(ToolTruncate, AQuestionThatNobodySeesIsNotAsked) {
    Fill();
    const PseudoTerminal terminal;
    ChildOptions options = PipedOptions({"truncate", "--conn", Conn()});
    options.inputPath = terminal.Name();
    ChildProcess child(options);
    EXPECT_EQ(Finish(child).exitStatus, 2);
    ExpectNothingChanged();
}

TEST_F(ToolTruncate, AMissingStorageIsNamedWithoutAQuestion) {
    PseudoTerminal terminal;
    ChildProcess child(TerminalOptions(terminal, {"truncate", "--conn", Conn()}));
    const ToolRun run = FinishOnTerminal(child, terminal);
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err, "k9repl truncate: there is no storage file '" + StorageFile() +
                           "'; append --create makes it (code 4, RC_SYSTEM_ERROR: a call to the "
                           "operating system failed)\n");
    EXPECT_FALSE(Exists(StorageFile()));
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
