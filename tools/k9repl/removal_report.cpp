// Words and prints the ends of clear and truncate.
#include "removal_report.h"

#include "interrupts.h"
#include "output.h"
#include "squeeze_files.h"
#include "storage_facts.h"
#include "tool_error.h"

namespace k9repl {

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
