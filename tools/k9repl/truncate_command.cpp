// The truncate command: asks the user, truncates the storage and prints what changed.
#include <fmt/format.h>

#include "commands.h"
#include "conn_string.h"
#include "files_beside.h"
#include "removal.h"
#include "storage_facts.h"
#include "storage_handle.h"
#include "tool_error.h"

namespace k9repl {

namespace {

// Asks before the storage is opened, so that other processes can use it meanwhile.
void AskFirst(const std::string& path) {
    RequireTerminal("truncates");
    // If there is no storage file, do not ask: opening the storage will fail.
    if (const auto size = FileSize(path)) {
        RequireConfirmation(
            fmt::format("Throw away everything in the storage '{}' ({} bytes)?", path, *size));
    }
}

}  // namespace

int RunTruncate(const TruncateOptions& options) {
    if (!options.yes) {
        AskFirst(StoragePath(options.conn));
    }
    StorageHandle storage(options.conn, Access::kWrite);
    storage.RequireFile("done to");
    const StorageFacts before = ReadFacts(storage);
    ThrowIfInterrupted("; nothing was changed");
    storage.Check(K9eReplStorageTruncate(storage.Get()), "truncate");
    StorageFacts after = ReadFacts(storage);
    storage.Close();
    after.fileSize = FileSize(storage.Path());
    PrintReport(FactLine("truncated", "everything is thrown away") + DescribeChange(before, after) +
                    BackupLine(storage.Path(), false),
                "the truncation is done");
    ThrowIfInterrupted("; the truncation is done all the same");
    return kExitSuccess;
}

}  // namespace k9repl
