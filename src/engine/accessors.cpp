// The small accessors of the storage object: revisions, marks and the client's callbacks.
#include "engine/repl_storage.h"
#include "support/log.h"

namespace k9erepl {

u32 CK9eReplStorage::RefuseIfReadOnly(const char* call) const {
    if (!IsReadOnly()) {
        return RC_OK;
    }
    LOG_ERROR_CODE(RC_NOT_SUPPORTED, kLogStorage, "Storage is read-only;refused %s", call);
    return RC_NOT_SUPPORTED;
}

std::uint32_t CK9eReplStorage::GetNextRev(std::int64_t* out) {
    *out = m_nextRev;
    return RC_OK;
}

std::uint32_t CK9eReplStorage::SetLifenum(std::uint32_t lifenum) {
    if (u32 rc = RefuseIfReadOnly("SetLifenum"); rc != RC_OK) {
        return rc;
    }
    const Guard guard(m_lock);
    if (m_solid.IsOpen()) {
        if (u32 rc = m_solid.SetLifenum(lifenum); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to set lifenum %d to solid storage", lifenum);
            return rc;
        }
    }
    m_lifenum = lifenum;
    return RC_OK;
}

std::uint32_t CK9eReplStorage::GetLifenum(std::uint32_t* out) {
    const Guard guard(m_lock);
    *out = m_lifenum;
    return RC_OK;
}

std::uint32_t CK9eReplStorage::GetClearOldRev(std::int64_t* out) {
    const Guard guard(m_lock);
    *out = m_clearOldRev;
    return RC_OK;
}

std::uint32_t CK9eReplStorage::SetOnFlushCallback(K9eReplFlushCb cb, void* cbContext) {
    m_onFlush.Set(cb, cbContext);
    return RC_OK;
}

std::uint32_t CK9eReplStorage::SetOnWriteToFileCallback(K9eReplFlushCb cb, void* cbContext) {
    m_onWriteToFile.Set(cb, cbContext);
    return HasFile() ? m_solid.SetWrittenRevisionCallback(cb, cbContext) : RC_OK;
}

}  // namespace k9erepl
