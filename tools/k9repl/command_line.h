// The command line: parses it and runs the command that it names. Called by main alone.
#ifndef K9EREPL_K9REPL_COMMAND_LINE_H
#define K9EREPL_K9REPL_COMMAND_LINE_H

#include <string>

namespace k9repl {

// Runs the command and returns the exit status. *toolName receives "k9repl" or "k9repl append" as
// soon as it is known, for messages. A wrong command line is explained on standard error and
// answers kExitUsage; every other failure is thrown as a ToolError.
int RunCommandLine(int argc, const char* const* argv, std::string* toolName);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_COMMAND_LINE_H
