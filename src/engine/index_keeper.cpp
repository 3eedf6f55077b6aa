// When the index file is saved, emptied, and its thread restarted; see the header.
#include "engine/index_keeper.h"

#include <cassert>
#include <new>

#include "support/log.h"
#include "support/storage_exception.h"

namespace k9erepl {

ResultCode IndexKeeper::Make(const char* connStr, IK9eReplDS& idle) {
    assert(m_object == nullptr && m_settings.HasFile() && !m_settings.readOnly);
    ResultCode rc = RC_NO_MEMORY;
    try {
        m_object = std::make_unique<IndexObject>(connStr, idle, m_settings.blockSize,
                                                 m_settings.flushTimeout);
        return RC_OK;
    } catch (const K9eStorageException& e) {
        rc = e.Code();
    } catch (const std::bad_alloc&) {
        rc = RC_NO_MEMORY;
    }
    LOG_ERROR_CODE(rc, kLogStorage, "Cannot create index object;conn-str %s", connStr);
    return rc;
}

void IndexKeeper::EndWriting() {
    if (m_object != nullptr) {
        m_object->EndWriting();
    }
}

void IndexKeeper::LeaveToParent() {
    if (m_object != nullptr) {
        m_object->LeaveToParent();
    }
}

ResultCode IndexKeeper::Start() {
    if (m_object == nullptr) {
        return RC_OK;
    }
    if (ResultCode rc = m_object->Start(); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = m_object->RequestSave(m_blocks.Index(), IndexSaveMode::kSync);
        rc != RC_OK) {
        return rc;
    }
    m_savedCount = m_blocks.Index().size();
    return RC_OK;
}

void IndexKeeper::Stop() {
    if (m_object != nullptr) {
        m_object->Stop();
    }
}

void IndexKeeper::SaveGrown(std::size_t count) {
    assert(m_object != nullptr);
    if (!RestartIfFinished()) {
        if (m_object->IsBusy()) {
            LOG_WARNING(kLogStorage, "Index thread is busy");
        } else {
            // Dropped: a failure ends the thread, and the next save restarts it.
            (void)m_object->RequestSave(m_blocks.Index(), IndexSaveMode::kAsync);
        }
    }
    m_savedCount = count;
}

void IndexKeeper::SaveAfterClear(bool squeezed) {
    assert(m_object != nullptr);
    RestartIfFinished();
    if (!m_object->IsFinished()) {
        if (!squeezed && m_object->IsBusy()) {
            LOG_WARNING(kLogStorage, "Index thread is busy");
        } else {
            m_object->StartOver();
            // Dropped: the clear has succeeded, and without the index a load only reads more.
            (void)m_object->RequestSave(m_blocks.Index(),
                                        squeezed ? IndexSaveMode::kSync : IndexSaveMode::kAsync);
        }
    }
    m_savedCount = m_blocks.Index().size();
}

bool IndexKeeper::RestartIfFinished() {
    assert(m_object != nullptr);
    if (!m_object->IsFinished()) {
        return false;
    }
    LOG_ERROR(kLogStorage, "Index thread is finished; trying to restart");
    m_object->Stop();
    // Dropped: a failure is logged, and IsFinished() says so.
    (void)m_object->Start();
    return true;
}

ResultCode IndexKeeper::Empty() {
    if (m_object == nullptr) {
        return RC_WRONG_STATE;
    }
    if (ResultCode rc = m_object->Empty(); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to empty index file '%s'",
                       m_object->Path().c_str());
        return rc;
    }
    return RC_OK;
}

}  // namespace k9erepl
