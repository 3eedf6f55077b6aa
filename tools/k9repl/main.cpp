// k9repl: appends to, prints and describes replication storages from the command line.
#include <fmt/format.h>

#include <exception>
#include <string>

#include "command_line.h"
#include "interrupts.h"
#include "library_log.h"
#include "message.h"
#include "standard_streams.h"
#include "tool_error.h"

int main(int argc, char** argv) {
    k9repl::PrepareStandardStreams();
    std::string toolName = "k9repl";
    try {
        k9repl::CatchInterrupts();
        k9repl::LibraryLog::Instance().Catch();
        const int exitStatus = k9repl::RunCommandLine(argc, argv, &toolName);
        k9repl::LibraryLog::Instance().TellRest(toolName);
        return exitStatus;
    } catch (const k9repl::ToolError& error) {
        k9repl::PrintMessage(fmt::format("{}: {}\n", toolName, error.what()));
        return error.ExitStatus();
    } catch (const std::exception& error) {
        k9repl::PrintMessage(fmt::format("{}: failed: {}\n", toolName, error.what()));
        return k9repl::kExitFailure;
    }
}
