// Truncation: the storage starts over, empty and with the first revision.
#include <new>

#include "engine/file_work_scope.h"
#include "engine/repl_storage.h"
#include "support/log.h"

namespace k9erepl {

std::uint32_t CK9eReplStorage::Truncate() {
    if (u32 rc = RefuseIfReadOnly("Truncate"); rc != RC_OK) {
        return rc;
    }
    const Guard guard(m_lock);
    if (!MayRemoveNow()) {
        return RC_IN_TRANSACTION;
    }
    if (HasFile()) {
        if (u32 rc = TruncateFile(); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to truncate solid storage");
            return Break(rc);
        }
    }
    Reset();
    SetState(StorageState::kOpen);
    return RC_OK;
}

u32 CK9eReplStorage::TruncateFile() {
    const FileWorkScope work(m_fileWork, FileWork::kWriting);
    try {
        // The index object stays: its file has no entries, as the empty block index.
        u32 rc = EmptyIndexFile();
        return rc == RC_OK ? m_solid.TruncateToClearRev(0, 0, 0) : rc;
    } catch (const std::bad_alloc&) {
        return RC_NO_MEMORY;
    }
}

}  // namespace k9erepl
