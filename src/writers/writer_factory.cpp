// The choice of the writer; see writer_factory.h. Called when a storage file is opened.
#include "writers/writer_factory.h"

#include <algorithm>
#include <cstddef>
#include <string>

#include "support/ignore_case.h"
#include "support/log.h"
#include "support/params.h"
#include "support/storage_exception.h"
#include "writers/sync_storage_writer.h"

namespace k9erepl {

namespace {

constexpr std::size_t kMaxModeLength = 63;

[[noreturn]] void Refuse() {
    throw K9eStorageException(RC_BAD_SIZE);
}

}  // namespace

std::unique_ptr<StorageWriter> CreateStorageWriter(const char* connStr, StorageFileState* state) {
    std::string mode;
    GetParam(connStr, "async_mode", mode);
    const bool given = !mode.empty();
    if (!given) {
        mode = "no";
    }
    mode.resize(std::min(mode.size(), kMaxModeLength));
    const bool async = EqualsIgnoringCase(mode, "yes");
    if (!async && !EqualsIgnoringCase(mode, "no")) {
        LOG_ERROR_CODE(RC_BAD_SIZE, kLogStorage, "Invalid 'async_mode' value (%s)", mode.c_str());
        Refuse();
    }
    LOG_INFO(kLogStorage, "Use %s async_mode '%s'", given ? "" : "default", mode.c_str());
    if (async) {
        LOG_ERROR_CODE(RC_BAD_SIZE, kLogStorage,
                       "The asynchronous writer is not available in this release;conn-str %s",
                       connStr);
        Refuse();
    }
    return std::make_unique<SyncStorageWriter>(state);
}

}  // namespace k9erepl
