// The tool on a terminal: questions before everything is thrown away, and how far a long squeeze
// is, also when signals end it.
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include "tools/posix/pseudo_terminal.h"
#include "tools/tool_fixture.h"

namespace k9erepl::test {
namespace {

class ToolOnTerminal : public ToolTest {
  protected:
    // Starts "k9repl ARGUMENTS" with standard input and error on the terminal.
    void Start(Words arguments) {
        m_terminal = std::make_unique<PseudoTerminal>();
        ChildOptions options = PipedOptions(std::move(arguments));
        options.inputPath = options.errorPath = m_terminal->Name();
        m_child = std::make_unique<ChildProcess>(options);
    }
    // Waits for the end and collects what was printed, that on the terminal as standard error.
    ToolRun FinishOnTerminal() {
        const ChildEnd end = m_child->Wait();
        EXPECT_EQ(end.signal, 0) << "the tool was ended by a signal";
        return {end.exitStatus, ReadText(File("tool.out")), m_terminal->ReadRest()};
    }
    // Starts, waits for the question and answers it.
    ToolRun Answer(Words arguments, const std::string& answer) {
        Start(std::move(arguments));
        EXPECT_TRUE(m_terminal->WaitFor("[y/N] "));
        m_terminal->Type(answer);
        return FinishOnTerminal();
    }
    // Nothing is printed but `err` on the terminal, and the storage is as it was.
    void ExpectUnchanged(const ToolRun& run, int exitStatus, const std::string& err) {
        EXPECT_EQ(run.exitStatus, exitStatus) << run;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, err);
        ExpectNothingChanged();
    }
    Words ClearArguments(const std::string& to, const std::string& mode) const {
        return {"clear", "--conn", Conn(), "--to", to, "--mode", mode};
    }

