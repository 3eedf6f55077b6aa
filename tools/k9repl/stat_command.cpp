// The stat command: reads facts of the storage and its files, and prints them as one fact on each
// line or as one JSON object.
#include <fmt/format.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "conn_string.h"
#include "files_beside.h"
#include "format/index_file_format.h"
#include "library_log.h"
#include "output.h"
#include "storage_facts.h"
#include "storage_handle.h"
#include "tool_error.h"

namespace k9repl {

namespace {

// One fact: its label for people, its key for programs, and its value, null if it is not known.
struct Fact {
    const char* label;
    const char* key;
    nlohmann::ordered_json value;
};

template <typename T>
nlohmann::ordered_json OrNull(const std::optional<T>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json();
}

void AddFileBeside(std::vector<Fact>& facts, const std::optional<FileBeside>& file,
                   std::pair<const char*, const char*> pathNames,
                   std::pair<const char*, const char*> sizeNames) {
    if (file) {
        facts.push_back({pathNames.first, pathNames.second, file->path});
        facts.push_back({sizeNames.first, sizeNames.second, file->size});
    }
}

// Looks for damage in the whole file, also in the part that an index lets a load pass over. The
// load's own message about damage is dropped: this finds that damage, too.
std::optional<FileDamage> LookAtWholeFile(const StorageHandle& storage) {
    (void)LibraryLog::Instance().TakeBeginningWith(kDamageMessage);
    return FileSize(storage.Path()) ? FindDamage(storage.Path()) : std::nullopt;
}

void AddDamage(std::vector<Fact>& facts, const std::optional<FileDamage>& damage) {
    if (damage) {
        facts.push_back({"damage at offset", "damageOffset", damage->offset});
        facts.push_back({"last good revision", "lastGoodRev", damage->lastRev});
        facts.push_back({"revisions beyond", "beyond",
                         fmt::format("{} to {}", damage->beyondFrom, damage->beyondTo)});
    }
}

// The number of blocks that the index file lists; empty if the file cannot be read or has no valid
// header. The file is only an aid, so that is no error.
std::optional<std::uint32_t> IndexedBlocks(const std::string& path) {
    k9erepl::TIndexHeader header = {};
    std::ifstream file(path, std::ios::binary);
    if (!file.read(reinterpret_cast<char*>(&header), sizeof header) ||
        std::memcmp(header.magic, k9erepl::kIndexMagic, k9erepl::kIndexMagicSize) != 0 ||
        header.version != k9erepl::kIndexVersion) {
        return std::nullopt;
    }
    return header.count;
}

std::vector<Fact> Gather(const StorageHandle& storage, const std::string& conn) {
    const StorageFacts known = ReadFacts(storage);
    const std::string indexPath = IndexPath(conn);
    std::vector<Fact> facts = {
        {"storage file", "file", storage.Path()},
        {"index file", "indexFile", indexPath},
        {"next revision", "nextRev", known.nextRev},
        {"oldest revision", "oldestRev", OrNull(known.oldestRev)},
        {"life number", "lifeNumber", known.lifenum},
        {"clear mark", "clearMark", known.clearMark},
        {"storage file size", "fileSize", OrNull(known.fileSize)},
        {"index file size", "indexSize", OrNull(FileSize(indexPath))},
        {"blocks in the index", "blocks", OrNull(IndexedBlocks(indexPath))},
    };
    AddFileBeside(facts, FindBackup(storage.Path()), {"backup file", "backupFile"},
                  {"backup file size", "backupSize"});
    AddFileBeside(facts, FindTemporary(storage.Path()), {"temporary file", "temporaryFile"},
                  {"temporary file size", "temporarySize"});
    AddFileBeside(facts, FindDamagedTail(storage.Path()), {"damaged tail", "damagedTailFile"},
                  {"damaged tail size", "damagedTailSize"});
    return facts;
}

std::string AsJson(const std::vector<Fact>& facts) {
    nlohmann::ordered_json json;
    for (const Fact& fact : facts) {
        json[fact.key] = fact.value;
    }
    // A path may contain bytes that are no UTF-8.
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
        text += FactLine(fact.label, value);
    }
    return text;
}

}  // namespace

int RunStat(const StatOptions& options) {
    const StorageHandle storage(options.conn, Access::kRead);
    std::vector<Fact> facts = Gather(storage, options.conn);
    const std::optional<FileDamage> damage = LookAtWholeFile(storage);
    AddDamage(facts, damage);
    Output output(OnInterrupt::kStop);
    output.Write(options.json ? AsJson(facts) : AsText(facts));
    output.Finish();
    if (damage) {
        throw ToolError(Describe(*damage, storage.Path()), kExitDamaged);
    }
    return kExitSuccess;
}

}  // namespace k9repl
