// The facts that a storage tells of itself: read by stat, and before and after their work by the
// commands that take records away.
#ifndef K9EREPL_K9REPL_STORAGE_FACTS_H
#define K9EREPL_K9REPL_STORAGE_FACTS_H

#include <cstdint>
#include <optional>
#include <string>

#include "storage_handle.h"

namespace k9repl {

struct StorageFacts {
    std::int64_t nextRev = 0;
    std::optional<std::int64_t> oldestRev;  // of the first record that is served, if any is
    std::uint32_t lifenum = 0;
    std::int64_t clearMark = 0;
    std::optional<std::uint64_t> fileSize;  // in bytes; of a storage without a file unknown
};

// Throws ToolError.
StorageFacts ReadFacts(const StorageHandle& storage);

// A line for each fact of a change, "oldest revision      1 -> 501"; life number and clear mark
// only when they changed.
std::string DescribeChange(const StorageFacts& before, const StorageFacts& after);

// "LABEL                VALUE" and a newline: how every command prints a fact.
std::string FactLine(const std::string& label, const std::string& value);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STORAGE_FACTS_H
