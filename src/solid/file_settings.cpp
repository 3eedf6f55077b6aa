// Reading the file settings; see the header.
#include "solid/file_settings.h"

#include <k9erepl/storage.h>

#include <cassert>

#include "solid/storage_file_admin.h"
#include "solid/writer_lock.h"
#include "support/log.h"
#include "support/yes_no.h"

namespace k9erepl {

namespace {

enum class WhenAbsent {
    kTellDefault,
    kSayNothing,  // so the logs of those who do not use the setting do not change
};

[[nodiscard]] ResultCode ReadSwitch(const char* connStr, const char* key, WhenAbsent whenAbsent,
                                    bool* on) {
    assert(connStr != nullptr && on != nullptr);
    YesNo setting;
    const ResultCode rc = ReadYesNo(connStr, key, &setting);
    *on = setting.yes;
    if (rc != RC_OK) {
        return rc;
    }
    LogYesNo(key, setting);
    if (!setting.given && whenAbsent == WhenAbsent::kTellDefault) {
        LOG_INFO(kLogStorage, "Use default %s 'no'", key);
    }
    return RC_OK;
}

[[nodiscard]] ResultCode ReadSizes(const char* connStr, StorageFileState* state) {
    bool given = false;
    state->fileInitialSize = GetMebibytesParam(connStr, "file_initial_size", &given);
    if (state->fileInitialSize < 0) {
        LOG_ERROR_CODE(RC_BAD_SIZE, kLogStorage,
                       "Invalid 'file_initial_size' value (%I64d);conn-str %s",
                       state->fileInitialSize, connStr);
        return RC_BAD_SIZE;
    }
    state->fileSizeDelta = GetMebibytesParam(connStr, "file_size_delta", &given);
    if (state->fileSizeDelta < 0) {
        LOG_ERROR_CODE(RC_BAD_SIZE, kLogStorage,
                       "Invalid 'file_size_delta' value (%I64d);conn-str %s", state->fileSizeDelta,
                       connStr);
        return RC_BAD_SIZE;
    }
    if (given) {
        LOG_INFO(kLogStorage, "Use %s %I64d", "file_size_delta", state->fileSizeDelta);
    }
    return RC_OK;
}

}  // namespace

ResultCode ReadFileSettings(const char* connStr, StorageFileState* state, bool* fileLock) {
    if (ResultCode rc =
            ReadSwitch(connStr, "force_flush", WhenAbsent::kTellDefault, &state->forceFlush);
        rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc =
            ReadSwitch(connStr, "commit_barrier", WhenAbsent::kSayNothing, &state->commitBarrier);
        rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc =
            ReadSwitch(connStr, "write_through", WhenAbsent::kTellDefault, &state->writeThrough);
        rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = ReadFileLock(connStr, fileLock); rc != RC_OK) {
        return rc;
    }
    return ReadSizes(connStr, state);
}

}  // namespace k9erepl
