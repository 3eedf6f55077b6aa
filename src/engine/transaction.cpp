// The levels of a transaction, its commit and its way back; see the header.
#include "engine/transaction.h"

#include <cassert>

#include "engine/revision.h"
#include "support/log.h"

namespace k9erepl {

ResultCode Transaction::BeginOutermost() {
    assert(m_status.IsOpen() && !IsOpen());
    m_rolledBack = false;
    m_depth = 1;
    m_start = {m_blocks.NextRev(), m_blocks.NewestUsed()};
    m_dataSize = 0;
    // When a callback of a flush begins a transaction, none is begun in the file: the flush has one
    // open there and must be able to go back to its own beginning.
    if (m_settings.HasFile() && m_status.FileIsIdle()) {
        ResultCode rc = RC_OK;
        try {
            rc = m_file.BeginTransaction();
        } catch (...) {
            m_status.Set(StorageState::kBroken);
            throw;
        }
        if (rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to begin trans in solid storage");
            return m_status.Break(rc);
        }
    }
    LOG_INFO(kLogStorage, "TR_B");
    return RC_OK;
}

ResultCode Transaction::InsertP(K9eReplRec* rec) {
    if (ResultCode rc = m_status.RefuseUnless(MayChange(), "Failed to insert prepared");
        rc != RC_OK) {
        return rc;
    }
    const i64 rev = rec->rev;
    if (rev < m_blocks.NextRev()) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage, "Wrong rec rev %I64d, expected %I64d", rev,
                       m_blocks.NextRev());
        return RC_INVALID_ARG;
    }
    return InsertAt(rec, rev);
}

ResultCode Transaction::InsertAlone(K9eReplRec* rec, i64 rev) {
    if (rev > kMaxRev) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage, "No revision left;rev %I64d,maximum %I64d", rev,
                       kMaxRev);
        return RC_INVALID_ARG;
    }
    assert(!IsOpen());
    if (ResultCode rc = BeginOutermost(); rc != RC_OK) {
        return rc;
    }
    ResultCode rc = Place(rec, rev);
    if (rc == RC_OK) {
        rc = Commit();
    }
    if (rc != RC_OK) {
        // Dropped: the client gets the code that says why the record was not taken.
        (void)Rollback();
    }
    return rc;
}

ResultCode Transaction::Commit() {
    if (ResultCode rc = m_status.RefuseUnless(m_status.MayEnd(), "Failed to commit"); rc != RC_OK) {
        return rc;
    }
    if (!IsOpen()) {
        RetryFlush();
        return RC_NO_TRANSACTION;
    }
    // A callback of an idle flush may come in the middle of the client's transaction, which could
    // not be flushed now.
    if (ResultCode rc = m_status.RefuseUnless(!m_flusher.MayStillFail(), "Failed to commit");
        rc != RC_OK) {
        return rc;
    }
    --m_depth;
    if (m_rolledBack) {
        return RC_TRANS_ROLLED_BACK;
    }
    if (!IsOpen()) {
        if (ResultCode rc = CommitOutermost(); rc != RC_OK) {
            return rc;
        }
    }
    LOG_INFO(kLogStorage, "TR_C");
    return RC_OK;
}

ResultCode Transaction::CommitOutermost() {
    assert(!IsOpen() && !m_rolledBack);
    if (m_settings.HasFile()) {
        m_flusher.CountCommit(m_dataSize);
        if (m_flusher.FlushNeededAtCommit()) {
            if (ResultCode rc = FlushDue(); rc != RC_OK) {
                return rc;
            }
        }
        m_status.LeaveFlushFailed();
        // In the middle of a flush entries have offsets that a failure would take back.
        if (m_status.FileIsIdle()) {
            m_index.SaveIfGrown();
        }
    } else {
        m_flusher.NotifyInMemory(m_blocks.NextRev() - 1);
    }
    m_flusher.ShrinkCacheIfPending();
    // A callback may have begun the next transaction meanwhile.
    if (!IsOpen()) {
        m_start = {};
    }
    return RC_OK;
}

// When the flush fails, the client may commit again or roll back. What callbacks of the flush
// inserted meanwhile lies behind the transaction's records and becomes part of it.
ResultCode Transaction::FlushDue() {
    assert(!IsOpen() && m_settings.HasFile());
    const Start start = m_start;
    const ResultCode rc = m_flusher.Flush(LastCommittedRev());
    if (rc == RC_OK) {
        return RC_OK;
    }
    ++m_depth;
    m_rolledBack = false;
    m_start = start;
    return m_flusher.FailAtTop(rc);
}

// A failed idle flush leaves no transaction to commit or roll back, so both calls try the flush
// again.
void Transaction::RetryFlush() {
    assert(!IsOpen());
    if (m_status.State() == StorageState::kFlushFailed) {
        // Dropped: a failure is logged and leaves the state as it is.
        (void)m_flusher.Flush(LastCommittedRev());
    }
}

ResultCode Transaction::Rollback() {
    if (ResultCode rc = m_status.RefuseUnless(m_status.MayEnd(), "Failed to rollback");
        rc != RC_OK) {
        return rc;
    }
    if (!IsOpen()) {
        RetryFlush();
        return RC_NO_TRANSACTION_TO_ROLLBACK;
    }
    m_depth = 0;
    if (m_rolledBack) {
        return RC_OK;
    }
    m_rolledBack = true;
    assert(m_start.rev > 0 && m_start.rev <= m_blocks.NextRev());
    if (ResultCode rc = m_blocks.CutBackTo(m_start.rev - 1, m_start.used); rc != RC_OK) {
        return rc;
    }
    m_blocks.SetNextRev(m_start.rev);
    LOG_INFO(kLogStorage, "TR_ROLL");
    m_status.Set(StorageState::kOpen);
    m_flusher.ClearUndoneWrites();
    return RC_OK;
}

void Transaction::FlushForTheLastTime() {
    const i64 nextRev = m_blocks.NextRev();
    if (m_flusher.Flush(LastCommittedRev()) != RC_OK || m_blocks.NextRev() == nextRev) {
        return;
    }
    // With callbacks on, the flushes might never end.
    m_flusher.Silence();
    // Dropped: a failure is logged, and no client is left to try again.
    (void)m_flusher.Flush(LastCommittedRev());
}

void Transaction::BlockWasCut(i64 nextKey, u64 cutBytes) {
    if (IsOpen() && nextKey >= m_start.rev) {
        assert(cutBytes <= m_start.used);
        m_start.used -= cutBytes;
    }
}

void Transaction::Reset() {
    m_depth = 0;
    m_rolledBack = false;
    m_start = {};
    m_dataSize = 0;
}

}  // namespace k9erepl
