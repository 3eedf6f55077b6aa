// The choice of the writer; see writer_factory.h. Called when a storage file is opened.
#include "writers/writer_factory.h"

#include <algorithm>
#include <cstddef>
#include <string>

#include "support/ignore_case.h"
#include "support/log.h"
#include "support/params.h"
#include "support/storage_exception.h"
#include "writers/async_storage_writer.h"
#include "writers/sync_storage_writer.h"

namespace k9erepl {

namespace {

constexpr std::size_t kMaxModeLength = 63;
constexpr i64 kBytesPerKilobyte = 1024;
constexpr i64 kMaxBufferCapacity = 4096 * kBytesPerKilobyte;

[[noreturn]] void Refuse() {
    throw K9eStorageException(RC_BAD_SIZE);
}

const char* DefaultUnless(bool given) {
    return given ? "" : "default";
}

bool ReadAsyncMode(const char* connStr) {
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
    LOG_INFO(kLogStorage, "Use %s async_mode '%s'", DefaultUnless(given), mode.c_str());
    return async;
}

u32 ReadAffinity(const char* connStr) {
    i32 mask = 0;
    const bool given = GetParamInt(connStr, "aux_affinity", &mask);
    LOG_INFO(kLogStorage, "Use %s async thread affinity 0x%X", DefaultUnless(given),
             static_cast<u32>(mask));
    return static_cast<u32>(mask);
}

u32 ReadBufferCapacity(const char* connStr) {
    i64 capacity = AsyncBuffer::kInnerCapacity;
    i32 kilobytes = 0;
    const bool given = GetParamInt(connStr, "async_buffer_size", &kilobytes);
    if (given) {
        capacity = kilobytes * kBytesPerKilobyte;
    }
    if (capacity < 0 || capacity > kMaxBufferCapacity) {
        std::string value;
        GetParam(connStr, "async_buffer_size", value);
        LOG_ERROR_CODE(RC_BAD_SIZE, kLogStorage,
                       "Value of 'async_buffer_size' (%s) is wrong; valid range is 0-4096 "
                       "(Kb);conn-str %s",
                       value.c_str(), connStr);
        Refuse();
    }
    if (capacity == 0) {
        LOG_WARNING(kLogStorage, "Async write buffer disabled;conn-str %s", connStr);
    } else {
        LOG_INFO(kLogStorage, "Use %s async_buffer_size %I64d bytes", DefaultUnless(given),
                 capacity);
    }
    return static_cast<u32>(capacity);
}

}  // namespace

std::unique_ptr<StorageWriter> CreateStorageWriter(const char* connStr, StorageFileState* state) {
    if (!ReadAsyncMode(connStr)) {
        return std::make_unique<SyncStorageWriter>(state);
    }
    AsyncStorageWriter::Options options;
    options.affinity = ReadAffinity(connStr);
    options.bufferCapacity = ReadBufferCapacity(connStr);
    return std::make_unique<AsyncStorageWriter>(state, options);
}

}  // namespace k9erepl
