// What clear and truncate, which remove records for good, have in common: the question on the
// terminal before, the report afterwards, and the message about an interrupt.
#ifndef K9EREPL_K9REPL_REMOVAL_H
#define K9EREPL_K9REPL_REMOVAL_H

#include <string>

namespace k9repl {

// Throws ToolError if there is no terminal to ask on: standard error shows the question, standard
// input gives the answer. `does` says what --yes does without asking, such as "truncates".
void RequireTerminal(const std::string& does);

// Asks `question`, followed by "[y/N]", and returns after "y" or "yes" in any case of letters.
// After any other answer, and on an interrupt, throws a ToolError that says that nothing was
// changed.
void RequireConfirmation(const std::string& question);

// Prints `report` on standard output, even after an interrupt. If that fails, throws a ToolError
// whose sentence ends with `done`.
void PrintReport(const std::string& report, const std::string& done);

// The line that says where the backup of the storage file at `storagePath` is. `made` is true if
// the command has just made it.
std::string BackupLine(const std::string& storagePath, bool made);

// Throws InterruptError(addition) if a signal was caught.
void ThrowIfInterrupted(const std::string& addition);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_REMOVAL_H
