// Reads the facts from the storage, and builds the lines about them.
#include "storage_facts.h"

#include <fmt/format.h>

#include <limits>

#include "files_beside.h"

namespace k9repl {

namespace {

std::uint32_t K9EREPL_CALL TakeRevision(const K9eReplRec* record, void* cbContext) {
    *static_cast<std::int64_t*>(cbContext) = record->rev;
    return RC_ENUM_STOP;
}

std::optional<std::int64_t> OldestRev(const StorageHandle& storage) {
    std::int64_t rev = 0;
    const std::uint32_t code = K9eReplStorageEnumRecords(
        storage.Get(), 0, std::numeric_limits<std::int64_t>::max(), &TakeRevision, &rev);
    if (rev == 0) {
        storage.Check(code, "read");
        return std::nullopt;
    }
    return rev;
}

template <typename T>
std::string InWords(const std::optional<T>& value) {
    return value ? std::to_string(*value) : "none";
}

std::string ChangeLine(const char* label, const std::string& before, const std::string& after) {
    return FactLine(label, before + " -> " + after);
}

template <typename T>
std::string LineOfChange(const char* label, T before, T after) {
    return before == after ? std::string()
                           : ChangeLine(label, std::to_string(before), std::to_string(after));
}

}  // namespace

StorageFacts ReadFacts(const StorageHandle& storage) {
    StorageFacts facts;
    facts.nextRev = storage.NextRev();
    facts.oldestRev = OldestRev(storage);
    storage.Check(K9eReplStorageGetLifenum(storage.Get(), &facts.lifenum),
                  "ask the life number of");
    storage.Check(K9eReplStorageGetClearOldRev(storage.Get(), &facts.clearMark),
                  "ask the clear mark of");
    facts.fileSize = FileSize(storage.Path());
    return facts;
}

std::string DescribeChange(const StorageFacts& before, const StorageFacts& after) {
    return ChangeLine("oldest revision", InWords(before.oldestRev), InWords(after.oldestRev)) +
           ChangeLine("next revision", std::to_string(before.nextRev),
                      std::to_string(after.nextRev)) +
           LineOfChange("life number", before.lifenum, after.lifenum) +
           LineOfChange("clear mark", before.clearMark, after.clearMark) +
           ChangeLine("storage file size", InWords(before.fileSize), InWords(after.fileSize));
}

std::string FactLine(const std::string& label, const std::string& value) {
    return fmt::format("{:<20} {}\n", label, value);
}

}  // namespace k9repl
