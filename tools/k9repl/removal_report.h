// What clear and truncate share: the report, and how an interrupt is told.
#ifndef K9EREPL_K9REPL_REMOVAL_REPORT_H
#define K9EREPL_K9REPL_REMOVAL_REPORT_H

#include <string>

namespace k9repl {

// Prints `report` on standard output, an interrupt or not. When that fails it throws a ToolError
// that says `done`, too.
void PrintReport(const std::string& report, const std::string& done);

// The line that tells where the backup of the storage file at `storagePath` is; `made` tells that
// it was made just now.
std::string BackupLine(const std::string& storagePath, bool made);

// Throws InterruptError(addition) when a signal was caught.
void ThrowIfInterrupted(const std::string& addition);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_REMOVAL_REPORT_H