    std::unique_ptr<PseudoTerminal> m_terminal;
    std::unique_ptr<ChildProcess> m_child;
};

class ToolQuestion : public ToolOnTerminal {
  protected:
    Words Truncate() const { return {"truncate", "--conn", Conn()}; }
    Words ClearAll(const std::string& to) const {
        Words arguments = ClearArguments(to, "logical");
        arguments.emplace_back("--all");
        return arguments;
    }
    std::string TruncateQuestion() const {
        return "Throw away everything in the storage '" + StorageFile() + "' (1218 bytes)? [y/N] ";
    }
    std::string ClearQuestion() const {
        return "Take everything away from the storage '" + StorageFile() +
               "', revisions 1 to 5? [y/N] ";
    }
};

TEST_F(ToolQuestion, AYesThrowsEverythingAway) {
    for (const char* answer : {"y\n", "Y\n", "yes\n", "Yes\n"}) {
        Fill();
        const ToolRun run = Answer(Truncate(), answer);
        EXPECT_EQ(run.exitStatus, 0) << run;
        EXPECT_EQ(run.out,
                  "truncated            everything is thrown away\n"
                  "oldest revision      1 -> none\n"
                  "next revision        6 -> 1\n"
                  "storage file size    1218 -> 1218\n"
                  "backup file          none\n");
        EXPECT_EQ(run.err, TruncateQuestion());
        EXPECT_EQ(Cat(), "");
    }
    Fill();
    const ToolRun run = Answer(ClearAll("7"), "yes\n");
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(UpTo(run.out, "\n"), "cleared              everything: no record is left");
    EXPECT_EQ(run.err, ClearQuestion());
    EXPECT_EQ(Cat(), "");
}

TEST_F(ToolQuestion, AnyOtherAnswerChangesNothing) {
    Fill();
    constexpr const char* kEndOfInput = "\x04";
    for (const char* answer : {"\n", "n\n", "no\n", "yep\n", "y y\n", kEndOfInput}) {
        ExpectUnchanged(
            Answer(Truncate(), answer), 1,
            TruncateQuestion() + "k9repl truncate: not confirmed; nothing was changed\n");
    }
    for (const char* answer : {"\n", "no\n", "all\n"}) {
        ExpectUnchanged(Answer(ClearAll("7"), answer), 1,
                        ClearQuestion() + "k9repl clear: not confirmed; nothing was changed\n");
    }
}

TEST_F(ToolQuestion, AnInterruptInsteadOfAnAnswerChangesNothing) {
    Fill();
    Start(Truncate());
    ASSERT_TRUE(m_terminal->WaitFor("[y/N] "));
    m_child->Interrupt();
    ExpectUnchanged(
        FinishOnTerminal(), 130,
        TruncateQuestion() + "\nk9repl truncate: interrupted by SIGINT; nothing was changed\n");
}

TEST_F(ToolQuestion, IsNotAskedWhereNobodySeesItNothingIsThereOrSomethingIsKept) {
    Start(Truncate());
    const ToolRun missing = FinishOnTerminal();
    EXPECT_EQ(missing.exitStatus, 1);
    EXPECT_EQ(missing.err, "k9repl truncate: " + Missing() + "\n");
    EXPECT_FALSE(Exists(StorageFile()));
    Fill();
    const PseudoTerminal unseen;
    ChildOptions options = PipedOptions(Truncate());
    options.inputPath = unseen.Name();
    ChildProcess child(options);
    EXPECT_EQ(Finish(child).exitStatus, 2);
    ExpectNothingChanged();
    Start(ClearAll("3"));
    const ToolRun kept = FinishOnTerminal();
    EXPECT_EQ(kept.exitStatus, 0) << kept;
    EXPECT_EQ(kept.err, "");
    EXPECT_EQ(Cat(), "r3\nr4\nr5\n");
}

// Holding the terminal's output holds the squeeze, because the tool waits to print how far it is.
class ToolSqueeze : public ToolOnTerminal {
  protected:
    // 25 records of a million bytes, of which 24 are kept.
    void FillLarge() {
        std::string lines;
        for (int i = 0; i < 25; ++i) {
            lines += std::string(1000000, static_cast<char>('a' + i)) + "\n";
        }
        ASSERT_EQ(Append(lines).exitStatus, 0);
    }
    // Starts the squeeze and returns when it has begun its copy, held by the terminal.
    void StartHeld() {
        FillLarge();
        m_terminal = std::make_unique<PseudoTerminal>();
        m_terminal->HoldOutput();
        ChildOptions options = PipedOptions(ClearArguments("2", "squeeze"));
        options.inputPath = options.errorPath = m_terminal->Name();
        m_child = std::make_unique<ChildProcess>(options);
        EXPECT_TRUE(WaitUntilFileHolds(Temporary()));
    }
    void ExpectCleared() {
        std::string firstBytes;
        const std::string lines = Cat();
        for (std::size_t at = 0; at < lines.size(); at = lines.find('\n', at) + 1) {
            firstBytes += lines[at];
        }
        EXPECT_EQ(firstBytes, "bcdefghijklmnopqrstuvwxy");
    }
};

TEST_F(ToolSqueeze, TellsItsProgressOnATerminal) {
    FillLarge();
    Start(ClearArguments("2", "squeeze"));
    const ToolRun run = FinishOnTerminal();
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_TRUE(run.err.starts_with("\r\033[Kcopied 0.0 of 24.0 MB")) << run;
    EXPECT_TRUE(run.err.ends_with("\r\033[Kcopied 24.0 of 24.0 MB, waiting for the disk\r\033[K"))
        << run;
    ExpectPrinted(run, "oldest revision      1 -> 2\n");
}

TEST_F(ToolSqueeze, TellsNoProgressElsewhereOrWhereTheUserSteersTheLog) {
    FillLarge();
    EXPECT_EQ(Clear("2", "squeeze").err, "");
    m_environment.push_back("K9SYS_LOG_FILE=" + File("library.log"));
    Start(ClearArguments("3", "squeeze"));
    const ToolRun run = FinishOnTerminal();
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.err, "");
}

TEST_F(ToolSqueeze, IsFinishedAfterAnInterrupt) {
    StartHeld();
    m_child->Interrupt();
    m_terminal->ReleaseOutput();
    const ToolRun run = FinishOnTerminal();
    EXPECT_EQ(run.exitStatus, 130) << run;
    EXPECT_TRUE(run.err.ends_with(
        "\r\033[Kcopied 24.0 of 24.0 MB, waiting for the disk; SIGINT: finishing the squeeze, once "
        "more ends it here\r\033[Kk9repl clear: interrupted by SIGINT; the clear is done all the "
        "same\n"))
        << run;
    ExpectPrinted(run, "oldest revision      1 -> 2\n");
    EXPECT_FALSE(Exists(Temporary()));
    ExpectCleared();
}

TEST_F(ToolSqueeze, WhatAKilledOneLeavesIsExplainedAndRemoved) {
    StartHeld();
    m_child->Kill();
    EXPECT_EQ(m_child->Wait(), (ChildEnd{0, kKillSignal}));
    ExpectCleared();  // the clear revision was first
    EXPECT_EQ(Stat("temporaryFile"), AsJson(Temporary()));
    const ToolRun again = Clear("2", "squeeze");
    EXPECT_EQ(again.exitStatus, 1);
    EXPECT_NE(again.err.find("is in the way, the unfinished copy of a squeeze that was cut off"),
              std::string::npos)
        << again;
    std::filesystem::remove(Temporary());
    EXPECT_EQ(Clear("2", "squeeze").exitStatus, 0);
    ExpectCleared();
    EXPECT_LT(FileSize(StorageFile()), 24100000);
}

}  // namespace
}  // namespace k9erepl::test
