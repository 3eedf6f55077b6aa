// Runs of the tool on a terminal. Used by the tests of questions and of the progress line.
#ifndef K9EREPL_TESTS_TOOLS_POSIX_TERMINAL_FIXTURE_H
#define K9EREPL_TESTS_TOOLS_POSIX_TERMINAL_FIXTURE_H

#include <string>
#include <utility>
#include <vector>

#include "tools/posix/pseudo_terminal.h"
#include "tools/tool_fixture.h"

namespace k9erepl::test {

// A fixture of the tool's tests, with runs on a terminal.
template <typename Fixture>
class OnTerminal : public Fixture {
  protected:
    // As PipedOptions, with standard input and error on `terminal`.
    ChildOptions TerminalOptions(const PseudoTerminal& terminal,
                                 std::vector<std::string> arguments) const {
        ChildOptions options = this->PipedOptions(std::move(arguments));
        options.inputPath = options.errorPath = terminal.Name();
        return options;
    }

    // Waits for the child and collects what it printed, that on the terminal as standard error.
    ToolRun FinishOnTerminal(ChildProcess& child, PseudoTerminal& terminal) const {
        const ChildEnd end = child.Wait();
        EXPECT_EQ(end.signal, 0) << "the tool was ended by a signal";
        return {end.exitStatus, ReadText(this->File("tool.out")), terminal.ReadRest()};
    }
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_POSIX_TERMINAL_FIXTURE_H
