// k9repl: appends to, prints and describes replication storages from the command line.
#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <string>

#include "command_line.h"
#include "interrupts.h"
#include "library_log.h"
#include "tool_error.h"

int main(int argc, char** argv) {
    std::string toolName = "k9repl";
    try {
        k9repl::CatchInterrupts();
        k9repl::LibraryLog::Instance().Catch();
        const int exitStatus = k9repl::RunCommandLine(argc, argv, &toolName);
        k9repl::LibraryLog::Instance().TellRest(toolName);
        return exitStatus;
    } catch (const k9repl::ToolError& error) {
        fmt::print(stderr, "{}: {}\n", toolName, error.what());
        return error.ExitStatus();
    } catch (const std::exception& error) {
        fmt::print(stderr, "{}: failed: {}\n", toolName, error.what());
        return k9repl::kExitFailure;
    }
}
