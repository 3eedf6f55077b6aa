// Removing what is no longer needed. This release empties storages without a file; everything that
// would change a storage file is refused, and says so.
#include "engine/repl_storage.h"
#include "support/log.h"

namespace k9erepl {

std::uint32_t CK9eReplStorage::Truncate() {
    const Guard guard(m_lock);
    if (m_transDepth > 0) {
        return RC_IN_TRANSACTION;
    }
    if (HasFile()) {
        LOG_ERROR_CODE(RC_NOT_SUPPORTED, kLogStorage,
                       "Truncation of a storage with a file is not supported;conn-str %s",
                       m_connStr.c_str());
        return RC_NOT_SUPPORTED;
    }
    Reset();
    SetState(StorageState::kOpen);
    return RC_OK;
}

std::uint32_t CK9eReplStorage::ClearOldRev(std::int64_t rev, std::uint32_t mode) {
    const Guard guard(m_lock);
    LOG_ERROR_CODE(RC_NOT_SUPPORTED, kLogStorage,
                   "Clearing old revisions is not supported;rev %I64d,mode %u", i64{rev},
                   u32{mode});
    return RC_NOT_SUPPORTED;
}

}  // namespace k9erepl
