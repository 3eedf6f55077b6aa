// Shared by clear and truncate, which take records away for good: the question on the terminal
// before, the report afterwards, and the message about an interrupt.
#ifndef K9EREPL_K9REPL_REMOVAL_H
#define K9EREPL_K9REPL_REMOVAL_H

#include <string>

namespace k9repl {

// Throws ToolError where there is no terminal to ask on: standard error shows, standard input
// answers. `does` is what --yes does without asking: "truncates".
void RequireTerminal(const std::string& does);

// Asks `question` with "[y/N]" behind it, and goes on after "y" or "yes" in any case of letters.
// Throws ToolError after any other answer and when interrupted; says that nothing was changed.
void RequireConfirmation(const std::string& question);

// Prints `report` on standard output, an interrupt or not. When that fails it throws a ToolError
// that says `done`, too.
void PrintReport(const std::string& report, const std::string& done);

// The line that tells where the backup of the storage file at `storagePath` is; `made` tells that
// it was made just now.
std::string BackupLine(const std::string& storagePath, bool made);

// Throws InterruptError(addition) when a signal was caught.
void ThrowIfInterrupted(const std::string& addition);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_REMOVAL_H
