// A long squeeze: how far it is on a terminal, and its end by signals. Holding the terminal's
// output holds the squeeze, because the tool waits to print how far it is.
#include <filesystem>
#include <memory>
#include <string>

#include "tools/clear_fixture.h"
#include "tools/posix/terminal_fixture.h"

namespace k9erepl::test {

namespace {

class ToolSqueeze : public OnTerminal<ToolClearTest> {
  protected:
    static constexpr const char* kStart = "\r\033[Kcopied 0.0 of 24.0 MB";
    static constexpr const char* kEraseLine = "\r\033[K";

    // 25 records of a million bytes, of which 24 are kept.
    void FillLarge() {
        std::string lines;
        for (int i = 0; i < 25; ++i) {
            lines += std::string(1000000, static_cast<char>('a' + i)) + "\n";
        }
        ASSERT_EQ(Append(lines).exitStatus, 0);
    }

    // Starts the squeeze and returns when it has begun its copy, held by the terminal.
    std::unique_ptr<ChildProcess> StartHeld(PseudoTerminal& terminal) {
        terminal.HoldOutput();
        auto child = std::make_unique<ChildProcess>(
            TerminalOptions(terminal, ClearArguments("2", "squeeze")));
        EXPECT_TRUE(WaitUntilExists(Temporary()));
        return child;
    }

    std::string FirstByteOfEach() {
        std::string bytes;
        const std::string lines = Cat();
        for (std::size_t at = 0; at < lines.size(); at = lines.find('\n', at) + 1) {
            bytes += lines[at];
        }
        return bytes;
    }
};

TEST_F(ToolSqueeze, TellsItsProgressOnATerminal) {
    FillLarge();
    PseudoTerminal terminal;
    ChildProcess child(TerminalOptions(terminal, ClearArguments("2", "squeeze")));
    const ToolRun run = FinishOnTerminal(child, terminal);
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.err.substr(0, std::string(kStart).size()), kStart);
    EXPECT_TRUE(run.err.ends_with("\r\033[Kcopied 24.0 of 24.0 MB, waiting for the disk\r\033[K"))
        << run;
    EXPECT_NE(run.out.find("oldest revision      1 -> 2\n"), std::string::npos) << run;
}

TEST_F(ToolSqueeze, TellsNoProgressElsewhere) {
    FillLarge();
    const ToolRun run = Clear("2", "squeeze");
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.err, "");
}

TEST_F(ToolSqueeze, TellsNoProgressWhereTheUserSteersTheLog) {
    FillLarge();
    m_environment.push_back("K9SYS_LOG_FILE=" + File("library.log"));
    PseudoTerminal terminal;
    ChildProcess child(TerminalOptions(terminal, ClearArguments("2", "squeeze")));
    const ToolRun run = FinishOnTerminal(child, terminal);
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.err, "");
}

TEST_F(ToolSqueeze, IsFinishedAfterAnInterrupt) {
    FillLarge();
    PseudoTerminal terminal;
    const auto child = StartHeld(terminal);
    child->Interrupt();
    terminal.ReleaseOutput();
    const ToolRun run = FinishOnTerminal(*child, terminal);
    EXPECT_EQ(run.exitStatus, 130) << run;
    EXPECT_TRUE(run.err.ends_with(
        "\r\033[Kcopied 24.0 of 24.0 MB, waiting for the disk; SIGINT: finishing the squeeze, once "
        "more ends it here\r\033[Kk9repl clear: interrupted by SIGINT; the clear is done all the "
        "same\n"))
        << run;
    EXPECT_NE(run.out.find("oldest revision      1 -> 2\n"), std::string::npos) << run;
    EXPECT_FALSE(Exists(Temporary()));
    EXPECT_EQ(FirstByteOfEach(), "bcdefghijklmnopqrstuvwxy");
}

TEST_F(ToolSqueeze, WhatAKilledOneLeavesIsExplainedAndRemoved) {
    FillLarge();
    PseudoTerminal terminal;
    const auto child = StartHeld(terminal);
    child->Kill();
    EXPECT_EQ(child->Wait(), (ChildEnd{0, kKillSignal}));
    EXPECT_EQ(FirstByteOfEach(), "bcdefghijklmnopqrstuvwxy");  // the clear revision was first
    EXPECT_EQ(Stat("temporaryFile"), AsJson(Temporary()));
    const ToolRun again = Clear("2", "squeeze");
    EXPECT_EQ(again.exitStatus, 1);
    EXPECT_NE(again.err.find("is in the way, the unfinished copy of a squeeze that was cut off; "
                             "the storage at '" +
                             StorageFile() + "' is whole: delete '" + Temporary() +
                             "' and run the command again\n"),
              std::string::npos)
        << again;
    std::filesystem::remove(Temporary());
    EXPECT_EQ(Clear("2", "squeeze").exitStatus, 0);
    EXPECT_EQ(FirstByteOfEach(), "bcdefghijklmnopqrstuvwxy");
    EXPECT_LT(FileSize(StorageFile()), 24100000);
}

}  // namespace

}  // namespace k9erepl::test
