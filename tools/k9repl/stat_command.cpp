// The stat command: asks the storage and its files, prints one fact a line or one JSON object.
#include "stat_command.h"

#include <fmt/format.h>

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>

#include "conn_string.h"
#include "index_facts.h"
#include "output.h"
#include "storage_handle.h"
#include "tool_error.h"

namespace k9repl {

namespace {

// One fact: its label for people, its key for programs, its value; null is not known.
struct Fact {
    const char* label;
    const char* key;
    nlohmann::ordered_json value;
};

std::uint32_t K9EREPL_CALL TakeRevision(const K9eReplRec* record, void* cbContext) {
    *static_cast<std::int64_t*>(cbContext) = record->rev;
    return RC_ENUM_STOP;
}

// The revision of the first record that is served; null in an empty storage.
nlohmann::ordered_json OldestRev(const StorageHandle& storage) {
    std::int64_t rev = 0;
    const std::uint32_t code = K9eReplStorageEnumRecords(
        storage.Get(), 0, std::numeric_limits<std::int64_t>::max(), &TakeRevision, &rev);
    if (rev == 0) {
        storage.Check(code, "read");
        return nullptr;
    }
    return rev;
}

template <typename T>
nlohmann::ordered_json OrNull(const std::optional<T>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json();
}

std::vector<Fact> Gather(const StorageHandle& storage, const std::string& conn) {
    std::uint32_t lifenum = 0;
    std::int64_t clearMark = 0;
    storage.Check(K9eReplStorageGetLifenum(storage.Get(), &lifenum), "ask the life number of");
    storage.Check(K9eReplStorageGetClearOldRev(storage.Get(), &clearMark), "ask the clear mark of");
    const std::string indexPath = IndexPath(conn);
    return {
        {"storage file", "file", StoragePath(conn)},
        {"index file", "indexFile", indexPath},
        {"next revision", "nextRev", storage.NextRev()},
        {"oldest revision", "oldestRev", OldestRev(storage)},
        {"life number", "lifeNumber", lifenum},
        {"clear mark", "clearMark", clearMark},
        {"storage file size", "fileSize", OrNull(FileSize(StoragePath(conn)))},
        {"index file size", "indexSize", OrNull(FileSize(indexPath))},
        {"blocks in the index", "blocks", OrNull(IndexedBlocks(indexPath))},
    };
}

std::string AsJson(const std::vector<Fact>& facts) {
    nlohmann::ordered_json json;
    for (const Fact& fact : facts) {
        json[fact.key] = fact.value;
    }
    // A path need not be UTF-8.
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

std::string AsText(const std::vector<Fact>& facts) {
    std::string text;
    for (const Fact& fact : facts) {
        std::string value = "none";
        if (fact.value.is_string()) {
            value = fact.value.get<std::string>();
        } else if (!fact.value.is_null()) {
            value = fact.value.dump();
        }
        text += fmt::format("{:<20} {}\n", fact.label, value);
    }
    return text;
}

}  // namespace

int RunStat(const StatOptions& options) {
    const StorageHandle storage(options.conn);
    const std::vector<Fact> facts = Gather(storage, options.conn);
    Output output(OnInterrupt::kStop);
    output.Write(options.json ? AsJson(facts) : AsText(facts));
    output.Finish();
    return kExitSuccess;
}

}  // namespace k9repl
