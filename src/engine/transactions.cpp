// Transactions: beginning, inserting, committing and rolling back, and what follows a commit.
#include <algorithm>
#include <cassert>

#include "engine/repl_storage.h"
#include "support/log.h"
#include "support/nested_timing.h"

namespace k9erepl {

// In OnWriteToFile, called in the middle of a flush or a clear: the flush to disk that follows may
// fail, and what was committed meanwhile would go with it. The asynchronous writer calls
// OnWriteToFile on its own thread, which never gets here while a flush is under way.
bool CK9eReplStorage::FlushMayStillFail() const {
    return m_fileWork == FileWork::kWriting && m_solid.ForcesFlushes();
}

std::uint32_t CK9eReplStorage::BeginTransaction() {
    if (u32 rc = RefuseIfReadOnly("BeginTransaction"); rc != RC_OK) {
        return rc;
    }
    const Guard guard(m_lock);
    if (State() != StorageState::kOpen || FlushMayStillFail()) {
        LOG_ERROR_CODE(RC_WRONG_STATE, kLogStorage, "Failed to begin trans;state %d",
                       StateForLog());
        return RC_WRONG_STATE;
    }
    if (m_transDepth == 0) {
        return BeginOutermost();
    }
    if (m_rolledBack) {
        return RC_BEGIN_AFTER_ROLLBACK;
    }
    ++m_transDepth;
    return RC_OK;
}

u32 CK9eReplStorage::BeginOutermost() {
    m_rolledBack = false;
    m_transDepth = 1;
    m_transStartRev = m_nextRev;
    if (!m_blocks.Blocks().empty()) {
        m_transStartUsed = m_blocks.Newest().used;
    }
    m_transDataSize = 0;
    // A callback of a flush begins no transaction of the file: the flush has one open, and must be
    // able to go back to its own beginning.
    if (HasFile() && FileIsIdle()) {
        u32 rc = RC_OK;
        try {
            rc = m_solid.BeginTransaction();
        } catch (...) {
            SetState(StorageState::kBroken);
            throw;
        }
        if (rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to begin trans in solid storage");
            return Break(rc);
        }
    }
    LOG_INFO(kLogStorage, "TR_B");
    return RC_OK;
}

std::uint32_t CK9eReplStorage::Insert(K9eReplRec* rec) {
    if (u32 rc = RefuseIfReadOnly("Insert"); rc != RC_OK) {
        return rc;
    }
    const Guard guard(m_lock);
    if (State() != StorageState::kOpen || FlushMayStillFail()) {
        LOG_ERROR_CODE(RC_WRONG_STATE, kLogStorage, "Failed to insert;state %d", StateForLog());
        return RC_WRONG_STATE;
    }
    return InsertAt(rec, m_nextRev);
}

std::uint32_t CK9eReplStorage::InsertP(K9eReplRec* rec) {
    if (u32 rc = RefuseIfReadOnly("InsertP"); rc != RC_OK) {
        return rc;
    }
    const Guard guard(m_lock);
    if (State() != StorageState::kOpen || FlushMayStillFail()) {
        LOG_ERROR_CODE(RC_WRONG_STATE, kLogStorage, "Failed to insert prepared;state %d",
                       StateForLog());
        return RC_WRONG_STATE;
    }
    const i64 rev = rec->rev;
    if (rev < m_nextRev) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage, "Wrong rec rev %I64d, expected %I64d", rev,
                       m_nextRev.load());
        return RC_INVALID_ARG;
    }
    return InsertAt(rec, rev);
}

u32 CK9eReplStorage::InsertAt(K9eReplRec* rec, i64 rev) {
    if (rev > kMaxRev) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage, "No revision left;rev %I64d,maximum %I64d", rev,
                       kMaxRev);
        return RC_INVALID_ARG;
    }
    const bool implicit = m_transDepth == 0;
    if (implicit) {
        if (u32 rc = BeginTransaction(); rc != RC_OK) {
            return rc;
        }
    }
    // The revision is used up before the record is placed, and stays so when that fails.
    rec->rev = rev;
    m_nextRev.store(rev + 1, std::memory_order_release);
    return PlaceInTransaction(*rec, implicit);
}

u32 CK9eReplStorage::PlaceInTransaction(const K9eReplRec& rec, bool implicit) {
    m_inserter.dataCounter = &m_transDataSize;
    u32 rc = m_inserter.Place(rec, kUnknownOffset);
    if (implicit && rc == RC_OK) {
        rc = Commit();
    }
    if (implicit && rc != RC_OK) {
        Rollback();
    }
    return rc;
}

std::uint32_t CK9eReplStorage::Commit() {
    if (u32 rc = RefuseIfReadOnly("Commit"); rc != RC_OK) {
        return rc;
    }
    const Guard guard(m_lock);
    if (State() != StorageState::kOpen && State() != StorageState::kFlushFailed) {
        LOG_ERROR_CODE(RC_WRONG_STATE, kLogStorage, "Failed to commit;state %d", StateForLog());
        return RC_WRONG_STATE;
    }
    if (m_transDepth == 0) {
        RetryFlushOutsideTransaction();
        return RC_NO_TRANSACTION;
    }
    if (FlushMayStillFail()) {
        // An idle flush in the middle of the client's transaction: it could not be flushed here.
        LOG_ERROR_CODE(RC_WRONG_STATE, kLogStorage, "Failed to commit;state %d", StateForLog());
        return RC_WRONG_STATE;
    }
    --m_transDepth;
    if (m_rolledBack) {
        return RC_TRANS_ROLLED_BACK;
    }
    if (m_transDepth == 0) {
        if (u32 rc = CommitOutermost(); rc != RC_OK) {
            return rc;
        }
    }
    LOG_INFO(kLogStorage, "TR_C");
    return RC_OK;
}

