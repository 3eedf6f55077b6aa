// Prints the question and reads one line.
#include "confirmation.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "input_file.h"
#include "message.h"
#include "terminal.h"
#include "tool_error.h"

namespace k9repl {

namespace {

// Without its newline; what the input held when it ended counts as a line.
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

}  // namespace k9repl
