// Clearing old revisions: what a clear may do, its part in memory, and the index save that
// follows. Its part in the storage file is clearing_file.cpp.
#include <algorithm>
#include <new>

#include "engine/repl_storage.h"
#include "support/log.h"

namespace k9erepl {

namespace {

// Raises a flag until the end of a scope.
class RaisedFlag {
  public:
    explicit RaisedFlag(bool& flag) : m_flag(flag) { m_flag = true; }
    ~RaisedFlag() { m_flag = false; }
    RaisedFlag(const RaisedFlag&) = delete;
    RaisedFlag& operator=(const RaisedFlag&) = delete;

  private:
    bool& m_flag;
};

}  // namespace

// Not inside a transaction, and not from a callback in the middle of a flush or of another clear:
// records and file offsets must stay where those have found them.
bool CK9eReplStorage::MayRemoveNow() const {
    return m_transDepth == 0 && m_fileWork != FileWork::kWriting && !m_clearing;
}

// RC_OK when nothing stands in the way of a clear.
u32 CK9eReplStorage::RefuseToClear(bool inTransaction) const {
    if (State() != StorageState::kOpen) {
        LOG_ERROR_CODE(RC_WRONG_STATE, kLogStorage, "Failed to clear old rev;state %d",
                       StateForLog());
        return RC_WRONG_STATE;
    }
    if (inTransaction) {
        LOG_ERROR_CODE(RC_IN_TRANSACTION, kLogStorage, "Coundn't clear old rev in trans");
        return RC_IN_TRANSACTION;
    }
    return RC_OK;
}

std::uint32_t CK9eReplStorage::ClearOldRev(std::int64_t rev, std::uint32_t mode) {
    if (u32 rc = RefuseIfReadOnly("ClearOldRev"); rc != RC_OK) {
        return rc;
    }
    const Guard guard(m_lock);
    if (u32 rc = RefuseToClear(!MayRemoveNow()); rc != RC_OK) {
        return rc;
    }
    const auto clearMode = static_cast<ClearMode>(mode);
    if (clearMode == ClearMode::kMark) {
        return SetRevisionMark(rev);
    }
    i64 clearRev = rev;
    if (m_beginMoved && Squeezes(clearMode)) {
        // Even when nothing new goes: what was cleared logically leaves the file now.
        clearRev = std::max(i64{rev}, m_oldestRev);
    } else if (rev <= m_oldestRev) {
        return RC_OK;
    }
    if (m_blocks.Index().empty()) {
        return RC_OK;
    }
    const RaisedFlag clearing(m_clearing);
    try {
        return ClearBelow(clearRev, clearMode);
    } catch (const std::bad_alloc&) {
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogStorage, "Out of memory while clear old revs;rev %I64d",
                       clearRev);
        return Break(RC_NO_MEMORY);
    } catch (...) {
        SetState(StorageState::kBroken);
        throw;
    }
}

u32 CK9eReplStorage::SetRevisionMark(i64 rev) {
    if (m_solid.IsOpen()) {
        if (u32 rc = m_solid.SetClearOldRev(rev); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to set revision mark %d to solid storage",
                           static_cast<int>(rev));
            return rc;
        }
    }
    m_clearOldRev = rev;
    return RC_OK;
}

u32 CK9eReplStorage::ClearBelow(i64 rev, ClearMode mode) {
    if (!HasFile()) {
        return ClearInMemory(rev);
    }
    if (rev < m_nextRev) {
        if (u32 rc = FlushBeforeClear(rev); rc != RC_OK) {
            return rc;
        }
    }
    if (u32 rc = ClearInFile(rev, mode); rc != RC_OK) {
        return Break(rc);
    }
    SaveIndexAfterClear(mode);
    return RC_OK;
}

// What is kept is sought in the file, so everything must be there, except what callbacks of the
// flush commit behind a record that is kept. Callbacks may also leave the storage in a state in
// which nothing can be cleared.
u32 CK9eReplStorage::FlushBeforeClear(i64 rev) {
    i64 nextRev = 0;
    do {
        nextRev = m_nextRev;
        if (u32 rc = FlushNow(); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage,
                           "Cannot flush data before clear old revs;clear rev %I64d", rev);
            if (State() != StorageState::kBroken) {
                SetState(StorageState::kFlushFailed);
            }
            return rc;
        }
        if (u32 rc = RefuseToClear(m_transDepth > 0); rc != RC_OK) {
            return rc;
        }
    } while (m_flushedRev < rev && m_nextRev != nextRev);
    return RC_OK;
}

// Only whole blocks go: records below `rev` in the block that holds it are just not served.
u32 CK9eReplStorage::ClearInMemory(i64 rev) {
    if (rev >= m_nextRev) {
        ForgetEverything();
        return RC_OK;
    }
    const i64 holdingKey = m_blocks.FindHolding(rev)->first;
    while (m_blocks.Index().begin()->first < holdingKey) {
        m_blocks.DropFirst();
    }
    m_oldestRev = rev;
    // Also when no block went: a walk that is under way must pass the cleared records over.
    m_blocks.Touch();
    return RC_OK;
}

// The oldest revision becomes the one that a load of the emptied file would give.
void CK9eReplStorage::ForgetEverything() {
    m_blocks.EraseAll();
    m_oldestRev = m_nextRev - 1;
    m_beginMoved = false;
}

// Whether it had finished; it may still be when it could not be started.
bool CK9eReplStorage::RestartIndexIfFinished() {
    if (!m_index->IsFinished()) {
        return false;
    }
    LOG_ERROR(kLogStorage, "Index thread is finished; trying to restart");
    m_index->Stop();
    m_index->Start();
    return true;
}

void CK9eReplStorage::SaveIndexAfterClear(ClearMode mode) {
    RestartIndexIfFinished();
    // A save that cannot be had now is no failure of the clear: the index is only an aid.
    if (!m_index->IsFinished()) {
        if (!Squeezes(mode) && m_index->IsBusy()) {
            LOG_WARNING(kLogStorage, "Index thread is busy");
        } else {
            m_index->StartOver();
            m_index->RequestSave(m_blocks.Index(),
                                 Squeezes(mode) ? IndexSaveMode::kSync : IndexSaveMode::kAsync);
        }
    }
    m_indexedCount = m_blocks.Index().size();
}

}  // namespace k9erepl
