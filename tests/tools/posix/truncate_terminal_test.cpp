// Truncate asks on a terminal: the question, its answers, and what is left.
#include <filesystem>
#include <string>

#include "tools/posix/terminal_fixture.h"
#include "tools/truncate_fixture.h"

namespace k9erepl::test {

namespace {

class ToolQuestion : public OnTerminal<ToolTruncateTest> {
  protected:
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
};

TEST_F(ToolQuestion, AYesOnTheTerminalThrowsEverythingAway) {
    for (const char* answer : {"y\n", "Y\n", "yes\n", "Yes\n"}) {
        std::filesystem::remove(StorageFile());
        Fill();
        const ToolRun run = Answer(answer);
        EXPECT_EQ(run.exitStatus, 0) << run;
        EXPECT_EQ(run.out, kTruncateReport);
        EXPECT_EQ(run.err, Question());
        EXPECT_EQ(Cat(), "");
    }
}

TEST_F(ToolQuestion, AnyOtherAnswerChangesNothing) {
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

TEST_F(ToolQuestion, AnInterruptInsteadOfAnAnswerChangesNothing) {
    Fill();
    PseudoTerminal terminal;
    ChildProcess child(TerminalOptions(terminal, {"truncate", "--conn", Conn()}));
    ASSERT_TRUE(terminal.WaitFor("[y/N] "));
    child.Interrupt();
    const ToolRun run = FinishOnTerminal(child, terminal);
    EXPECT_EQ(run.exitStatus, 130);
    EXPECT_EQ(run.err,
              Question() + "\nk9repl truncate: interrupted by SIGINT; nothing was changed\n");
    ExpectNothingChanged();
}

TEST_F(ToolQuestion, AQuestionThatNobodySeesIsNotAsked) {
    Fill();
    const PseudoTerminal terminal;
    ChildOptions options = PipedOptions({"truncate", "--conn", Conn()});
    options.inputPath = terminal.Name();
    ChildProcess child(options);
    EXPECT_EQ(Finish(child).exitStatus, 2);
    ExpectNothingChanged();
}

TEST_F(ToolQuestion, AMissingStorageIsNamedWithoutAQuestion) {
    PseudoTerminal terminal;
    ChildProcess child(TerminalOptions(terminal, {"truncate", "--conn", Conn()}));
    const ToolRun run = FinishOnTerminal(child, terminal);
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err, "k9repl truncate: there is no storage file '" + StorageFile() +
                           "'; append --create makes it (code 4, RC_SYSTEM_ERROR: a call to the "
                           "operating system failed)\n");
    EXPECT_FALSE(Exists(StorageFile()));
}

}  // namespace

}  // namespace k9erepl::test
