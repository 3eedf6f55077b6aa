// The client's numbers and their way into the file; see the header.
#include "engine/client_marks.h"

#include <cassert>

#include "support/log.h"

namespace k9erepl {

ResultCode ClientMarks::SetLifenum(u32 lifenum) {
    if (m_file.IsOpen()) {
        if (ResultCode rc = m_file.SetLifenum(lifenum); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to set lifenum %d to solid storage", lifenum);
            return rc;
        }
    }
    m_lifenum = lifenum;
    return RC_OK;
}

ResultCode ClientMarks::SetClearOldRev(i64 rev) {
    if (m_file.IsOpen()) {
        if (ResultCode rc = m_file.SetClearOldRev(rev); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to set revision mark %d to solid storage",
                           static_cast<int>(rev));
            return rc;
        }
    }
    m_clearOldRev = rev;
    return RC_OK;
}

ResultCode ClientMarks::Read(const char* connStr) {
    assert(m_file.IsOpen());
    if (ResultCode rc = m_file.GetLifenum(&m_lifenum); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to get lifenum from solid storage;conn-str %s",
                       connStr);
        return rc;
    }
    if (ResultCode rc = m_file.GetClearOldRev(&m_clearOldRev); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Failed to get revision mark from solid storage;conn-str %s", connStr);
        return rc;
    }
    return RC_OK;
}

void ClientMarks::Reset() {
    m_lifenum = 0;
    m_clearOldRev = 0;
}

}  // namespace k9erepl
