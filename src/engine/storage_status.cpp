// The changes of a storage's condition; see the header.
#include "engine/storage_status.h"

#include <cassert>

#include "support/log.h"

namespace k9erepl {

ResultCode StorageStatus::Refuse(const char* event) const {
    LOG_ERROR_CODE(RC_WRONG_STATE, kLogStorage, "%s;state %d", event, StateForLog());
    return RC_WRONG_STATE;
}

ResultCode StorageStatus::Break(ResultCode rc) {
    assert(rc != RC_OK);
    Set(StorageState::kBroken);
    return rc;
}

void StorageStatus::EnterFlushFailed() {
    if (State() != StorageState::kBroken) {
        Set(StorageState::kFlushFailed);
    }
}

ScopedValue<bool> StorageStatus::BeginClear() {
    assert(MayRemove());
    return {m_clearing, true};
}

}  // namespace k9erepl
