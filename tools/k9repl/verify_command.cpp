// The verify command: checks the storage file and prints what it found.
#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <string>

#include "commands.h"
#include "conn_string.h"
#include "files_beside.h"
#include "output.h"
#include "storage_check.h"
#include "storage_facts.h"
#include "support/memory_path.h"
#include "tool_error.h"

namespace k9repl {

namespace {

// How a state is shown: a key for programs, a label for people and an exit status for the shell.
struct StateWords {
    const char* key;
    const char* label;
    int exitStatus;
};

StateWords WordsOf(StorageState state) {
    switch (state) {
        case StorageState::kTorn:
            return {"torn", "torn end", kExitTornEnd};
        case StorageState::kDamaged:
            return {"damaged", "damage in the middle", kExitDamaged};
        case StorageState::kSound:
            break;
    }
    return {"sound", "sound", kExitSuccess};
}

std::string AsJson(const std::string& path, const StorageCheck& check) {
    nlohmann::ordered_json json = {{"file", path},
                                   {"state", WordsOf(check.state).key},
                                   {"fileSize", check.fileSize},
                                   {"commitBlocks", check.commitBlocks},
                                   {"records", check.records},
                                   {"lastRev", check.lastRev},
                                   {"clearRev", check.clearRev},
                                   {"dataEnd", check.dataEnd},
                                   {"stopOffset", check.stopOffset},
                                   {"abandonedBytes", check.abandonedBytes}};
    if (check.state == StorageState::kDamaged) {
        json["beyondFrom"] = check.beyondFrom;
        json["beyondTo"] = check.beyondTo;
    }
    if (const auto tail = FindDamagedTail(path)) {
        json["damagedTailFile"] = tail->path;
        json["damagedTailSize"] = tail->size;
    }
    // A path may contain bytes that are no UTF-8.
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

std::string AsText(const std::string& path, const StorageCheck& check) {
    std::string text = FactLine("storage file", path) +
                       FactLine("state", WordsOf(check.state).label) +
                       FactLine("last good revision", std::to_string(check.lastRev)) +
                       FactLine("records", std::to_string(check.records)) +
                       FactLine("commit blocks", std::to_string(check.commitBlocks)) +
                       FactLine("end of the data", std::to_string(check.dataEnd));
    if (check.state != StorageState::kSound) {
        text += FactLine("broken at offset", std::to_string(check.stopOffset)) +
                FactLine("bytes abandoned", std::to_string(check.abandonedBytes));
    }
    if (check.state == StorageState::kDamaged) {
        text +=
            FactLine("revisions beyond", fmt::format("{} to {}", check.beyondFrom, check.beyondTo));
    }
    if (const auto tail = FindDamagedTail(path)) {
        text += FactLine("damaged tail", Describe(*tail));
    }
    return text;
}

}  // namespace

int RunVerify(const VerifyOptions& options) {
    const std::string path = StoragePath(options.conn);
    if (path.empty() || k9erepl::IsMemoryPath(path)) {
        throw ToolError("there is no storage file to verify: the connection string names none");
    }
    if (const std::string lost = MissingButBackedUp(path); !lost.empty()) {
        throw ToolError(lost);
    }
    const StorageCheck check = CheckStorageFile(path);
    Output output(OnInterrupt::kStop);
    output.Write(options.json ? AsJson(path, check) : AsText(path, check));
    output.Finish();
    return WordsOf(check.state).exitStatus;
}

}  // namespace k9repl
