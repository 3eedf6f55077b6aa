// Prints the question and reads the answer; prints what clear and truncate have done.
#include "removal.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "files_beside.h"
#include "interrupts.h"
#include "output.h"
#include "storage_facts.h"
#include "streams.h"
#include "tool_error.h"

namespace k9repl {

namespace {

// Reads a line and returns it without its newline. Bytes before the end of the input count as a
// line. Throws ToolError, also on an interrupt.
std::string ReadAnswer() {
    constexpr std::size_t kAnswerMax = 1000;
    InputFile input("-");
    std::string answer;
    InputState state = InputState::kData;
    while (state == InputState::kData && answer.find('\n') == std::string::npos &&
           answer.size() < kAnswerMax) {
        char bytes[100];
        std::size_t got = 0;
        state = input.Read(bytes, sizeof bytes, &got);
        answer.append(bytes, state == InputState::kData ? got : 0);
    }
    if (state == InputState::kInterrupted) {
        PrintMessage("\n");
        throw InterruptError("; nothing was changed");
    }
    return answer.substr(0, answer.find('\n'));
}

}  // namespace

void RequireTerminal(const std::string& does) {
    if (!StandardInputIsTerminal() || !StandardErrorIsTerminal()) {
        throw ToolError(
            fmt::format("there is no terminal to ask for confirmation on; --yes {} without asking; "
                        "nothing was changed",
                        does),
            kExitUsage);
    }
}

void RequireConfirmation(const std::string& question) {
    PrintMessage(question + " [y/N] ");
    std::string answer = ReadAnswer();
    std::transform(answer.begin(), answer.end(), answer.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (answer != "y" && answer != "yes") {
        throw ToolError("not confirmed; nothing was changed");
    }
}

void PrintReport(const std::string& report, const std::string& done) {
    try {
        Output output(OnInterrupt::kFinish);
        output.Write(report);
        output.Finish();
    } catch (const ToolError& error) {
        throw ToolError(std::string(error.what()) + "; " + done);
    }
}

std::string BackupLine(const std::string& storagePath, bool made) {
    const auto backup = FindBackup(storagePath);
    if (!backup) {
        return FactLine("backup file", "none");
    }
    return FactLine("backup file", Describe(*backup) + (made ? "" : ", of an earlier squeeze"));
}

void ThrowIfInterrupted(const std::string& addition) {
    if (InterruptSignal() != 0) {
        throw InterruptError(addition);
    }
}

}  // namespace k9repl
