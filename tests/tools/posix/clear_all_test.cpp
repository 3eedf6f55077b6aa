// Clear asks on a terminal before a revision that is above the next one takes everything.
#include <filesystem>
#include <string>

#include "tools/clear_failure_fixture.h"
#include "tools/posix/terminal_fixture.h"

namespace k9erepl::test {

namespace {

class ToolClearQuestion : public OnTerminal<ToolClearFailure> {
  protected:
    std::vector<std::string> AllArguments(const std::string& to) const {
        std::vector<std::string> arguments = ClearArguments(to, "logical");
        arguments.push_back("--all");
        return arguments;
    }
    ToolRun Answer(const std::string& answer) {
        PseudoTerminal terminal;
        ChildProcess child(TerminalOptions(terminal, AllArguments("7")));
        EXPECT_TRUE(terminal.WaitFor("[y/N] "));
        terminal.Type(answer);
        return FinishOnTerminal(child, terminal);
    }
    std::string Question() const {
        return "Take everything away from the storage '" + StorageFile() +
               "', revisions 1 to 5? [y/N] ";
    }
};

TEST_F(ToolClearQuestion, AYesTakesEverythingAway) {
    Fill();
    const ToolRun run = Answer("yes\n");
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.err, Question());
    EXPECT_EQ(run.out.substr(0, run.out.find('\n')),
              "cleared              everything: no record is left");
    EXPECT_EQ(Cat(), "");
}

TEST_F(ToolClearQuestion, AnyOtherAnswerChangesNothing) {
    Fill();
    const std::vector<u8> before = ReadBytes(StorageFile());
    for (const char* answer : {"\n", "no\n", "all\n"}) {
        const ToolRun run = Answer(answer);
        EXPECT_EQ(run.exitStatus, 1) << run;
        EXPECT_EQ(run.err, Question() + "k9repl clear: not confirmed; nothing was changed\n");
        EXPECT_EQ(ReadBytes(StorageFile()), before);
    }
}

TEST_F(ToolClearQuestion, IsNotAskedWhereSomethingIsKept) {
    Fill();
    PseudoTerminal terminal;
    ChildProcess child(TerminalOptions(terminal, AllArguments("3")));
    const ToolRun run = FinishOnTerminal(child, terminal);
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
}

}  // namespace

}  // namespace k9erepl::test
