// The facts that the library reports about a storage. stat reads them, and so do clear and truncate
// before and after their work.
#ifndef K9EREPL_K9REPL_STORAGE_FACTS_H
#define K9EREPL_K9REPL_STORAGE_FACTS_H

#include <cstdint>
#include <optional>
#include <string>

#include "storage_handle.h"

namespace k9repl {

struct StorageFacts {
    std::int64_t nextRev = 0;               // the revision that the next record gets, 1 or more
    std::optional<std::int64_t> oldestRev;  // of the first record that is served; empty: no record
    std::uint32_t lifenum = 0;
    std::int64_t clearMark = 0;             // a revision; 0 if none was set
    std::optional<std::uint64_t> fileSize;  // in bytes; empty for a storage without a file
};

// Throws ToolError.
StorageFacts ReadFacts(const StorageHandle& storage);

// One line for each fact before and after a change, such as "oldest revision      1 -> 501". Has
// lines for the life number and the clear mark only if they changed.
std::string DescribeChange(const StorageFacts& before, const StorageFacts& after);

// "LABEL                VALUE" and a newline. Every command prints facts in this form.
std::string FactLine(const std::string& label, const std::string& value);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STORAGE_FACTS_H
