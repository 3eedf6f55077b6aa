// Locking a storage file for its one writer; see the header.
#include "solid/writer_lock.h"

#include <k9erepl/storage.h>

#include <cassert>
#include <utility>

#include "platform/file_identity.h"
#include "platform/file_names.h"
#include "platform/system_error.h"
#include "support/log.h"
#include "support/yes_no.h"

namespace k9erepl {

using platform::File;
using platform::LockResult;

namespace {

[[nodiscard]] ResultCode CannotLock(const std::string& path) {
    LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot lock storage file '%s';sys-err %r",
                   path.c_str(), platform::LastSystemError());
    return RC_SYSTEM_ERROR;
}

// *same receives whether `path` still leads to `file`. It is false for a path that leads nowhere:
// opening that again gives the error.
[[nodiscard]] ResultCode IsNameOf(const File& file, const std::string& path, bool* same) {
    assert(file.IsLocked());
    platform::FileIdentity locked;
    platform::FileIdentity named;
    if (!file.GetIdentity(&locked)) {
        return CannotLock(path);
    }
    if (!platform::GetIdentity(path, &named)) {
        *same = false;
        return platform::LastSystemErrorIs(platform::SystemErrorKind::kNotFound) ? ResultCode{RC_OK}
                                                                                 : CannotLock(path);
    }
    *same = locked == named;
    return RC_OK;
}

}  // namespace

ResultCode ReadFileLock(const char* connStr, bool* wanted) {
    assert(wanted != nullptr);
    YesNo setting;
    const ResultCode rc = ReadYesNo(connStr, "file_lock", &setting);
    *wanted = !setting.given || setting.yes;
    if (rc == RC_OK) {
        LogYesNo("file_lock", setting);
    }
    return rc;
}

ResultCode LockForWriting(File& file, const std::string& path, NoLocks noLocks) {
    assert(file.IsOpen() && !path.empty());
    switch (file.TryLock()) {
        case LockResult::kTaken:
            break;
        case LockResult::kHeldByAnother:
            LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                           "Storage file is in use by another writer;file path '%s'", path.c_str());
            return RC_SYSTEM_ERROR;
        case LockResult::kNotSupported:
            if (noLocks == NoLocks::kWarn) {
                LOG_WARNING(kLogStorage,
                            "The file system has no locks, nothing keeps a second writer away;file "
                            "path '%s',sys-err %r",
                            path.c_str(), platform::LastSystemError());
            }
            break;
        case LockResult::kFailed:
            return CannotLock(path);
    }
    return RC_OK;
}

ResultCode OpenForWriting(const std::string& path, NoLocks noLocks, const FileOpener& open,
                          File* file) {
    assert(open != nullptr && file != nullptr && !file->IsOpen());
    constexpr int kAttempts = 100;  // each but the first follows a squeeze of another writer
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        File opened;
        ResultCode rc = open(&opened);
        if (rc == RC_OK) {
            rc = LockForWriting(opened, path, noLocks);
        }
        bool current = true;
        if (rc == RC_OK && opened.IsLocked()) {
            rc = IsNameOf(opened, path, &current);
        }
        if (rc != RC_OK) {
            return rc;
        }
        if (current) {
            *file = std::move(opened);
            return RC_OK;
        }
    }
    platform::SetLastSystemError(0);  // the path led to another file each time
    return CannotLock(path);
}

}  // namespace k9erepl