u32 CK9eReplStorage::CommitOutermost() {
    if (HasFile()) {
        m_policy.CountCommit(m_settings.flushMode, m_transDataSize);
        if (FlushNeeded()) {
            const i64 startRev = m_transStartRev;
            const u64 startUsed = m_transStartUsed;
            if (u32 rc = Flush(); rc != RC_OK) {
                ReopenTransaction(startRev, startUsed);
                return FailFlushAtTop(rc);
            }
        }
        LeaveFlushFailed();
        SaveIndexIfGrown();
    } else {
        NotifyNoFlushCommit();
    }
    if (m_settings.MayEvict() && m_shrinkPending) {
        ShrinkCache();
    }
    // A callback may have begun the next transaction meanwhile.
    if (m_transDepth == 0) {
        m_transStartRev = 0;
        m_transStartUsed = 0;
    }
    return RC_OK;
}

// The flush failed: the client may commit again or roll back. What callbacks of the flush inserted
// meanwhile lies behind the transaction's records and becomes part of it.
void CK9eReplStorage::ReopenTransaction(i64 startRev, u64 startUsed) {
    ++m_transDepth;
    m_rolledBack = false;
    m_transStartRev = startRev;
    m_transStartUsed = startUsed;
}

void CK9eReplStorage::NotifyNoFlushCommit() {
    const i64 lastRev = m_nextRev - 1;
    NotifyFlushed(lastRev);
    m_onWriteToFile.Call(lastRev);
}

// Without a file a callback that commits is called again inside its own call: only the outermost
// call is timed.
void CK9eReplStorage::NotifyFlushed(i64 lastRev) {
    if (!m_onFlush.IsSet()) {
        return;
    }
    NestedTiming timing(m_timing, m_timeOnFlushCb, m_onFlushDepth);
    m_onFlush.Call(lastRev);
    timing.Stop();
}

void CK9eReplStorage::SaveIndexIfGrown() {
    const std::size_t count = m_blocks.Index().size();
    // In the middle of a flush entries have offsets that a failure would take back.
    if (!FileIsIdle() || count < m_indexedCount + m_settings.indexHint) {
        return;
    }
    // A save that cannot be had now is no failure of the commit: the index is only an aid.
    if (!RestartIndexIfFinished()) {
        if (m_index->IsBusy()) {
            LOG_WARNING(kLogStorage, "Index thread is busy");
        } else {
            m_index->RequestSave(m_blocks.Index(), IndexSaveMode::kAsync);
        }
    }
    m_indexedCount = count;
}

u32 CK9eReplStorage::ShrinkCache() {
    const u32 rc = m_blocks.Shrink(m_settings.cacheBlocks, m_flushedRev);
    if (rc == RC_OK) {
        m_shrinkPending = false;
    }
    return rc;
}

// A failed idle flush leaves no transaction to commit or roll back; this is its way out.
void CK9eReplStorage::RetryFlushOutsideTransaction() {
    if (State() == StorageState::kFlushFailed && FileIsIdle()) {
        Flush();
    }
}

void CK9eReplStorage::LeaveFlushFailed() {
    if (State() == StorageState::kFlushFailed) {
        SetState(StorageState::kOpen);
    }
}

std::uint32_t CK9eReplStorage::Rollback() {
    if (u32 rc = RefuseIfReadOnly("Rollback"); rc != RC_OK) {
        return rc;
    }
    const Guard guard(m_lock);
    if (State() != StorageState::kOpen && State() != StorageState::kFlushFailed) {
        LOG_ERROR_CODE(RC_WRONG_STATE, kLogStorage, "Failed to rollback;state %d", StateForLog());
        return RC_WRONG_STATE;
    }
    if (m_transDepth == 0) {
        RetryFlushOutsideTransaction();
        return RC_NO_TRANSACTION_TO_ROLLBACK;
    }
    m_transDepth = 0;
    if (m_rolledBack) {
        return RC_OK;
    }
    m_rolledBack = true;
    const i64 cut = m_transStartRev - 1;
    m_blocks.EraseIndexAfter(cut);
    if (u32 rc = m_blocks.EraseBlocksAfter(cut); rc != RC_OK) {
        return rc;
    }
    if (!m_blocks.Blocks().empty()) {
        K9eReplBlock& newest = m_blocks.Newest();
        assert(m_transStartUsed <= newest.used);
        newest.used = m_transStartUsed;
        newest.lastRev = cut;
        newest.flushedEnd = std::min(newest.flushedEnd, newest.used);
    }
    m_nextRev = m_transStartRev;
    LOG_INFO(kLogStorage, "TR_ROLL");
    SetState(StorageState::kOpen);
    ClearUndoneWrites();
    return RC_OK;
}

// A reopening could take what a failed flush left in the file for committed. A failure here was
// logged and changes nothing for the client: the next write or the close tries again.
void CK9eReplStorage::ClearUndoneWrites() {
    if (HasFile() && FileIsIdle()) {
        m_solid.ClearUndone();
    }
}

}  // namespace k9erepl
